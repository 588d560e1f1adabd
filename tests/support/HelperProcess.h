#pragma once

// A real helper daemon, or the scripted one of the test client, listening on
// a socket in a temporary folder for as long as this object lives. Its log
// (the copy of its system-log lines on standard error) goes to a file.

#include "ChildRun.h"
#include "DlrdConnection.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

class HelperProcess
{
public:
    ~HelperProcess() { Stop(SIGTERM); }

    // `environment`: NAME=value entries added to this process's.
    bool Start(const QString& program, const QStringList& arguments, const QStringList& environment = {})
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.remove(QStringLiteral("VLUM_HELPER_SOCKET"));
        process.setProcessEnvironment(withEntries(env, environment));
        process.setStandardOutputFile(QProcess::nullDevice());
        process.setStandardErrorFile(dir.filePath(QStringLiteral("helper.log")));
        process.start(program, arguments + QStringList{QStringLiteral("--socket"), SocketPath()});
        return process.waitForStarted(5000)
            && QTest::qWaitFor([this] { return DlrdHelperAnswers(SocketPath()) || !IsRunning(); }, 5000)
            && DlrdHelperAnswers(SocketPath());
    }

    // True when it ended by itself, with status 0.
    bool Stop(int signal)
    {
        const bool ended = IsRunning() && ::kill(pid_t(process.processId()), signal) == 0 && process.waitForFinished(5000);
        if (!ended && IsRunning()) {
            process.kill();
            process.waitForFinished(5000);
        }
        return ended && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    }

    bool IsRunning() const { return process.state() == QProcess::Running; }
    QString SocketPath() const { return dir.filePath(QStringLiteral("helper.sock")); }
    QString Log() const
    {
        QFile file(dir.filePath(QStringLiteral("helper.log")));
        file.open(QIODevice::ReadOnly);
        return QString::fromLocal8Bit(file.readAll());
    }

private:
    QTemporaryDir dir;
    QProcess process;
};
