#include "DlrdBless.h"

#include <QProcess>
#include <QStandardPaths>
#include <QStringList>

namespace {

// pkexec's own statuses for a dismissed prompt and a refusal.
constexpr int kPkexecDismissed = 126;
constexpr int kPkexecNotAuthorised = 127;

} // namespace

QString DlrdAuthorizationProgram()
{
    return QStandardPaths::findExecutable(QStringLiteral("pkexec"));
}

DlrdBlessResult DlrdBless(const QString& authorizer, const QString& installScript, const QStringList& arguments,
                          int timeoutMs, QByteArray& reason)
{
    reason.clear();
    QProcess run;
    run.setProcessChannelMode(QProcess::SeparateChannels);
    run.start(authorizer, QStringList{installScript} + arguments, QIODevice::ReadOnly);
    if (!run.waitForStarted(5000)) {
        reason = run.errorString().toUtf8();
        return DlrdBlessResult::Failed;
    }
    if (!run.waitForFinished(timeoutMs)) {
        run.kill();
        run.waitForFinished(5000);
        reason = "the installation did not finish in time";
        return DlrdBlessResult::Failed;
    }
    if (run.exitStatus() == QProcess::NormalExit && run.exitCode() == 0)
        return DlrdBlessResult::Installed;
    if (run.exitStatus() == QProcess::NormalExit
        && (run.exitCode() == kPkexecDismissed || run.exitCode() == kPkexecNotAuthorised))
        return DlrdBlessResult::NotAuthorised;

    // The script states its reason on the last line of its error output.
    const QList<QByteArray> lines = run.readAllStandardError().trimmed().split('\n');
    reason = lines.isEmpty() ? QByteArray() : lines.last().trimmed();
    return DlrdBlessResult::Failed;
}
