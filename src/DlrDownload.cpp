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
#include <QNetworkReply>
#include <QProgressBar>
#include <QScopedValueRollback>
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
}

DlrDownload::~DlrDownload() = default;

void DlrDownload::initializePage()
{
    qDebug() << "Download";
    progressBar->reset();
    progressBar->setValue(0);
    position = 0;
    downloadReply = nullptr;
    installerProcess.reset();
    backAfterInstall = false;
    downloadAbandoned = false;
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

    const QScopedValueRollback<bool> entry(entering, true);
    requestNextDownload();
}

void DlrDownload::cleanupPage()
{
    wizard()->setButtonLayout({QWizard::Stretch, QWizard::BackButton, QWizard::NextButton, QWizard::FinishButton});
    amount->clear();
}

bool DlrDownload::isComplete() const
{
    return position == -1 && allDone;
}

bool DlrDownload::validatePage()
{
    return position == -1 && allDone;
}

bool DlrDownload::currentProduct(DlrManifestElement** element)
{
    const QList<int>& indices = dlrApp()->downloadIndices;
    if (position < 0 || position >= indices.size())
        return true;
    const int index = indices.at(position);
    QList<DlrManifestElement>& manifest = dlrApp()->manifest;
    if (index < 0 || index >= manifest.size())
        return true;
    *element = &manifest[index];
    return false;
}

void DlrDownload::requestNextDownload()
{
    amount->clear();
    DlrApp* app = dlrApp();
    const QList<int>& indices = app->downloadIndices;
    if (position < 0 || position >= indices.size()) {
        qWarning() << "requestNextDownload made with nothing to do" << position;
        return;
    }
    progressStep = 1000 / indices.size();
    progressBar->setValue(position * progressStep);

    const int index = indices.at(position);
    DlrManifestElement* product = nullptr;
    const bool known = !currentProduct(&product);
    if (known && product->downloaded) {
        // A complete package from an earlier run or visit: install it as is.
        downloadCompleted(index);
        return;
    }

    const QString name = known ? product->matchName() : QString();
    status->setText(QStringLiteral("Downloading ") + name + QStringLiteral("..."));
    downloadReply = app->DownloadProduct(index);
    if (!downloadReply) {
        QMessageBox box(QMessageBox::Critical, QString(), QStringLiteral("There Was An Error Downloading"),
                        QMessageBox::Ok, this);
        box.setInformativeText(QStringLiteral("While processing") + name
                               + QStringLiteral(". If this error persists contact customer support. Press Ok to "
                                                "exit the application"));
        box.exec();
        QCoreApplication::exit(DlrExitNormal);
        return;
    }
    progressShown.invalidate();
    connect(downloadReply, &QNetworkReply::downloadProgress, this, &DlrDownload::downloadProgress);
}

void DlrDownload::downloadProgress(qint64 bytesReceived, qint64 bytesTotal)
{
    // Qt reports every piece that arrives; ten redraws a second are all an
    // eye can follow, and each one costs the download time.
    if (progressShown.isValid() && progressShown.elapsed() < 100 && bytesReceived != bytesTotal)
        return;
    progressShown.start();
    // A resumed download counts what its file held already.
    const qint64 offset = dlrApp()->downloadOffset;
    bytesReceived += offset;
    if (bytesTotal > 0)
        bytesTotal += offset;
    // Without a known total there is no fraction: the bar stays at the
    // product's start and the label shows what has arrived.
    if (bytesTotal <= 0) {
        amount->setText(DlrHumanBytes(bytesReceived));
        return;
    }
    const float done = float(bytesReceived) / float(bytesTotal);
    progressBar->setValue(int(float(position * progressStep) + done * float(progressStep / 2)));
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
    installDownloaded(manifestIndex);
}

void DlrDownload::installDownloaded(int manifestIndex)
{
    downloadReply = nullptr;
    qDebug() << "Download complete!" << manifestIndex;
    amount->clear();
    startInstaller();
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
    amount->clear();
    downloadReply = nullptr;
    if (downloadAbandoned) {
        downloadAbandoned = false;
        return;
    }
    askAboutFailedDownload(reason);
}

void DlrDownload::askAboutFailedDownload(const QString& reason)
{
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
        // Later, not now: the download engine still holds the failed reply
        // while this runs and would refuse a new download.
        QTimer::singleShot(1, this, &DlrDownload::requestNextDownload);
        break;
    default:
        nextDownloadKeepingAmount();
        break;
    }
}

void DlrDownload::nextDownload()
{
    amount->clear();
    nextDownloadKeepingAmount();
}

void DlrDownload::nextDownloadKeepingAmount()
{
    ++position;
    progressBar->setValue(position * progressStep);
    if (position == dlrApp()->downloadIndices.size()) {
        position = -1;
        allDone = true;
        emit completeChanged();
        // The wizard cannot move on from inside its own move to this page
        // (the whole run can end there: products already on disk that are
        // skipped or cannot be installed); it does so just after.
        if (entering)
            QTimer::singleShot(0, wizard(), &QWizard::next);
        else
            wizard()->next();
        return;
    }
    QTimer::singleShot(1, this, &DlrDownload::requestNextDownload);
}

