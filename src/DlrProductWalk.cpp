#include "DlrProductWalk.h"

#include "DlrApp.h"
#include "DlrInstallerLine.h"
#include "DlrOSXProcess.h"
#include "DlrPlatform.h"

#include <QDebug>
#include <QNetworkReply>
#include <QTimer>

DlrProductWalk::DlrProductWalk(QObject* parent)
    : QObject(parent)
    , download([this](int index) { return startDownload(index); })
    , install([this](const QString& package) { startInstall(package); })
{
    next.setSingleShot(true);
    next.setInterval(1);
    connect(&next, &QTimer::timeout, this, &DlrProductWalk::step);
}

DlrProductWalk::~DlrProductWalk() = default;

int DlrProductWalk::CurrentIndex() const
{
    const QList<int>& indices = dlrApp()->downloadIndices;
    const int index = position >= 0 && position < indices.size() ? indices.at(position) : -1;
    return index < dlrApp()->manifest.size() ? index : -1;
}

QString DlrProductWalk::CurrentName() const
{
    const int index = CurrentIndex();
    return index < 0 ? QString() : dlrApp()->manifest.at(index).matchName();
}

void DlrProductWalk::Start()
{
    ++walks;
    position = 0;
    state = Idle;
    next.stop();
    step();
}

void DlrProductWalk::step()
{
    if (position >= dlrApp()->downloadIndices.size()) {
        position = -1;
        state = Idle;
        emit finished();
        return;
    }
    DlrApp* app = dlrApp();
    const int index = CurrentIndex();
    if (index < 0) {
        end({DownloadFailed, QStringLiteral("index out of range in Download")});
        return;
    }
    app->CheckForDownload(index);
    const DlrManifestElement& offer = app->manifest.at(index);
    if (offer.downloaded) {
        emit alreadyDownloaded(offer.downloadFile->fileName());
        emit downloadCompleted(offer.downloadFile->fileName());
        installPackage();
        return;
    }
    state = Downloading;
    if (!download(index)) {
        state = Idle;
        end({DownloadFailed, QString()});
    }
}

bool DlrProductWalk::startDownload(int manifestIndex)
{
    reply = dlrApp()->DownloadProduct(manifestIndex);
    if (!reply)
        return false;
    connect(reply, &QNetworkReply::downloadProgress, this, &DlrProductWalk::engineProgress);
    return true;
}

void DlrProductWalk::engineProgress(qint64 received, qint64 total)
{
    // The engine resumes into what the file held; the user sees the whole.
    const qint64 offset = dlrApp()->DownloadResumedAt();
    emit downloadProgress(received + offset, total > 0 ? total + offset : total);
}

void DlrProductWalk::EngineCompleted(int manifestIndex)
{
    if (state != Downloading || manifestIndex != CurrentIndex())
        return;
    reply = nullptr;
    const DlrManifestElement& offer = dlrApp()->manifest.at(manifestIndex);
    emit downloadCompleted(offer.downloadFile ? offer.downloadFile->fileName() : QString());
    installPackage();
}

void DlrProductWalk::EngineFailed(const QString& reason, int manifestIndex)
{
    if (state != Downloading || manifestIndex != CurrentIndex())
        return;
    reply = nullptr;
    state = AwaitingDecision;
    emit downloadFailed(reason);
}

void DlrProductWalk::Retry()
{
    if (state != AwaitingDecision)
        return;
    state = Idle;
    // Later: the engine still holds the failed reply while its signal runs.
    next.start();
}

void DlrProductWalk::GiveUp(const QString& reason)
{
    if (state != AwaitingDecision)
        return;
    end({DownloadFailed, reason});
}

void DlrProductWalk::Abandon()
{
    const QPointer<QNetworkReply> running = state == Downloading ? reply : nullptr;
    ++walks;
    state = Idle;
    position = -1;
    reply = nullptr;
    next.stop();
    // Idle first: the failure this causes may be reported at once.
    if (running && running->isRunning())
        running->abort();
}

void DlrProductWalk::installPackage()
{
    const DlrManifestElement& offer = dlrApp()->manifest.at(CurrentIndex());
    const QString package = offer.downloadFile ? offer.downloadFile->fileName() : QString();
    // Anything but a package is delivered as a download only.
    if (!package.endsWith(QLatin1String(".pkg"))) {
        end({DownloadedOnly, QString()});
        return;
    }
    if (!cannotInstall.isEmpty()) {
        end({NotInstalled, cannotInstall});
        return;
    }
    state = Installing;
    succeeded = false;
    failure.clear();
    emit installing(package);
    install(package);
}

void DlrProductWalk::startInstall(const QString& package)
{
    installer = std::make_unique<DlrOSXProcess>();
    DlrOSXProcess* process = installer.get();
    connect(process, &DlrOSXProcess::readyReadStandardOutput, this,
            [this, process] { InstallerOutput(process->readAllStandardOutput()); });
    connect(process, &DlrOSXProcess::finished, this, &DlrProductWalk::InstallerEnded);
    connect(process, &DlrOSXProcess::error, this, [this, process](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart) // a crash is followed by finished()
            InstallerCannotStart(process->errorString());
    });
    process->start(DlrPlatform::PackageInstallerProgram(), DlrPlatform::PackageInstallerArguments(package),
                   QIODevice::ReadOnly);
}

void DlrProductWalk::InstallerOutput(const QByteArray& bytes)
{
    if (state != Installing)
        return;
    const DlrInstallerLine line = DlrReadInstallerLine(bytes);
    // The installer's verdict is in its words: the helper cannot tell its
    // exit status.
    if (line.kind == DlrInstallerLine::Success)
        succeeded = true;
    else if (line.kind == DlrInstallerLine::Failure)
        failure = line.reason;
    emit installerLine(line);
}

void DlrProductWalk::InstallerEnded(int exitCode, QProcess::ExitStatus exitStatus)
{
    if (state != Installing)
        return;
    // Not deleted inside its own signal.
    if (installer)
        installer.release()->deleteLater();
    end({succeeded ? Installed : InstallFailed, failure, exitCode, exitStatus});
}

void DlrProductWalk::InstallerCannotStart(const QString& why)
{
    if (state != Installing)
        return;
    // This may run inside the process object's own start(): it must outlive it.
    if (installer)
        installer.release()->deleteLater();
    end({InstallerNotStarted, why});
}

void DlrProductWalk::end(const Result& result)
{
    state = Idle;
    const unsigned walk = walks;
    emit productEnded(result);
    if (walk != walks)
        return; // abandoned, or started afresh
    ++position;
    next.start();
}
