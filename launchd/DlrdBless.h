#pragma once

#include <QByteArray>
#include <QString>

// Putting the helper in place as a system service, the Linux way: the
// bundle's install script runs with administrator rights obtained through
// polkit's pkexec.

// The program that asks for administrator rights, or empty when there is
// none on this machine.
QString DlrdAuthorizationProgram();

enum class DlrdBlessResult {
    Installed,
    NotAuthorised, // the user dismissed the prompt or was refused
    Failed,        // the script failed; `reason` says why when it could
};

// Runs `installScript` through `authorizer`, giving it the helper program,
// the package installer it may run, the socket and the label. Waits for at
// most `timeoutMs` (the user may be typing a password); a run that takes
// longer is stopped and fails.
DlrdBlessResult DlrdBless(const QString& authorizer, const QString& installScript, const QStringList& arguments,
                          int timeoutMs, QByteArray& reason);