void DlrDownload::back(bool checked)
{
    Q_UNUSED(checked)
    if (position == -1) {
        wizard()->back();
        return;
    }
    DlrManifestElement* product = nullptr;
    if (currentProduct(&product)) {
        qWarning() << "no element even though processing in back";
        return;
    }
    if (installerProcess)
        askBeforeLeavingInstall(product->matchName());
    else if (downloadReply)
        askBeforeStoppingDownload(product->matchName());
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
        // The failure report that the abort causes is not the user's concern.
        downloadAbandoned = true;
        if (!completedInDialog && !failedInDialog && downloadReply)
            downloadReply->abort();
        downloadReply = nullptr;
        wizard()->back();
        return;
    }
    if (completedInDialog)
        installDownloaded(pendingIndex);
    else if (failedInDialog)
        downloadFailed(pendingReason, pendingIndex);
}

void DlrDownload::startInstaller()
{
    DlrManifestElement* product = nullptr;
    if (currentProduct(&product)) {
        qDebug() << "No current product in startInstaller";
        return;
    }
    if (installerProcess) {
        qWarning() << "startInstaller called while installer is running";
        return;
    }

    const QString package = product->downloadFile ? product->downloadFile->fileName() : QString();
    if (!package.endsWith(QLatin1String(".pkg"))) {
        // Anything but a package is delivered as a download only.
        qDebug() << "Not running installer on " << package;
        nextDownload();
        return;
    }
    // Without a package installer the user chose, on the selection page,
    // to go on with downloads only.
    QString cannotInstall;
    const DlrMachineAssay* assay = dlrApp()->assay;
    if (assay && assay->FindMachineProperty(DlrAttrCannotInstallReason, cannotInstall)) {
        qDebug().noquote() << "Not installing" << package << "-" << cannotInstall;
        status->setText(product->matchName() + QStringLiteral(" was downloaded but not installed"));
        nextDownload();
        return;
    }

    installerProcess = std::make_unique<DlrOSXProcess>();
    DlrOSXProcess* process = installerProcess.get();
    process->setProcessEnvironment(QProcessEnvironment::systemEnvironment());
    connect(process, &DlrOSXProcess::started, this, &DlrDownload::installerStarts);
    connect(process, &DlrOSXProcess::stateChanged, this, &DlrDownload::installerChangedState);
    connect(process, &DlrOSXProcess::error, this, &DlrDownload::installerError);
    connect(process, &DlrOSXProcess::finished, this, &DlrDownload::installerFinished);
    connect(process, &DlrOSXProcess::readyReadStandardOutput, this, &DlrDownload::installerReadyStdout);
    connect(process, &DlrOSXProcess::readyReadStandardError, this, &DlrDownload::installerReadyStderr);

    progressBar->setValue(position * progressStep + progressStep / 2);
    const QString program = DlrPlatform::PackageInstallerProgram();
    const QStringList arguments = DlrPlatform::PackageInstallerArguments(package);
    qDebug() << "running installer" << program << arguments;
    process->start(program, arguments, QIODevice::ReadOnly);
}

void DlrDownload::installerStarts()
{
    DlrManifestElement* product = nullptr;
    if (currentProduct(&product))
        status->clear();
    else
        status->setText(QStringLiteral("Installing ") + product->matchName() + QStringLiteral("..."));
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

    DlrManifestElement* product = nullptr;
    QString text = QStringLiteral("Could not start installer process");
    if (!currentProduct(&product))
        text += QStringLiteral(" for ") + product->matchName();
    text += QStringLiteral(", skipping to next product");
    QMessageBox box(QMessageBox::Critical, QString(), text, QMessageBox::Ok, this);
    box.exec();

    // This may run inside the process object's own start(): it must outlive it.
    if (installerProcess)
        installerProcess.release()->deleteLater();
    qDebug() << "process object abandoned due to error";
    status->clear();
    nextDownload();
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
    if (exitCode < 0 || exitStatus != QProcess::NormalExit) {
        QMessageBox box(QMessageBox::Critical, QString(),
                        QStringLiteral("Installer exited with err. Exit code: ") + QString::number(exitCode),
                        QMessageBox::Ok, this);
        box.exec();
    }
    if (!backAfterInstall)
        nextDownload();
    else
        wizard()->back();

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
    const DlrInstallerLine line = DlrReadInstallerLine(installerProcess->readAllStandardOutput());
    qDebug() << "installer stdout:" << line.plain;
    switch (line.kind) {
    case DlrInstallerLine::Progress: {
        // The second half of the product's share.
        const int half = progressStep / 2;
        progressBar->setValue(int(float(position * progressStep + half) + float(line.fraction) * float(half)));
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
