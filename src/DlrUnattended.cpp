#include "DlrUnattended.h"

#include "DlrApp.h"
#include "DlrHumanBytes.h"
#include "DlrInstallerLine.h"
#include "DlrMachineAssay.h"
#include "DlrOSXProcess.h"
#include "DlrOptions.h"
#include "DlrPlatform.h"
#include "InstallerOutput.h"

#include <QJsonArray>
#include <QNetworkReply>
#include <QTimer>

namespace {

QtMessageHandler qtHandler = nullptr;

// Qt warns, while the application object is made, that a root shell without
// a login session has no runtime folder; a run without a window has no use
// for one, and the warning would only bury the run's own lines.
void withoutRuntimeFolderWarning(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (type == QtWarningMsg && message.startsWith(QLatin1String("QStandardPaths: XDG_RUNTIME_DIR not set")))
        return;
    qtHandler(type, context, message);
}

} // namespace

void DlrPrepareHeadless(int argc, char** argv)
{
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    // Read as the application object will read them, so that "-user
    // -unattended" names a user and does not switch the mode. The usage
    // text is the first thing typed over ssh, where there is no display.
    const DlrOptions options = DlrParseArguments(arguments);
    if (!options.unattended && !options.usageAsked)
        return;
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    // Until logging starts and installs its own handler.
    qtHandler = qInstallMessageHandler(withoutRuntimeFolderWarning);
}

DlrUnattended::DlrUnattended()
    : log(dlrApp()->jsonEvents)
{
}

DlrUnattended::~DlrUnattended() = default;

void DlrUnattended::Begin()
{
    // QCoreApplication::exit does nothing before the loop runs.
    QTimer::singleShot(0, this, &DlrUnattended::run);
}

void DlrUnattended::run()
{
    DlrApp* app = dlrApp();
    for (const QString& unknown : qAsConst(app->unknownOptions))
        log.Event(QStringLiteral("error"), QString(), QStringLiteral("unknown option ") + unknown);
    if (!app->unknownOptions.isEmpty()) {
        end(DlrExitBadRequest);
        return;
    }
    // Nobody is there to answer a question about a certificate.
    app->certificatePolicy = DlrCertificatePolicy::Refuse;
    connect(app, &DlrApp::certificateRefused, this, &DlrUnattended::certificateRefused);
    QString untrusted;
    if (!app->TrustKnownRootsOnly(untrusted)) {
        log.Event(QStringLiteral("error"), QString(), untrusted);
        end(DlrExitBadRequest);
        return;
    }
    if (app->productsNamed && app->products.isEmpty()) {
        log.Event(QStringLiteral("error"), QString(), QStringLiteral("-products names no product"));
        end(DlrExitBadRequest);
        return;
    }
    const QString exposed = app->ExposedPasswordFile();
    if (!exposed.isEmpty())
        log.Event(QStringLiteral("warning"), QString(),
                  exposed + QStringLiteral(" holds the password and users other than you can read it; keep it "
                                           "readable by you alone (mode 0600)"),
                  {{QStringLiteral("path"), exposed}});
    connect(app, &DlrApp::validManifestReply, this, &DlrUnattended::validManifest);
    connect(app, &DlrApp::invalidManifestReply, this, &DlrUnattended::invalidManifest);
    connect(app, qOverload<int>(&DlrApp::finishedDownload), this, &DlrUnattended::downloadCompleted);
    connect(app, &DlrApp::failedDownload, this, &DlrUnattended::downloadFailed);

    app->DoAssay();
    QStringList found;
    for (const AssayedProduct& product : app->assay->FindAssayedProductByVersion(QString(), QString())) {
        const QString name = product.value(QStringLiteral("ProductName"));
        const QString version = product.value(QStringLiteral("Version"));
        const QString build = product.value(QStringLiteral("BuildId"));
        found << name + (name.contains(version) ? QString() : QLatin1Char(' ') + version)
                + (build.isEmpty() ? QString() : QStringLiteral(" (build %1)").arg(build));
    }
    QString memory;
    app->assay->FindMachineProperty(DlrAttrMemory, memory);
    log.Event(QStringLiteral("survey"), QString(),
              QStringLiteral("%1 GB of memory; installed: %2")
                  .arg(memory, found.isEmpty() ? QStringLiteral("nothing") : found.join(QStringLiteral(", "))),
              {{QStringLiteral("memoryGB"), memory}, {QStringLiteral("installed"), QJsonArray::fromStringList(found)}});
    if (app->assay->FindMachineProperty(DlrAttrCannotInstallReason, noInstaller))
        log.Event(QStringLiteral("no-installer"), QString(), noInstaller + QStringLiteral(" Packages are downloaded only."));

    const QUrl url = app->GetURL(ManifestLocation);
    log.Event(QStringLiteral("manifest"), QString(),
              QStringLiteral("requesting the product list for %1 from %2").arg(app->user, url.toDisplayString()));
    app->RequestManifest(url, app->user, app->pass, QStringLiteral("osx"));
}

