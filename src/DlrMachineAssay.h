#pragma once

#include <QDir>
#include <QString>

// The survey of this machine.
class DlrMachineAssay
{
public:
    // The user's own download folder; neither created nor tested here.
    static QString GetUserDownloadPath();
};
