// The whole wizard, in this process, as a user walks it: the demo catalog's
// real packages from the real local vendor server, installed by the real
// installer through the real helper into a temporary machine, which the
// real survey then reads back. Then the same walk with the faults a user
// meets: a dropped connection, a missing package, a corrupt one, a helper
// that is gone.

#include "../support/DemoCatalog.h"
#include "../support/DialogAnswerer.h"
#include "../support/HelperProcess.h"
#include "../support/TestMain.h"
#include "../support/UrlCatcher.h"
#include "../support/VendorServer.h"
#include "../support/WizardDriver.h"

#include "DlrDownload.h"
#include "DlrMainWindow.h"
#include "DlrNetworkError.h"

#include <QAbstractButton>
#include <QDesktopServices>
#include <QLabel>
#include <QProgressBar>
#include <QRegularExpression>

#include <csignal>

using namespace DemoCatalog;

class TestEndToEnd : public QObject
{
    Q_OBJECT

    QTemporaryDir work;
    QString machine;
    QString productRoot;
    QString downloads;
    QString demoCatalog; // as built, kept pristine
    QByteArray manifestTemplate;
    VendorServer server;
    HelperProcess helper;
    UrlCatcher browser;
    QScopedPointer<DlrMainWindow> window;
    int requestsBefore = 0;

    DlrDownload* downloadPage() const
    {
        return qobject_cast<DlrDownload*>(window->page(DlrMainWindow::DownloadPage));
    }
    QLabel* amountLabel() const { return downloadPage()->findChild<QLabel*>(QStringLiteral("downloadAmount")); }

    // The demo manifest, with each (from, to) replacement made in it.
    void serveManifest(const Replacements& replacements = {})
    {
        server.writeCatalogFile(QStringLiteral("manifest.xml"), edited(manifestTemplate, replacements));
    }

    // The demo manifest with extra switches in one package's address.
    void serveWithFaults(const QString& package, const QString& query)
    {
        serveManifest({{QStringLiteral("/packages/%1<").arg(package),
                        QStringLiteral("/packages/%1?%2<").arg(package, query.toHtmlEscaped())}});
    }

    void startRun() { WizardDriver::enterDownloads(window); }

    void waitForFinishedPage()
    {
        QTRY_COMPARE_WITH_TIMEOUT(window->currentId(), int(DlrMainWindow::FinishedPage), 60000);
    }

    QStringList chosenPackages() const
    {
        QStringList names;
        for (int index : qAsConst(dlrApp()->downloadIndices))
            names << dlrApp()->manifest.at(index).Name;
        return names;
    }

    QStringList downloaded() const
    {
        return QDir(downloads).entryList(QDir::Files, QDir::Name);
    }

    QStringList installedFolders() const
    {
        return QDir(productRoot).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    }

    bool sameAsCatalog(const QString& downloadedName, const QString& package) const
    {
        QFile got(downloads + QLatin1Char('/') + downloadedName);
        QFile sent(demoCatalog + QStringLiteral("/packages/") + package);
        return got.open(QIODevice::ReadOnly) && sent.open(QIODevice::ReadOnly) && got.readAll() == sent.readAll();
    }

