#include "DlrDownload.h"

#include "DlrApp.h"
#include "DlrExitStatus.h"
#include "DlrHumanBytes.h"
#include "DlrInstallerLine.h"
#include "DlrMachineAssay.h"
#include "DlrManifestElement.h"
#include "DlrOSXProcess.h"
#include "DlrPlatform.h"

#include <QAbstractButton>
#include <QDebug>
#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QProgressBar>
#include <QTimer>
#include <QVBoxLayout>
#include <QWizard>

DlrDownload::DlrDownload(QWidget* parent)
    : QWizardPage(parent)
{
    auto* column = new QVBoxLayout(this);

    auto* row = new QHBoxLayout;
    artwork = new QLabel(this);
    artwork->setObjectName(QStringLiteral("downloadArtwork"));
    row->addStretch();
    row->addWidget(artwork);
    row->addStretch();
    column->addLayout(row);

    // Each product owns an equal share of the bar: the first half for its
    // download, the second for its installation.
    progressBar = new QProgressBar(this);
    progressBar->setMinimum(0);
    progressBar->setMaximum(1000);
    column->addWidget(progressBar);

    status = new QLabel(QStringLiteral("Download/Installing"), this);
    status->setObjectName(QStringLiteral("downloadStatus"));
    column->addWidget(status);

    amount = new QLabel(this);
    amount->setObjectName(QStringLiteral("downloadAmount"));
    column->addWidget(amount);

    artwork->setPixmap(nextWUWPixmap());

    setSubTitle(tr(" "));
    setPixmap(QWizard::BannerPixmap, dlrApp()->LoadPixmapResource("downloadBanner.png"));

    DlrApp* app = dlrApp();
    connect(app, qOverload<int>(&DlrApp::finishedDownload), this, &DlrDownload::downloadCompleted);
    connect(app, &DlrApp::failedDownload, this, &DlrDownload::downloadFailed);

    walk.download = [this, fetch = walk.download](int manifestIndex) {
        requestNextDownload();
        if (fetch(manifestIndex))
            return true;
        QMessageBox box(QMessageBox::Critical, QString(), QStringLiteral("There Was An Error Downloading"),
                        QMessageBox::Ok, this);
        box.setInformativeText(QStringLiteral("While processing") + walk.CurrentName()
                               + QStringLiteral(". If this error persists contact customer support. Press Ok to "
                                                "exit the application"));
        box.exec();
        QCoreApplication::exit(DlrExitNormal);
        // The run ends here: nothing of this product or the next is to follow.
        walk.Abandon();
        return true;
    };
    walk.install = [this](const QString& package) { startInstaller(package); };
    connect(&walk, &DlrProductWalk::downloadProgress, this, &DlrDownload::downloadProgress);
    connect(&walk, &DlrProductWalk::downloadCompleted, this, &DlrDownload::downloadDone);
    connect(&walk, &DlrProductWalk::downloadFailed, this, &DlrDownload::askAboutFailedDownload);
    connect(&walk, &DlrProductWalk::installerLine, this, &DlrDownload::showInstallerLine);
    connect(&walk, &DlrProductWalk::productEnded, this, &DlrDownload::productEnded);
    connect(&walk, &DlrProductWalk::finished, this, &DlrDownload::allFinished);
}

DlrDownload::~DlrDownload() = default;

void DlrDownload::initializePage()
{
    qDebug() << "Download";
    progressBar->reset();
    progressBar->setValue(0);
    installerProcess.reset();
    backAfterInstall = false;
    allDone = false;
    amount->clear();

    // On this page Back asks before it stops a download or leaves an
    // installation behind, so the wizard's own button makes way for ours.
    QWizard* wizard = this->wizard();
    wizard->setButtonLayout({QWizard::Stretch, QWizard::CustomButton1, QWizard::NextButton, QWizard::FinishButton});
    wizard->setButtonText(QWizard::CustomButton1, wizard->buttonText(QWizard::BackButton));
    if (!backButtonConnected) {
        connect(wizard->button(QWizard::CustomButton1), &QAbstractButton::clicked, this, &DlrDownload::back);
        backButtonConnected = true;
    }

    // Without a package installer the user chose, on the selection page,
    // to go on with downloads only.
    walk.cannotInstall.clear();
    if (const DlrMachineAssay* assay = dlrApp()->assay)
        assay->FindMachineProperty(DlrAttrCannotInstallReason, walk.cannotInstall);
    progressStep = 1000 / qMax(1, dlrApp()->downloadIndices.size());
    walk.Start();
}

