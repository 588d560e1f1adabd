#pragma once

// Runs one of our programs as a child process with a clean, controlled
// environment, and collects what it printed.

#include <QProcess>
#include <QStringList>

// The probe prints its configuration after this line.
inline constexpr char kConfigMarker[] = "--- config\n";

struct ChildRun {
    int exitCode = -1;
    QProcess::ExitStatus exitStatus = QProcess::CrashExit;
    qint64 pid = 0;
    QByteArray out;
    QByteArray err;

    // The text printed before the probe's "--- config" marker: what the
    // option parser said.
    QByteArray outBeforeConfig() const
    {
        const int at = out.indexOf(kConfigMarker);
        return at < 0 ? out : out.left(at);
    }
};

// `env` with each entry applied: "NAME=value" sets, "NAME" removes.
inline QProcessEnvironment withEntries(QProcessEnvironment env, const QStringList& entries)
{
    for (const QString& entry : entries) {
        const int eq = entry.indexOf(QLatin1Char('='));
        if (eq < 0)
            env.remove(entry);
        else
            env.insert(entry.left(eq), entry.mid(eq + 1));
    }
    return env;
}

// HOME points at `home`; any debug switch of the caller's environment is
// removed so that only what the test sets counts. `extraEnv`: entries as
// withEntries() takes them.
inline ChildRun runChild(const QString& program, const QStringList& args, const QString& home,
                         const QStringList& extraEnv = {})
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove(QStringLiteral("VLUMINSTALLER_DEBUG_LOG"));
    env.remove(QStringLiteral("DLRPROBE_LOG"));
    env.insert(QStringLiteral("HOME"), home);
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    QProcess process;
    process.setProcessEnvironment(withEntries(env, extraEnv));
    process.start(program, args);
    ChildRun run;
    if (!process.waitForStarted(10000)) {
        qWarning("could not start %s", qPrintable(program));
        return run;
    }
    run.pid = process.processId();
    if (!process.waitForFinished(60000)) {
        qWarning("%s did not finish", qPrintable(program));
        process.kill();
        process.waitForFinished();
    }
    run.exitCode = process.exitCode();
    run.exitStatus = process.exitStatus();
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}
