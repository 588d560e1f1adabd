#include "DlrUnattended.h"

#include "DlrApp.h"
#include "DlrFreeSpace.h"
#include "DlrHumanBytes.h"
#include "DlrInstallerLine.h"
#include "DlrMachineAssay.h"
#include "DlrManifestElement.h"
#include "DlrOptions.h"
#include "DlrPlatform.h"
#include "InstallerOutput.h"

#include <QJsonArray>
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
    connect(app, qOverload<int>(&DlrApp::finishedDownload), &walk, &DlrProductWalk::EngineCompleted);
    connect(app, &DlrApp::failedDownload, &walk, &DlrProductWalk::EngineFailed);
    connect(&walk, &DlrProductWalk::alreadyDownloaded, this, [this](const QString& path) {
        log.Event(QStringLiteral("download"), walk.CurrentName(), QStringLiteral("already downloaded: ") + path,
                  {{QStringLiteral("state"), QStringLiteral("present")}});
    });
    connect(&walk, &DlrProductWalk::downloadCompleted, this, [this](const QString& path) {
        log.Event(QStringLiteral("download"), walk.CurrentName(), QStringLiteral("complete: ") + path,
                  {{QStringLiteral("state"), QStringLiteral("complete")}, {QStringLiteral("path"), path}});
    });
    connect(&walk, &DlrProductWalk::installing, this, [this](const QString& package) {
        installUnverified = false;
        log.Event(QStringLiteral("install"), walk.CurrentName(), QStringLiteral("installing ") + package,
                  {{QStringLiteral("state"), QStringLiteral("started")}});
    });
    connect(&walk, &DlrProductWalk::downloadProgress, this, &DlrUnattended::downloadProgress);
    connect(&walk, &DlrProductWalk::downloadFailed, this, &DlrUnattended::downloadFailed);
    connect(&walk, &DlrProductWalk::installerLine, this, &DlrUnattended::installerLine);
    connect(&walk, &DlrProductWalk::productEnded, this, &DlrUnattended::productEnded);
    connect(&walk, &DlrProductWalk::finished, this, &DlrUnattended::summarize);

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
    retries = 0;
    walk.cannotInstall = noInstaller;
    walk.Start();
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
    const DlrFreeSpace space = DlrMeasureFreeSpace(picked);
    const QJsonObject fields{{QStringLiteral("needed"), space.needed},
                             {QStringLiteral("available"), space.available},
                             {QStringLiteral("folder"), space.folder}};
    if (!space.Enough()) {
        log.Event(QStringLiteral("error"), QString(), DlrFreeSpace::Shortage() + QStringLiteral(". ") + space.Figures(),
                  fields);
        return false;
    }
    log.Event(QStringLiteral("space"), QString(), space.Figures(), fields);
    return true;
}

void DlrUnattended::productEnded(const DlrProductWalk::Result& result)
{
    const QString name = walk.CurrentName();
    const QString failed = QStringLiteral("failed");
    switch (result.outcome) {
    case DlrProductWalk::Installed:
        ++installed;
        unverified += installUnverified ? 1 : 0;
        log.Event(QStringLiteral("install"), name,
                  installUnverified ? QStringLiteral("installed, unverified") : QStringLiteral("installed"),
                  {{QStringLiteral("state"), QStringLiteral("installed")}, {QStringLiteral("verified"), !installUnverified}});
        break;
    case DlrProductWalk::DownloadedOnly:
        log.Event(QStringLiteral("install"), name, QStringLiteral("not a package: downloaded only"),
                  {{QStringLiteral("state"), QStringLiteral("downloaded-only")}});
        ++deliveredOnly;
        break;
    case DlrProductWalk::NotInstalled:
        log.Event(QStringLiteral("install"), name, QStringLiteral("not installed: ") + result.reason,
                  {{QStringLiteral("state"), failed}});
        ++notInstalled;
        break;
    case DlrProductWalk::DownloadFailed:
        // A download given up on has said so already.
        if (result.reason.isEmpty())
            log.Event(QStringLiteral("download"), name, QStringLiteral("failed: the download could not be started"),
                      {{QStringLiteral("state"), failed}});
        ++downloadFailures;
        break;
    case DlrProductWalk::InstallFailed:
    case DlrProductWalk::InstallerNotStarted: {
        const QString reason = result.outcome == DlrProductWalk::InstallerNotStarted
                                   ? QStringLiteral("could not start the installer through the helper: ") + result.reason
                               : result.reason.isEmpty() ? QStringLiteral("the installer ended without reporting success")
                                                         : result.reason;
        ++notInstalled;
        log.Event(QStringLiteral("install"), name, QStringLiteral("failed: ") + reason,
                  {{QStringLiteral("state"), failed}, {QStringLiteral("reason"), reason}});
        break;
    }
    }
    retries = 0;
    sinceProgress.invalidate();
}

void DlrUnattended::downloadProgress(qint64 received, qint64 total)
{
    // A log line a second at most; the end gets a line of its own.
    if (sinceProgress.isValid() && sinceProgress.elapsed() < 1000)
        return;
    sinceProgress.start();
    QString message = DlrHumanBytes(received);
    QJsonObject fields{{QStringLiteral("state"), QStringLiteral("progress")}, {QStringLiteral("received"), received}};
    if (total > 0) {
        message += QStringLiteral(" of %1 (%2%)").arg(DlrHumanBytes(total)).arg(received * 100 / total);
        fields.insert(QStringLiteral("total"), total);
    }
    log.Event(QStringLiteral("download"), walk.CurrentName(), message, fields);
}

void DlrUnattended::downloadFailed(const QString& reason)
{
    sinceProgress.invalidate();
    const QJsonObject fields{{QStringLiteral("state"), QStringLiteral("failed")}, {QStringLiteral("reason"), reason}};
    if (retries < kRetries) {
        ++retries;
        log.Event(QStringLiteral("download"), walk.CurrentName(),
                  QStringLiteral("failed: %1; retrying (%2 of %3)").arg(reason).arg(retries).arg(kRetries), fields);
        walk.Retry();
        return;
    }
    log.Event(QStringLiteral("download"), walk.CurrentName(),
              QStringLiteral("failed: %1; skipped after %2 retries").arg(reason).arg(kRetries), fields);
    walk.GiveUp(reason);
}

void DlrUnattended::installerLine(const DlrInstallerLine& line)
{
    using namespace InstallerOutput;
    static const QString kPhaseLine = QLatin1String(kLead) + QLatin1String(kPhase);
    static const QString kWarningLine = QLatin1String(kLead) + QLatin1String(kStatus) + QLatin1String(kWarning);
    if (line.kind == DlrInstallerLine::Success || line.kind == DlrInstallerLine::Failure)
        return;
    if (line.plain.startsWith(kWarningLine)) {
        const QString warning = line.plain.mid(kWarningLine.size());
        installUnverified = installUnverified || warning.startsWith(QLatin1String("Packages are not verified"));
        log.Event(QStringLiteral("warning"), walk.CurrentName(), warning);
    } else if (line.plain.startsWith(kPhaseLine)) {
        log.Event(QStringLiteral("install"), walk.CurrentName(), line.text.trimmed(),
                  {{QStringLiteral("state"), QStringLiteral("phase")}});
    }
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