void DlrDownload::cleanupPage()
{
    wizard()->setButtonLayout({QWizard::Stretch, QWizard::BackButton, QWizard::NextButton, QWizard::FinishButton});
    amount->clear();
}

bool DlrDownload::isComplete() const
{
    return walk.Position() == -1 && allDone;
}

bool DlrDownload::validatePage()
{
    return walk.Position() == -1 && allDone;
}

void DlrDownload::requestNextDownload()
{
    amount->clear();
    progressBar->setValue(walk.Position() * progressStep);
    status->setText(QStringLiteral("Downloading ") + walk.CurrentName() + QStringLiteral("..."));
    progressShown.invalidate();
}

void DlrDownload::downloadProgress(qint64 bytesReceived, qint64 bytesTotal)
{
    // Qt reports every piece that arrives; ten redraws a second are all an
    // eye can follow, and each one costs the download time.
    if (progressShown.isValid() && progressShown.elapsed() < 100 && bytesReceived != bytesTotal)
        return;
    progressShown.start();
    // Without a known total there is no fraction: the bar stays at the
    // product's start and the label shows what has arrived.
    if (bytesTotal <= 0) {
        amount->setText(DlrHumanBytes(bytesReceived));
        return;
    }
    const float done = float(bytesReceived) / float(bytesTotal);
    progressBar->setValue(int(float(walk.Position() * progressStep) + done * float(progressStep / 2)));
    amount->setText(DlrHumanBytes(bytesReceived) + QLatin1Char('/') + DlrHumanBytes(bytesTotal));
}

void DlrDownload::downloadCompleted(int manifestIndex)
{
    if (inBackDialog) {
        qDebug() << "Download completed while in the back dialog";
        completedInDialog = true;
        pendingIndex = manifestIndex;
        return;
    }
    walk.EngineCompleted(manifestIndex);
}

void DlrDownload::downloadDone()
{
    qDebug() << "Download complete!" << walk.CurrentIndex();
    amount->clear();
}

void DlrDownload::downloadFailed(const QString& reason, int manifestIndex)
{
    qWarning() << "Download failed" << reason;
    if (inBackDialog) {
        qDebug() << "Download failed while in the back dialog";
        failedInDialog = true;
        pendingIndex = manifestIndex;
        pendingReason = reason;
        return;
    }
    // A download the user stopped on the way back is no longer the walk's.
    walk.EngineFailed(reason, manifestIndex);
}

void DlrDownload::askAboutFailedDownload(const QString& reason)
{
    amount->clear();
    QMessageBox box(QMessageBox::Critical, QString(), QStringLiteral("Product download failed"),
                    QMessageBox::Abort | QMessageBox::Retry | QMessageBox::Ignore, this);
    box.setDefaultButton(QMessageBox::Retry);
    box.setInformativeText(reason + QStringLiteral(". Press Abort to exit, Retry or Ignore to try the next product"));
    switch (box.exec()) {
    case QMessageBox::Abort:
        QCoreApplication::exit(DlrExitGaveUp);
        break;
    case QMessageBox::Retry:
        qDebug() << "Requesting retry after a failed download";
        walk.Retry();
        break;
    default:
        walk.GiveUp(reason);
        break;
    }
}