    int packageRequests(const QString& package) const
    {
        int n = 0;
        for (const QJsonObject& request : server.requests().mid(requestsBefore))
            n += request.value(QStringLiteral("path")).toString() == QStringLiteral("/packages/") + package ? 1 : 0;
        return n;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(work.isValid());
        // The demo machine: one Maya 2018 and an empty product root. The
        // survey reads its roots once per process, so they are set first.
        machine = work.filePath(QStringLiteral("machine"));
        productRoot = machine + QStringLiteral("/opt/Oktavo");
        QVERIFY(QDir().mkpath(machine + QStringLiteral("/usr/autodesk/maya2018")));
        qputenv("VLUM_PRODUCT_ROOT", QFile::encodeName(productRoot));
        qputenv("VLUM_MAYA_ROOT", QFile::encodeName(machine + QStringLiteral("/usr/autodesk")));
        qunsetenv("VLUM_SYSTEM_PROFILER");
        qunsetenv("VLUMTREE");
        qunsetenv("VWSTREE");
        downloads = QDir::homePath() + QStringLiteral("/Downloads");

        demoCatalog = work.filePath(QStringLiteral("demo-catalog"));
        QByteArray error;
        manifestTemplate = load(server, demoCatalog, work.path(), error);
        QVERIFY2(!manifestTemplate.isEmpty(), error.constData());
        QVERIFY(server.start({QStringLiteral("--tls"), QStringLiteral("chain")}));
        WizardDriver::useServer(server);

        // The helper runs the bundle's own installer, into the machine,
        // trusting the demo key as the demo does.
        QVERIFY(helper.Start(QStringLiteral(VLUM_HELPER),
                             {QStringLiteral("--trusted-keys"), QStringLiteral(VLUM_TRUSTED_DEMO_KEYS)},
                             {QStringLiteral("VLUM_INSTALL_ROOT=") + machine}));
        qputenv("VLUM_HELPER_SOCKET", QFile::encodeName(helper.SocketPath()));
        QDesktopServices::setUrlHandler(QStringLiteral("https"), &browser, "open");
    }

    void cleanupTestCase() { QDesktopServices::unsetUrlHandler(QStringLiteral("https")); }

    void init()
    {
        QVERIFY(QDir(productRoot).removeRecursively() && QDir().mkpath(productRoot));
        QVERIFY(QDir(downloads).removeRecursively() && QDir().mkpath(downloads));
        serveManifest();
        browser.opened.clear();
        requestsBefore = server.requests().size();
    }

    void cleanup() { window.reset(); }

    // The mission: the rules pick the core server, the bridge for the Maya
    // the machine has and the "show" offer; each lands whole under its
    // final name, is installed, and the bar ends at 3 x 333. Finish opens
    // the manifest's success page and ends the run with 0. A second run
    // finds what the first installed and offers only the "show" offer,
    // which the survey cannot see.
    void wholeRun()
    {
        startRun();
        QCOMPARE(chosenPackages(), (QStringList{kCore, kBridge, kScenes}));
        waitForFinishedPage();
        QCOMPARE(downloadPage()->findChild<QProgressBar*>()->value(), 999);
        QCOMPARE(downloaded(), (QStringList{kCore, kBridge, kScenes}));
        for (const QString& package : {kCore, kBridge, kScenes})
            QVERIFY2(sameAsCatalog(package, package), qPrintable(package));
        QCOMPARE(installedFolders(), (QStringList{kCoreFolder, kScenesFolder, kBridgeFolder}));
        QVERIFY(QFileInfo(productRoot + QLatin1Char('/') + kCoreFolder + QStringLiteral("/bin/vlrender")).isExecutable());

        QCOMPARE(WizardDriver::runUntilExit([this] { window->button(QWizard::FinishButton)->click(); }), 0);
        QCOMPARE(browser.opened, QList<QUrl>{server.url(QStringLiteral("view/Install-Success"))});

        startRun();
        QCOMPARE(chosenPackages(), QStringList{kScenes});
        waitForFinishedPage();
        QCOMPARE(packageRequests(kScenes), 1); // the first run's; this one found it on disk
    }

    // A connection dropped in mid-download: Retry continues the broken
    // part from where it stopped, and the package is whole.
    void droppedThenRetried()
    {
        serveWithFaults(kCore, QStringLiteral("drop_after=3000000&fault_times=1"));
        DialogAnswerer user(QMessageBox::Retry);
        startRun();
        waitForFinishedPage();
        QCOMPARE(user.texts, QStringList{"Product download failed"});
        QCOMPARE(user.informative, QStringList{DlrNetworkError(QNetworkReply::RemoteHostClosedError)
                                               + ". Press Abort to exit, Retry or Ignore to try the next product"});
        QCOMPARE(downloaded(), (QStringList{kCore, kBridge, kScenes}));
        QVERIFY(sameAsCatalog(kCore, kCore));
        QCOMPARE(packageRequests(kCore), 2);
        QStringList ranges;
        for (const QJsonObject& request : server.requests().mid(requestsBefore)) {
            if (request.value(QStringLiteral("path")).toString() == QStringLiteral("/packages/") + kCore)
                ranges << request.value(QStringLiteral("headers")).toObject().value(QStringLiteral("Range")).toString();
        }
        // The retry asks for the rest of what reached the disk, which may be
        // less than the server sent before the cut.
        QCOMPARE(ranges.size(), 2);
        QVERIFY(ranges.first().isEmpty());
        const QRegularExpressionMatch resumed = QRegularExpression(QStringLiteral("^bytes=(\\d+)-$")).match(ranges.last());
        QVERIFY2(resumed.hasMatch() && resumed.captured(1).toLongLong() > 0
                     && resumed.captured(1).toLongLong() <= 3000000,
                 qPrintable(ranges.last()));
        QCOMPARE(installedFolders(), (QStringList{kCoreFolder, kScenesFolder, kBridgeFolder}));
    }

