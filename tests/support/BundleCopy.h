#pragma once

// A copy of the running test program in a bundle of its own making, for
// cases about what the bundle holds: the copy finds Resources/ and the
// profiler through links to the real bundle, and libexec/ holds whatever
// the caller puts there (or nothing).

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>

// Builds the bundle in `root` and gives the copy's path; empty on failure.
inline QString makeBundleCopy(const QString& root)
{
    const QString real = QCoreApplication::applicationDirPath() + QStringLiteral("/..");
    const QDir bundle(root);
    const QString copy = bundle.filePath(QStringLiteral("tests/") + QFileInfo(QCoreApplication::applicationFilePath()).fileName());
    const bool made = bundle.mkpath(QStringLiteral("tests")) && bundle.mkpath(QStringLiteral("libexec"))
        && QFile::copy(QCoreApplication::applicationFilePath(), copy)
        && QFile::link(real + QStringLiteral("/Resources"), bundle.filePath(QStringLiteral("Resources")))
        && QFile::link(real + QStringLiteral("/libexec/system_profiler"),
                       bundle.filePath(QStringLiteral("libexec/system_profiler")));
    return made ? copy : QString();
}

// Runs the copy with `marker` set in its environment and gives its exit
// code (-1 when it did not end). Its output goes to `output` when given,
// else to this process's own.
inline int runBundleCopy(const QString& copy, const char* marker, const QStringList& arguments, int timeoutMs,
                         QByteArray* output = nullptr)
{
    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QString::fromLatin1(marker), QStringLiteral("1"));
    child.setProcessEnvironment(env);
    child.setProcessChannelMode(output ? QProcess::MergedChannels : QProcess::ForwardedChannels);
    child.start(copy, arguments);
    const bool ended = child.waitForFinished(timeoutMs);
    if (!ended) {
        child.kill();
        child.waitForFinished();
    }
    if (output)
        *output = child.readAll();
    return ended && child.exitStatus() == QProcess::NormalExit ? child.exitCode() : -1;
}