void DlrUnattended::invalidManifest(const QString& reason)
{
    QString message = QStringLiteral("Could not get a product list from Oktavo: ") + reason;
    const QString network = dlrApp()->manifestNetworkError;
    if (!network.isEmpty() && network != reason)
        message += QStringLiteral(" (") + network + QLatin1Char(')');
    log.Event(QStringLiteral("error"), QString(), message);
    end(DlrExitNoProductList);
}

void DlrUnattended::validManifest()
{
    DlrApp* app = dlrApp();
    rules.chosenIndices.clear();
    rules.hiddenIndices.clear();
    rules.chooseDownloads();
    QString unknown;
    if (!pickOffers(unknown)) {
        log.Event(QStringLiteral("error"), QString(), QStringLiteral("no such product on offer: ") + unknown);
        end(DlrExitBadRequest);
        return;
    }
    for (int index : qAsConst(picked)) {
        const DlrManifestElement& offer = app->manifest.at(index);
        log.Event(QStringLiteral("offer"), offer.matchName(),
                  QStringLiteral("chosen: %1 (%2)").arg(offer.Name, DlrHumanBytes(offer.FileSize)),
                  {{QStringLiteral("package"), offer.Name}, {QStringLiteral("size"), offer.FileSize}});
    }
    if (picked.isEmpty()) {
        log.Event(QStringLiteral("offer"), QString(), QStringLiteral("nothing to install on this machine"));
        summarize();
        return;
    }
    if (!enoughSpace()) {
        end(DlrExitNoSpace);
        return;
    }
    app->downloadIndices = picked;
    position = 0;
    retries = 0;
    startDownload();
}

bool DlrUnattended::pickOffers(QString& unknown)
{
    DlrApp* app = dlrApp();
    picked.clear();
    if (!app->productsNamed) {
        picked = rules.chosenIndices;
        return true;
    }
    // Only what the wizard could list: never an offer without an address,
    // a size or a plain file name.
    const QList<qint32> listed = rules.chosenIndices + rules.hiddenIndices;
    for (const QString& name : qAsConst(app->products)) {
        const QString wanted = name.trimmed();
        int found = -1;
        for (int index : listed) {
            const DlrManifestElement& offer = app->manifest.at(index);
            if (offer.matchName() == wanted || offer.Name == wanted) {
                found = index;
                break;
            }
        }
        if (found < 0) {
            unknown = wanted;
            return false;
        }
        if (!picked.contains(found))
            picked << found;
    }
    return true;
}

bool DlrUnattended::enoughSpace()
{
    DlrApp* app = dlrApp();
    const qint64 needed = DlrSpaceNeeded(app->manifest, picked);
    const QDir* folder = app->GetDownloadDir();
    const qint64 available = DlrMachineAssay::GetAvailableDisk(*folder);
    const QJsonObject fields{{QStringLiteral("needed"), needed},
                             {QStringLiteral("available"), available},
                             {QStringLiteral("folder"), folder->absolutePath()}};
    const QString figures = QStringLiteral("Needed %1 for selected downloads. There is %2 of available space on %3")
                                .arg(DlrHumanBytes(needed), DlrHumanBytes(available), folder->absolutePath());
    if (available < needed) {
        log.Event(QStringLiteral("error"), QString(),
                  QStringLiteral("You do not have enough free disk space to download the selected products. ") + figures,
                  fields);
        return false;
    }
    log.Event(QStringLiteral("space"), QString(), figures, fields);
    return true;
}

int DlrUnattended::currentIndex() const
{
    return position >= 0 && position < picked.size() ? picked.at(position) : -1;
}

QString DlrUnattended::currentName() const
{
    const int index = currentIndex();
    return index < 0 ? QString() : dlrApp()->manifest.at(index).matchName();
}

