#pragma once

// A real helper daemon, or the scripted test server, listening on a socket
// in a temporary folder for as long as this object lives. Its log (the
// copy of its system-log lines on standard error) goes to a file.

#include "DlrdConnection.h"

#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

class HelperProcess
{
public:
    ~HelperProcess() { Stop(SIGTERM); }

    bool Start(const QString& program, const QStringList& arguments, const QStringList& environment = {})
    {
        if (!dir.isValid())
            return false;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.remove(QStringLiteral("VLUM_HELPER_SOCKET"));
        for (const QString& entry : environment) {
            const int eq = entry.indexOf(QLatin1Char('='));
            env.insert(entry.left(eq), entry.mid(eq + 1));
        }
        process.setProcessEnvironment(env);
        process.setStandardOutputFile(QProcess::nullDevice());
        process.setStandardErrorFile(LogPath());
        process.start(program, arguments + QStringList{QStringLiteral("--socket"), SocketPath()});
        if (!process.waitForStarted(5000))
            return false;
        QElapsedTimer clock;
        clock.start();
        while (clock.elapsed() < 5000) {
            if (DlrdHelperAnswers(SocketPath()))
                return true;
            if (process.state() != QProcess::Running)
                return false;
            QTest::qWait(20);
        }
        return false;
    }

    // True when it ended by itself, with status 0.
    bool Stop(int signal)
    {
        if (process.state() != QProcess::Running)
            return false;
        ::kill(pid_t(process.processId()), signal);
        if (process.waitForFinished(5000))
            return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
        process.kill();
        process.waitForFinished(5000);
        return false;
    }

    bool IsRunning() const { return process.state() == QProcess::Running; }
    QString SocketPath() const { return dir.filePath(QStringLiteral("helper.sock")); }
    QString LogPath() const { return dir.filePath(QStringLiteral("helper.log")); }
    QString Log() const
    {
        QFile file(LogPath());
        file.open(QIODevice::ReadOnly);
        return QString::fromLocal8Bit(file.readAll());
    }

private:
    QTemporaryDir dir;
    QProcess process;
};
