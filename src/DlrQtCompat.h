#pragma once

// The few places where Qt 5.15 and Qt 6 want different code, so that every
// other file is written once for both. Include it only where one of these is
// used: it brings in QRegExp, deprecated in Qt 5.15.

#include <QProcess>
#include <QRegExp>
#include <QString>

#include <unistd.h>

// A child process that leads a process group of its own from before it
// execs, so that killing the group takes whatever it started as well.
class DlrGroupLeaderProcess : public QProcess
{
public:
    explicit DlrGroupLeaderProcess(QObject* parent = nullptr)
        : QProcess(parent)
    {
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
        setChildProcessModifier([] { ::setpgid(0, 0); });
#endif
    }

#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
protected:
    void setupChildProcess() override { ::setpgid(0, 0); }
#endif
};

// Takes every match of pattern out of text and returns text.
inline QString& DlrRemoveMatches(QString& text, const QRegExp& pattern)
{
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    text = pattern.removeIn(text);
    return text;
#else
    return text.remove(pattern);
#endif
}
