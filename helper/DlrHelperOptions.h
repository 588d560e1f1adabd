#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <sys/types.h>

// What the helper serves, and to whom: from its command line, with the
// socket path also from VLUM_HELPER_SOCKET.
struct DlrHelperOptions {
    QByteArray socketPath;
    QList<uid_t> allowedUids;         // besides root, which is always served
    QList<QByteArray> allowedFolders; // resolved; files are opened only below these
    QList<int> allowedFolderFds;      // each of them, opened at start
    QByteArray trustedKeys;           // the installer's key folder, when not its default
    QByteArray installer;             // resolved; the one program it runs
    bool help = false;
    QString error;                    // set when the command line is unusable

    static DlrHelperOptions Parse(int argc, char** argv);
    static const char* Usage();
};
