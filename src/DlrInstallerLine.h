#pragma once

#include <QByteArray>
#include <QString>

// What one piece of the package installer's output (InstallerOutput.h)
// means: "installer:%" and a number moves the bar, anything else is a step
// to show, the last line of a run saying also how it ended.
struct DlrInstallerLine {
    enum Kind {
        Nothing,  // a progress line whose number cannot be read: ignored
        Progress, // `fraction` of the installation is done
        Status,   // `text` goes under the bar
        Success,  // as Status; the installation is done
        Failure,  // as Status; it is not, for `reason`
    };
    Kind kind = Nothing;
    double fraction = 0; // 0 to 1
    QString text;
    QString reason;
    QString plain; // the text as read, prefixes kept, for the log
};

// Reads what the installer wrote in one go (one line, as it flushes each).
// Non-ASCII bytes are dropped and a NUL ends the text; the first
// "installer:%" followed by digits and points counts, its percentage held
// to 0..100, and one that is no number (1.2.3) moves nothing. A verdict
// line holding such a percentage is a progress line like any other.
DlrInstallerLine DlrReadInstallerLine(const QByteArray& bytes);