void DlrDownload::productEnded(const DlrProductWalk::Result& result)
{
    const QString name = walk.CurrentName();
    const auto package = [this] {
        const DlrManifestElement& offer = dlrApp()->manifest.at(walk.CurrentIndex());
        return offer.downloadFile ? offer.downloadFile->fileName() : QString();
    };
    switch (result.outcome) {
    case DlrProductWalk::Installed:
    case DlrProductWalk::InstallFailed:
        // The installer's own failure codes are its business; a crash or a
        // negative code is the process object's, and is shown.
        if (result.exitCode < 0 || result.exitStatus != QProcess::NormalExit) {
            QMessageBox box(QMessageBox::Critical, QString(),
                            QStringLiteral("Installer exited with err. Exit code: ") + QString::number(result.exitCode),
                            QMessageBox::Ok, this);
            box.exec();
        }
        if (backAfterInstall) {
            walk.Abandon();
            wizard()->back();
            return;
        }
        break;
    case DlrProductWalk::InstallerNotStarted: {
        QString text = QStringLiteral("Could not start installer process");
        if (!name.isEmpty())
            text += QStringLiteral(" for ") + name;
        text += QStringLiteral(", skipping to next product");
        QMessageBox box(QMessageBox::Critical, QString(), text, QMessageBox::Ok, this);
        box.exec();
        break;
    }
    case DlrProductWalk::DownloadedOnly:
        qDebug() << "Not running installer on " << package();
        break;
    case DlrProductWalk::NotInstalled:
        qDebug().noquote() << "Not installing" << package() << "-" << result.reason;
        status->setText(name + QStringLiteral(" was downloaded but not installed"));
        break;
    case DlrProductWalk::DownloadFailed: // Ignore: the label was cleared before the question
        break;
    }
    if (result.outcome != DlrProductWalk::DownloadFailed)
        amount->clear();
    progressBar->setValue((walk.Position() + 1) * progressStep);
}

void DlrDownload::allFinished()
{
    allDone = true;
    emit completeChanged();
    // Not from inside the wizard's own move to this page, where a walk with
    // nothing to do ends.
    QTimer::singleShot(0, wizard(), &QWizard::next);
}

void DlrDownload::back(bool checked)
{
    Q_UNUSED(checked)
    if (walk.Position() == -1) {
        wizard()->back();
        return;
    }
    if (walk.CurrentIndex() < 0) {
        qWarning() << "no element even though processing in back";
        return;
    }
    if (installerProcess)
        askBeforeLeavingInstall(walk.CurrentName());
    else if (walk.IsDownloading())
        askBeforeStoppingDownload(walk.CurrentName());
}

bool DlrDownload::confirmGoingBack(const QString& text, const QString& informative)
{
    QMessageBox box(QMessageBox::Critical, QString(), text, QMessageBox::Ok | QMessageBox::Cancel, this);
    box.setDefaultButton(QMessageBox::Cancel); // staying is the safe answer
    box.setInformativeText(informative);
    return box.exec() == QMessageBox::Ok;
}

void DlrDownload::askBeforeLeavingInstall(const QString& name)
{
    inBackDialog = true;
    installerFinishedInDialog = false;
    // An installation cannot be stopped halfway: OK only means "then go back".
    if (confirmGoingBack(QStringLiteral("A Product Install Is In Progress"),
                         QStringLiteral("Once ") + name + QStringLiteral(" is installed the Velluma Installer will go back")))
        backAfterInstall = true;
    inBackDialog = false;
    if (installerFinishedInDialog) {
        installerFinishedInDialog = false;
        installerFinished(savedExitCode, QProcess::ExitStatus(savedExitStatus));
    }
}

void DlrDownload::askBeforeStoppingDownload(const QString& name)
{
    inBackDialog = true;
    completedInDialog = false;
    failedInDialog = false;
    const bool goBack = confirmGoingBack(QStringLiteral("Download In Progress. Really go back?"),
                                         QStringLiteral("Pressing Ok will stop this download of ") + name
                                             + QStringLiteral(". Press Cancel to resume download and installation"));
    inBackDialog = false;

    if (goBack) {
        // Whatever became of the download meanwhile is not the user's concern.
        walk.Abandon();
        wizard()->back();
        return;
    }
    if (completedInDialog)
        walk.EngineCompleted(pendingIndex);
    else if (failedInDialog)
        downloadFailed(pendingReason, pendingIndex);
}