void DlrUnattended::startDownload()
{
    if (position >= picked.size()) {
        summarize();
        return;
    }
    DlrApp* app = dlrApp();
    const int index = currentIndex();
    app->CheckForDownload(index);
    const DlrManifestElement& offer = app->manifest.at(index);
    if (offer.downloaded) {
        log.Event(QStringLiteral("download"), currentName(),
                  QStringLiteral("already downloaded: ") + offer.downloadFile->fileName(),
                  {{QStringLiteral("state"), QStringLiteral("present")}});
        downloadCompleted(index);
        return;
    }
    QNetworkReply* reply = app->DownloadProduct(index);
    if (!reply) {
        log.Event(QStringLiteral("download"), currentName(), QStringLiteral("failed: the download could not be started"),
                  {{QStringLiteral("state"), QStringLiteral("failed")}});
        ++downloadFailures;
        nextProduct();
        return;
    }
    sinceProgress.invalidate();
    connect(reply, &QNetworkReply::downloadProgress, this, &DlrUnattended::downloadProgress);
}

void DlrUnattended::downloadProgress(qint64 received, qint64 total)
{
    // A log line a second at most; the end gets a line of its own.
    if (sinceProgress.isValid() && sinceProgress.elapsed() < 1000)
        return;
    sinceProgress.start();
    // A resumed download counts what the file held already.
    const qint64 offset = dlrApp()->downloadOffset;
    received += offset;
    QString message = DlrHumanBytes(received);
    QJsonObject fields{{QStringLiteral("state"), QStringLiteral("progress")}, {QStringLiteral("received"), received}};
    if (total > 0) {
        total += offset;
        message += QStringLiteral(" of %1 (%2%)").arg(DlrHumanBytes(total)).arg(received * 100 / total);
        fields.insert(QStringLiteral("total"), total);
    }
    log.Event(QStringLiteral("download"), currentName(), message, fields);
}

void DlrUnattended::downloadCompleted(int manifestIndex)
{
    if (manifestIndex != currentIndex())
        return;
    const DlrManifestElement& offer = dlrApp()->manifest.at(manifestIndex);
    const QString path = offer.downloadFile ? offer.downloadFile->fileName() : QString();
    log.Event(QStringLiteral("download"), currentName(), QStringLiteral("complete: ") + path,
              {{QStringLiteral("state"), QStringLiteral("complete")}, {QStringLiteral("path"), path}});
    install();
}

void DlrUnattended::downloadFailed(const QString& reason, int manifestIndex)
{
    if (manifestIndex != currentIndex())
        return;
    const QJsonObject fields{{QStringLiteral("state"), QStringLiteral("failed")}, {QStringLiteral("reason"), reason}};
    if (retries < kRetries) {
        ++retries;
        log.Event(QStringLiteral("download"), currentName(),
                  QStringLiteral("failed: %1; retrying (%2 of %3)").arg(reason).arg(retries).arg(kRetries), fields);
        // Later: the engine still holds the failed reply while this runs.
        QTimer::singleShot(1, this, &DlrUnattended::startDownload);
        return;
    }
    log.Event(QStringLiteral("download"), currentName(),
              QStringLiteral("failed: %1; skipped after %2 retries").arg(reason).arg(kRetries), fields);
    ++downloadFailures;
    nextProduct();
}

void DlrUnattended::install()
{
    const DlrManifestElement& offer = dlrApp()->manifest.at(currentIndex());
    const QString package = offer.downloadFile ? offer.downloadFile->fileName() : QString();
    if (!package.endsWith(QLatin1String(".pkg"))) {
        log.Event(QStringLiteral("install"), currentName(), QStringLiteral("not a package: downloaded only"),
                  {{QStringLiteral("state"), QStringLiteral("downloaded-only")}});
        ++deliveredOnly;
        nextProduct();
        return;
    }
    if (!noInstaller.isEmpty()) {
        log.Event(QStringLiteral("install"), currentName(), QStringLiteral("not installed: ") + noInstaller,
                  {{QStringLiteral("state"), QStringLiteral("failed")}});
        ++notInstalled;
        nextProduct();
        return;
    }
    installSucceeded = false;
    installUnverified = false;
    installerReason.clear();
    installer = std::make_unique<DlrOSXProcess>();
    connect(installer.get(), &DlrOSXProcess::error, this, &DlrUnattended::installerError);
    connect(installer.get(), &DlrOSXProcess::finished, this, &DlrUnattended::installerFinished);
    connect(installer.get(), &DlrOSXProcess::readyReadStandardOutput, this, &DlrUnattended::installerOutput);
    log.Event(QStringLiteral("install"), currentName(), QStringLiteral("installing ") + package,
              {{QStringLiteral("state"), QStringLiteral("started")}});
    installer->start(DlrPlatform::PackageInstallerProgram(), DlrPlatform::PackageInstallerArguments(package),
                     QIODevice::ReadOnly);
}