    // A package that cannot be had: Ignore goes on with the others.
    void missingThenIgnored()
    {
        serveWithFaults(kBridge, QStringLiteral("status=404"));
        DialogAnswerer user(QMessageBox::Ignore);
        startRun();
        waitForFinishedPage();
        QCOMPARE(user.texts, QStringList{"Product download failed"});
        QCOMPARE(installedFolders(), (QStringList{kCoreFolder, kScenesFolder}));
        QVERIFY(!downloaded().contains(kBridge));
    }

    // Abort ends the run at once with -1; nothing more is installed.
    void failedThenAborted()
    {
        serveWithFaults(kCore, QStringLiteral("drop_after=1000"));
        DialogAnswerer user(QMessageBox::Abort);
        QCOMPARE(WizardDriver::runUntilExit([this] { startRun(); }), -1);
        QCOMPARE(user.texts, QStringList{"Product download failed"});
        QTest::qWait(200);
        QCOMPARE(window->currentId(), int(DlrMainWindow::DownloadPage));
        QVERIFY(installedFolders().isEmpty());
        QCOMPARE(packageRequests(kBridge), 0);
    }

    // A package the installer refuses: the run goes on, and until the
    // installer has ended the label shows its error line.
    void corruptPackage()
    {
        server.writePackage(QStringLiteral("corrupt.pkg"), 5000); // the right name, not an archive
        serveManifest({{QStringLiteral("/packages/") + kScenes, QStringLiteral("/packages/corrupt.pkg")},
                       {QStringLiteral("@SIZE:%1@").arg(kScenes), QStringLiteral("@SIZE:corrupt.pkg@")}});
        LogWatch log;
        QStringList labelAtEnd;
        log.tap = [&](const QString& line) {
            if (line.startsWith(QLatin1String("Installer finished")))
                labelAtEnd << amountLabel()->text();
        };
        startRun();
        waitForFinishedPage();
        QCOMPARE(labelAtEnd.size(), 3);
        QCOMPARE(labelAtEnd.at(0), QStringLiteral(" The install was successful."));
        QVERIFY2(labelAtEnd.at(2).startsWith(QLatin1String(" Error - ")), qPrintable(labelAtEnd.at(2)));
        QCOMPARE(installedFolders(), (QStringList{kCoreFolder, kBridgeFolder}));
        QVERIFY(downloaded().contains(kScenes)); // the download itself was whole
    }

    // Last, since the helper does not come back in this process: without
    // it no product can be installed, each one says so, and the run still
    // reaches its end.
    void helperStopped()
    {
        helper.Stop(SIGTERM);
        DialogAnswerer user(QMessageBox::Ok);
        startRun();
        waitForFinishedPage();
        QStringList expected;
        for (const char* name : {"Velluma CoreServer 22.0", "Velluma for Maya 2018", "Velluma Sample Scenes"})
            expected << QStringLiteral("Could not start installer process for %1, skipping to next product").arg(name);
        QCOMPARE(user.texts, expected);
        QVERIFY(installedFolders().isEmpty());
        QCOMPARE(downloaded(), (QStringList{kCore, kBridge, kScenes}));
    }
};

int main(int argc, char** argv)
{
    return runWithDlrApp<TestEndToEnd>(argc, argv, {"-user", "demo", "-pass", "velluma"});
}

#include "tst_endtoend.moc"