void DlrDownload::startInstaller(const QString& package)
{
    installerProcess = std::make_unique<DlrOSXProcess>();
    DlrOSXProcess* process = installerProcess.get();
    process->setProcessEnvironment(QProcessEnvironment::systemEnvironment());
    connect(process, &DlrOSXProcess::started, this, &DlrDownload::installerStarts);
    connect(process, &DlrOSXProcess::stateChanged, this, &DlrDownload::installerChangedState);
    connect(process, &DlrOSXProcess::error, this, &DlrDownload::installerError);
    connect(process, &DlrOSXProcess::finished, this, &DlrDownload::installerFinished);
    connect(process, &DlrOSXProcess::readyReadStandardOutput, this, &DlrDownload::installerReadyStdout);
    connect(process, &DlrOSXProcess::readyReadStandardError, this, &DlrDownload::installerReadyStderr);

    progressBar->setValue(walk.Position() * progressStep + progressStep / 2);
    const QString program = DlrPlatform::PackageInstallerProgram();
    const QStringList arguments = DlrPlatform::PackageInstallerArguments(package);
    qDebug() << "running installer" << program << arguments;
    process->start(program, arguments, QIODevice::ReadOnly);
}

void DlrDownload::installerStarts()
{
    const QString name = walk.CurrentName();
    if (name.isEmpty())
        status->clear();
    else
        status->setText(QStringLiteral("Installing ") + name + QStringLiteral("..."));
}

void DlrDownload::installerChangedState(QProcess::ProcessState newState)
{
    qDebug() << "Installer moves to state" << newState;
}

void DlrDownload::installerError(QProcess::ProcessError error)
{
    qDebug() << "Installer error " << error;
    if (error != QProcess::FailedToStart)
        return; // a crash is followed by finished(), which reports it
    walk.InstallerCannotStart(installerProcess ? installerProcess->errorString() : QString());
    // This may run inside the process object's own start(): it must outlive it.
    if (installerProcess)
        installerProcess.release()->deleteLater();
    qDebug() << "process object abandoned due to error";
    status->clear();
}

void DlrDownload::installerFinished(int exitCode, QProcess::ExitStatus exitStatus)
{
    status->clear();
    qDebug() << "Installer finished" << exitCode << " status " << exitStatus;
    if (inBackDialog) {
        installerFinishedInDialog = true;
        savedExitCode = exitCode;
        savedExitStatus = int(exitStatus);
        qDebug() << "Installer finished while waiting for user input";
        return;
    }
    walk.InstallerEnded(exitCode, exitStatus);
    qDebug() << "calling delete on installer process object";
    installerProcess.reset();
    qDebug() << "process object gone";
}

void DlrDownload::installerReadyStdout()
{
    if (!installerProcess) {
        qDebug() << "internal error, got stdin ready but no process";
        return;
    }
    // The walk reads the verdict in the installer's words; what it shows is the page's.
    walk.InstallerOutput(installerProcess->readAllStandardOutput());
}

void DlrDownload::showInstallerLine(const DlrInstallerLine& line)
{
    qDebug() << "installer stdout:" << line.plain;
    switch (line.kind) {
    case DlrInstallerLine::Progress: {
        // The second half of the product's share.
        const int half = progressStep / 2;
        progressBar->setValue(int(float(walk.Position() * progressStep + half) + float(line.fraction) * float(half)));
        break;
    }
    case DlrInstallerLine::Status:
    case DlrInstallerLine::Success:
    case DlrInstallerLine::Failure:
        amount->setText(line.text);
        break;
    case DlrInstallerLine::Nothing:
        break;
    }
}

void DlrDownload::installerReadyStderr()
{
    if (!installerProcess) {
        qDebug() << "internal error, got stderr ready but no process";
        return;
    }
    qDebug() << "installer stderr:" << installerProcess->readAllStandardError();
}

void DlrDownload::nextWhileUWait()
{
    artwork->setPixmap(nextWUWPixmap());
    QTimer::singleShot(100, this, &DlrDownload::nextWhileUWait);
}

QPixmap DlrDownload::nextWUWPixmap()
{
    const DlrApp* app = dlrApp();
    QPixmap picture;
    do {
        const QByteArray name = QStringLiteral("whileUWait-%1.png").arg(whileUWaitIndex).toLatin1();
        picture = app->LoadPixmapResource(name.constData());
        ++whileUWaitIndex;
    } while (picture.isNull() && whileUWaitIndex < 20);

    if (!picture.isNull())
        return picture;
    whileUWaitIndex = 2;
    return app->LoadPixmapResource("whileUWait-1.png");
}