void DlrUnattended::installerOutput()
{
    if (!installer)
        return;
    const DlrInstallerLine line = DlrReadInstallerLine(installer->readAllStandardOutput());
    // The installer's verdict is in its words: the helper cannot tell its
    // exit status.
    using namespace InstallerOutput;
    static const QString kPhaseLine = QLatin1String(kLead) + QLatin1String(kPhase);
    static const QString kWarningLine = QLatin1String(kLead) + QLatin1String(kStatus) + QLatin1String(kWarning);
    if (line.kind == DlrInstallerLine::Success) {
        installSucceeded = true;
    } else if (line.kind == DlrInstallerLine::Failure) {
        installerReason = line.reason;
    } else if (line.plain.startsWith(kWarningLine)) {
        const QString warning = line.plain.mid(kWarningLine.size());
        installUnverified = installUnverified || warning.startsWith(QLatin1String("Packages are not verified"));
        log.Event(QStringLiteral("warning"), currentName(), warning);
    }
    else if (line.plain.startsWith(kPhaseLine))
        log.Event(QStringLiteral("install"), currentName(), line.text.trimmed(),
                  {{QStringLiteral("state"), QStringLiteral("phase")}});
}

void DlrUnattended::installerError(QProcess::ProcessError error)
{
    if (error != QProcess::FailedToStart)
        return; // finished() follows and reports it
    const QString why = installer->errorString();
    // This runs inside the process object's start(): it must outlive it.
    installer.release()->deleteLater();
    installEnded(false, QStringLiteral("could not start the installer through the helper: ") + why);
}

void DlrUnattended::installerFinished()
{
    // Not deleted inside its own signal.
    installer.release()->deleteLater();
    installEnded(installSucceeded, installerReason.isEmpty()
                                       ? QStringLiteral("the installer ended without reporting success")
                                       : installerReason);
}

void DlrUnattended::installEnded(bool success, const QString& reason)
{
    if (success) {
        ++installed;
        unverified += installUnverified ? 1 : 0;
        log.Event(QStringLiteral("install"), currentName(),
                  installUnverified ? QStringLiteral("installed, unverified") : QStringLiteral("installed"),
                  {{QStringLiteral("state"), QStringLiteral("installed")}, {QStringLiteral("verified"), !installUnverified}});
    } else {
        ++notInstalled;
        log.Event(QStringLiteral("install"), currentName(), QStringLiteral("failed: ") + reason,
                  {{QStringLiteral("state"), QStringLiteral("failed")}, {QStringLiteral("reason"), reason}});
    }
    nextProduct();
}

void DlrUnattended::nextProduct()
{
    ++position;
    retries = 0;
    QTimer::singleShot(1, this, &DlrUnattended::startDownload);
}

void DlrUnattended::summarize()
{
    const DlrExitStatus outcome = downloadFailures ? DlrExitDownloadFailed
                                : notInstalled   ? DlrExitInstallFailed
                                                 : DlrExitNormal;
    log.Event(QStringLiteral("summary"), QString(),
              QStringLiteral("%1 chosen, %2 installed (%3 unverified), %4 downloaded only, %5 downloads failed, "
                             "%6 not installed; exit status %7")
                  .arg(picked.size())
                  .arg(installed)
                  .arg(unverified)
                  .arg(deliveredOnly)
                  .arg(downloadFailures)
                  .arg(notInstalled)
                  .arg(int(outcome)),
              {{QStringLiteral("chosen"), picked.size()},
               {QStringLiteral("installed"), installed},
               {QStringLiteral("unverified"), unverified},
               {QStringLiteral("downloadedOnly"), deliveredOnly},
               {QStringLiteral("downloadsFailed"), downloadFailures},
               {QStringLiteral("notInstalled"), notInstalled},
               {QStringLiteral("exitStatus"), int(outcome)}});
    end(outcome);
}

void DlrUnattended::certificateRefused(const QList<QSslError>& errors)
{
    QStringList texts;
    for (const QSslError& error : errors)
        texts << error.errorString();
    log.Event(QStringLiteral("tls"), QString(),
              QStringLiteral("refused the server's certificate: ") + texts.join(QStringLiteral("; ")));
}

void DlrUnattended::end(DlrExitStatus outcome)
{
    if (ended)
        return;
    ended = true;
    QCoreApplication::exit(int(outcome));
}
