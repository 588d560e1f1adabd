#pragma once

#include <QList>
#include <QString>

// The room the chosen packages need in the download folder against what it
// has, and the words that tell a person about it.
struct DlrFreeSpace {
    qint64 needed = 0;
    qint64 available = 0;
    QString folder; // absolute path of the download folder

    bool Enough() const { return available >= needed; }
    // "You do not have enough free disk space ..."
    static QString Shortage();
    // "Needed ... There is ... of available space on ..."
    QString Figures() const;
};

// Measures the download folder for the offers at these manifest indices.
DlrFreeSpace DlrMeasureFreeSpace(const QList<int>& indices);
