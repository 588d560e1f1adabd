// The whole program against the real parts, as a user and an administrator's
// script meet it: the demo catalog's real packages from the real local vendor
// server, installed by the real installer through the real helper into a
// temporary machine, which the real survey then reads back; then each fault
// a user meets. The wizard runs in this process, the unattended program as a
// child process.

#include "../assay/RecordText.h"
#include "../support/ChildRun.h"
#include "../support/DialogAnswerer.h"
#include "../support/Files.h"
#include "../support/HelperProcess.h"
#include "../support/SmallDisk.h"
#include "../support/TestMain.h"
#include "../support/UrlCatcher.h"
#include "../support/VendorServer.h"
#include "../support/WizardDriver.h"

#include "DlrNetworkError.h"
#include "DlrPlatform.h"

#include <QDesktopServices>
#include <QJsonDocument>
#include <QLabel>
#include <QProgressBar>
#include <QScopeGuard>

#include <csignal>

namespace {

using Replacements = QList<QPair<QString, QString>>;

// The demo catalog's three offers for a machine with Maya 2018, and where each lands.
const QString kCore = "Velluma-CoreServer-22.0.1234.pkg";
const QString kBridge = "VellumaForMaya-22.0-maya2018_1234.pkg";
const QString kScenes = "VellumaSampleScenes-22.0_1234.pkg";
const QString kCoreFolder = "Velluma CoreServer 22.0";
const QString kBridgeFolder = "VellumaForMaya-22.0-maya2018";
const QString kScenesFolder = "Velluma Sample Scenes 22.0";

// The demo manifest's address of a package, with the server's fault switches added.
Replacements faulty(const QString& package, const QString& switches)
{
    return {{"/packages/" + package + "<", "/packages/" + package + "?" + switches.toHtmlEscaped() + "<"}};
}

// The "show" offer's package replaced by one with the right name that is not an archive.
const Replacements kCorrupt{{"/packages/" + kScenes, "/packages/corrupt.pkg"},
                            {"@SIZE:" + kScenes + "@", "@SIZE:corrupt.pkg@"}};

} // namespace

class TestFaults : public QObject
{
    Q_OBJECT

    QTemporaryDir work;
    QString machine; // the install root, with one Maya 2018; products land in its opt/Oktavo
    QString productRoot;
    QString downloads;
    QString catalog; // the demo catalog as built
    VendorServer server;   // the catalog over TLS with the bundle's root, as the demo serves it
    VendorServer stranger; // a man in the middle, with a root of his own in the chain
    HelperProcess helper;
    UrlCatcher browser;
    QScopedPointer<DlrMainWindow> window;
    int requestsBefore = 0;

    void serve(const Replacements& replacements = {})
    {
        QByteArray xml = readFile(catalog + "/manifest.xml");
        for (const auto& replacement : replacements)
            xml.replace(replacement.first.toUtf8(), replacement.second.toUtf8());
        server.writeCatalogFile("manifest.xml", xml);
        stranger.writeCatalogFile("manifest.xml", xml);
    }

    void waitForFinishedPage() { QTRY_COMPARE_WITH_TIMEOUT(window->currentId(), int(DlrMainWindow::FinishedPage), 60000); }

    // The Range header of each request of this test for `path`, or for
    // every path under it when it ends with '/'.
    QStringList requested(const QString& path) const
    {
        QStringList ranges;
        for (const QJsonObject& request : server.requests().mid(requestsBefore)) {
            const QString got = request.value("path").toString();
            if (path.endsWith('/') ? got.startsWith(path) : got == path)
                ranges << request.value("headers").toObject().value("Range").toString();
        }
        return ranges;
    }

    QStringList installed() const { return QDir(productRoot).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name); }

    // The unattended program on this machine, as a script runs it: no
    // platform plug-in named, since the mode must not need one.
    ChildRun runUnattended(const VendorServer& from, const QStringList& options, const QStringList& env = {}) const
    {
        const QStringList args{"-unattended", "-manifestserver", QStringLiteral("127.0.0.1:%1").arg(from.port),
                               "-manifestserverscheme", "https", "-user", "demo"};
        return runChild(VLUM_INSTALLER, args + options, QDir::homePath(),
                        env + QStringList{"QT_QPA_PLATFORM", "XDG_RUNTIME_DIR=" + work.path()});
    }

    // The helper runs the bundle's own installer, into the machine,
    // trusting the demo key as the demo does. Paced, so that an
    // installation is still running when helperKilled() kills it.
    bool startHelper(const QString& trustedKeys = VLUM_TRUSTED_DEMO_KEYS)
    {
        return helper.Start(VLUM_HELPER, {"--trusted-keys", trustedKeys},
                            {"VLUM_INSTALL_ROOT=" + machine, "VLUM_INSTALLER_PACE=0.2"});
    }

private slots:
    void initTestCase()
    {
        QVERIFY(work.isValid());
        // The survey reads its roots once per process.
        machine = work.filePath("machine");
        productRoot = machine + "/opt/Oktavo";
        downloads = QDir::homePath() + "/Downloads";
        QVERIFY(QDir().mkpath(machine + "/usr/autodesk/maya2018"));
        qputenv("VLUM_PRODUCT_ROOT", QFile::encodeName(productRoot));
        qputenv("VLUM_MAYA_ROOT", QFile::encodeName(machine + "/usr/autodesk"));
        qunsetenv("VLUM_SYSTEM_PROFILER");
        qunsetenv("VLUMTREE");
        qunsetenv("VWSTREE");

        catalog = work.filePath("catalog");
        const ChildRun made = runChild(VLUM_SOURCE_DIR "/tools/make-demo-catalog",
                                       {"--sign-key", VLUM_DEMO_KEY, catalog}, work.path());
        QVERIFY2(made.exitCode == 0, made.err.constData());
        const QDir packages(catalog + "/packages");
        for (const QString& name : packages.entryList(QDir::Files)) {
            for (const VendorServer* to : {&server, &stranger})
                QVERIFY(QFile::copy(packages.filePath(name), to->catalogPath("packages/" + name)));
        }
        server.writePackage("corrupt.pkg", 5000); // the right name, not an archive
        QVERIFY(server.start({"--tls", "chain", "--ca-cert", VLUM_DEMO_CA, "--ca-key", VLUM_DEMO_CA_KEY}));
        QVERIFY(stranger.start({"--tls", "chain"}));
        QVERIFY(startHelper());
        qputenv("VLUM_HELPER_SOCKET", QFile::encodeName(helper.SocketPath()));
        QDesktopServices::setUrlHandler("https", &browser, "open");
    }

    void init()
    {
        QVERIFY(QDir(productRoot).removeRecursively() && QDir().mkpath(productRoot));
        QVERIFY(QDir(downloads).removeRecursively() && QDir().mkpath(downloads));
        serve();
        WizardDriver::useServer(server);
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
        const auto chosen = [] {
            QStringList names;
            for (int index : qAsConst(dlrApp()->downloadIndices))
                names << dlrApp()->manifest.at(index).Name;
            return names;
        };
        WizardDriver::enterDownloads(window);
        QCOMPARE(chosen(), (QStringList{kCore, kBridge, kScenes}));
        waitForFinishedPage();
        QCOMPARE(window->page(DlrMainWindow::DownloadPage)->findChild<QProgressBar*>()->value(), 999);
        QCOMPARE(QDir(downloads).entryList(QDir::Files, QDir::Name), (QStringList{kCore, kBridge, kScenes}));
        for (const QString& package : {kCore, kBridge, kScenes})
            QVERIFY2(readFile(downloads + '/' + package) == server.package(package), qPrintable(package));
        QCOMPARE(installed(), (QStringList{kCoreFolder, kScenesFolder, kBridgeFolder}));
        QVERIFY(QFileInfo(productRoot + '/' + kCoreFolder + "/bin/vlrender").isExecutable());
        QCOMPARE(WizardDriver::runUntilExit([this] { window->button(QWizard::FinishButton)->click(); }), 0);
        QCOMPARE(browser.opened, QList<QUrl>{server.url("view/Install-Success")});

        WizardDriver::enterDownloads(window);
        QCOMPARE(chosen(), QStringList{kScenes});
        waitForFinishedPage();
        QCOMPARE(requested("/packages/" + kScenes).size(), 1); // the first run's
    }

    // Catches a demo whose installed products the survey would not know: a
    // folder off the family patterns, a banner on the wrong stream or
    // without its build, a missing plug-in bundle or build-id file, a
    // package the installer refuses.
    void demoProductsFound()
    {
        const QDir packages(catalog + "/packages");
        for (const QString& file : packages.entryList({"*.pkg"}, QDir::Files)) {
            const ChildRun run = runChild(VLUM_LIBEXEC_DIR "/installer",
                                          DlrPlatform::PackageInstallerArguments(packages.filePath(file)), work.path(),
                                          {"VLUM_INSTALL_ROOT=" + machine, "VLUM_TRUSTED_KEYS=" VLUM_TRUSTED_DEMO_KEYS});
            QVERIFY2(run.exitCode == 0 && run.out.contains("installer:STATUS:Signature verified")
                         && run.out.endsWith("installer: The install was successful.\n"),
                     qPrintable(file + ' ' + QString::fromUtf8(run.out.right(300))));
        }
        const auto survey = [this] {
            QStringList records = surveyedRecords(productRoot);
            records.sort(); // folders come in file-system order
            return records;
        };
        const QStringList found{
            "Maya|2018|||",
            "Velluma 22.0 for Maya 2018|22.0|1234|2018|~/VellumaForMaya-22.0-maya2018",
            "Velluma 22.0 for Maya 2019|22.0|1234|2019|~/VellumaForMaya-22.0-maya2019",
            "Velluma CoreServer 22.0|22.0|1234||~/Velluma CoreServer 22.0",
            "Velluma Workshop 22.0 for Maya 2019|22.0|1234|2019|~/VellumaWorkshop-22.0-Maya2019",
        };
        QCOMPARE(survey(), found);
        // Without its build-id file a bridge answers through its queue
        // application's banner, which must carry the same build.
        QVERIFY(QFile::remove(productRoot + "/VellumaForMaya-22.0-maya2019/etc/buildid.txt"));
        QCOMPARE(survey(), found);
    }

    void wizardFault_data()
    {
        QTest::addColumn<Replacements>("manifest");
        QTest::addColumn<int>("answer");
        QTest::addColumn<int>("exitCode"); // 0: the run reaches its last page
        QTest::addColumn<QStringList>("texts");
        QTest::addColumn<QStringList>("folders");
        QTest::addColumn<QStringList>("files");
        QTest::addColumn<QString>("lastLabel"); // what the page says as the last installer ends

        const QString ok = " The install was successful.";
        const QStringList failed{"Product download failed"};
        QTest::newRow("missing package: Ignore goes on")
            << faulty(kBridge, "status=404") << int(QMessageBox::Ignore) << 0 << failed
            << QStringList{kCoreFolder, kScenesFolder} << QStringList{kCore, kBridge + ".vlumdownload", kScenes} << ok;
        // Abort ends the run at once with -1; nothing more is fetched or installed.
        QTest::newRow("failed download: Abort")
            << faulty(kCore, "drop_after=1000") << int(QMessageBox::Abort) << -1 << failed << QStringList()
            << QStringList{kCore + ".vlumdownload"} << QString();
        // The installer refuses it; until the installer has ended the label shows its error line.
        QTest::newRow("corrupt package: the others installed")
            << kCorrupt << int(QMessageBox::Ok) << 0 << QStringList() << QStringList{kCoreFolder, kBridgeFolder}
            << QStringList{kCore, kBridge, kScenes} << " Error - ";
    }

    // The demo's run with a fault, the user answering as a row says.
    void wizardFault()
    {
        QFETCH(Replacements, manifest);
        QFETCH(int, answer);
        QFETCH(int, exitCode);
        QFETCH(QStringList, texts);
        QFETCH(QStringList, folders);
        QFETCH(QStringList, files);
        QFETCH(QString, lastLabel);
        serve(manifest);
        DialogAnswerer user{QMessageBox::StandardButton(answer)};
        LogWatch log;
        QString label;
        log.tap = [&](const QString& line) {
            if (line.startsWith("Installer finished"))
                label = window->page(DlrMainWindow::DownloadPage)->findChild<QLabel*>("downloadAmount")->text();
        };
        if (exitCode == 0) {
            WizardDriver::enterDownloads(window);
            waitForFinishedPage();
        } else {
            QCOMPARE(WizardDriver::runUntilExit([this] { WizardDriver::enterDownloads(window); }), exitCode);
            QTest::qWait(200);
            QCOMPARE(window->currentId(), int(DlrMainWindow::DownloadPage));
            QCOMPARE(requested("/packages/").size(), 1);
        }
        QCOMPARE(user.texts, texts);
        QCOMPARE(installed(), folders);
        QCOMPARE(QDir(downloads).entryList(QDir::Files, QDir::Name), files);
        QVERIFY2(label.startsWith(lastLabel), qPrintable(label));
    }

    // The helper is killed while it runs the first installation. That
    // installation, a process of its own, finishes; the next ones cannot
    // start, which the page says before it moves on. The next run, a new
    // process with the helper back, finds the first product installed and
    // installs the others from the packages already downloaded. Last of the
    // runs in this process that install: the wizard does not find a helper
    // again.
    void helperKilled()
    {
        LogWatch log;
        log.tap = [this](const QString& line) {
            if (helper.IsRunning() && line.startsWith("installer stdout:"))
                helper.Stop(SIGKILL);
        };
        DialogAnswerer user(QMessageBox::Ok);
        WizardDriver::enterDownloads(window);
        waitForFinishedPage();
        QVERIFY(!helper.IsRunning());
        const QString skipped = "Could not start installer process for %1, skipping to next product";
        QCOMPARE(user.texts, (QStringList{skipped.arg("Velluma for Maya 2018"), skipped.arg("Velluma Sample Scenes")}));
        QCOMPARE(installed(), QStringList{kCoreFolder});

        // The next run is a script's, with -json: every event a JSON line.
        QVERIFY(startHelper());
        const ChildRun next = runUnattended(server, {"-pass", "velluma", "-json"});
        QVERIFY2(next.exitStatus == QProcess::NormalExit && next.exitCode == 0, (next.out + next.err).constData());
        QCOMPARE(installed(), (QStringList{kCoreFolder, kScenesFolder, kBridgeFolder}));
        QCOMPARE(requested("/packages/").size(), 3); // the first run's
        QJsonObject last;
        for (const QByteArray& line : next.out.trimmed().split('\n')) {
            QJsonParseError error{};
            last = QJsonDocument::fromJson(line, &error).object();
            QVERIFY2(error.error == QJsonParseError::NoError && last.contains("event"), line.constData());
        }
        QCOMPARE(last.value("event").toString(), "summary");
        QCOMPARE(last.value("chosen").toInt(), 2);
        QCOMPARE(last.value("exitStatus").toInt(), 0);
    }

    // One run of the unattended program: its exit status, what ends up
    // installed, and the line that says why.
    void unattended_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QStringList>("folders");
        QTest::addColumn<QString>("line");
        QTest::addColumn<Replacements>("manifest");
        QTest::addColumn<bool>("fromStranger");
        QTest::addColumn<QString>("helperKeys"); // the helper trusts the demo key, "no key", or "none" answers
        QTest::addColumn<QByteArray>("settings"); // a settings file in the home folder, readable by all
        const auto row = [](const char* tag, const QStringList& options, int exitCode, const QStringList& folders,
                            const QString& line, const Replacements& manifest = {}, bool fromStranger = false,
                            const QString& helperKeys = "demo key", const QByteArray& settings = {}) {
            QTest::newRow(tag) << options << exitCode << folders << line << manifest << fromStranger << helperKeys
                               << settings;
        };

        const QStringList all{kCoreFolder, kScenesFolder, kBridgeFolder};
        const QStringList pass{"-pass", "velluma"};
        // Each warning of the installer is an event; the summary counts what no signature vouches for.
        row("no trusted key: installed unverified, and said so", pass, 0, all,
            "^warning: Velluma CoreServer 22.0: Packages are not verified: no trusted key is installed in .*$[\\s\\S]*"
            "^install: Velluma CoreServer 22.0: installed, unverified$[\\s\\S]*"
            "^summary: 3 chosen, 3 installed \\(3 unverified\\),",
            {}, false, "no key");
        row("no helper: where it was looked for, and what sets it up", pass, 4, {},
            "^install: Velluma CoreServer 22.0: failed: could not start the installer through the helper: nothing "
            "answers on the helper's socket /\\S+/helper\\.sock; as root, /\\S+/libexec/install-helper sets the "
            "helper up as a system service$",
            {}, false, "none");
        row("-products by listed name and by package name, a hidden offer included",
            pass + QStringList{"-products", "Velluma Sample Scenes,VellumaForMaya-22.0-maya2018_1234.pkg"}, 0,
            {kScenesFolder, kBridgeFolder}, "^summary: 2 chosen, 2 installed");
        row("unknown product name", pass + QStringList{"-products", "Velluma Sample Scenes,Nope"}, 5, {},
            "^error: no such product on offer: Nope$");
        row("unknown options, each named", pass + QStringList{"-bogus", "-Products"}, 5, {},
            "^error: unknown option -bogus$\\n^error: unknown option -Products$");
        row("refused login", {"-pass", "wrong"}, 1, {}, "^error: Could not get a product list from Oktavo: Wrong password$");
        // Where the wizard accepts a lone root in the chain, nobody would see a stranger's.
        row("a stranger's root: refused, not asked", pass, 1, {}, "^tls: refused the server.s certificate: .", {}, true);
        row("-cafile: a root the administrator names is trusted", pass + QStringList{"-cafile", stranger.caPath}, 0,
            all, "^summary: 3 chosen, 3 installed \\(0 unverified\\), 0 downloaded only, 0 downloads failed, 0 not "
                 "installed; exit status 0$", {}, true);
        row("corrupt package: the others still installed", pass, 4, {kCoreFolder, kBridgeFolder},
            "^install: Velluma Sample Scenes: failed: .", kCorrupt);
        row("download that never succeeds: 3 retries, then skipped", pass, 3, {kCoreFolder, kScenesFolder},
            "^download: Velluma for Maya 2018: failed: .*skipped after 3 retries$", faulty(kBridge, "status=404"));
        row("slow download: a progress line a second", pass, 0, all,
            "^download: Velluma Sample Scenes: [0-9.]+MB of [0-9.]+MB \\([0-9]+%\\)$", faulty(kScenes, "throttle=2000000"));
        row("not enough free space", pass, 2, {},
            "^error: You do not have enough free disk space to download the selected products\\. Needed ",
            {{"@SIZE:" + kScenes + "@", "4611686018427387904"}});
        row("settings file: its root trusted, its password readable by others warned",
            {"-products", "Velluma Sample Scenes"}, 0, {kScenesFolder},
            "^warning: /\\S+/vluminstaller\\.ini holds the password and users other than you can read it;", {}, true,
            "demo key", "pass=velluma\ncafile=" + stranger.caPath.toUtf8() + '\n');
    }

    void unattended()
    {
        QFETCH(QStringList, options);
        QFETCH(int, exitCode);
        QFETCH(QStringList, folders);
        QFETCH(QString, line);
        QFETCH(Replacements, manifest);
        QFETCH(bool, fromStranger);
        QFETCH(QString, helperKeys);
        QFETCH(QByteArray, settings);
        serve(manifest);
        const QString settingsFile = QDir::home().filePath("vluminstaller.ini");
        const auto noSettings = qScopeGuard([&] { QFile::remove(settingsFile); });
        if (!settings.isEmpty())
            QVERIFY(writeFile(settingsFile, settings)
                    && QFile::setPermissions(settingsFile, QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup
                                                               | QFile::ReadOther));
        const bool otherHelper = helperKeys != "demo key";
        if (otherHelper)
            QVERIFY(helper.Stop(SIGTERM));
        if (helperKeys == "no key")
            QVERIFY(QDir(work.path()).mkpath("no-keys") && startHelper(work.filePath("no-keys")));
        const ChildRun run = runUnattended(fromStranger ? stranger : server, options);
        if (otherHelper) {
            helper.Stop(SIGTERM);
            QVERIFY(startHelper());
        }
        const QString printed = QString::fromUtf8(run.out + "--- stderr:\n" + run.err.right(4000));
        QVERIFY2(QRegularExpression(line, QRegularExpression::MultilineOption).match(QString::fromUtf8(run.out)).hasMatch(),
                 qPrintable(printed));
        QVERIFY2(run.exitStatus == QProcess::NormalExit && run.exitCode == exitCode,
                 qPrintable(QStringLiteral("exit %1\n").arg(run.exitCode) + printed));
        folders.sort();
        QCOMPARE(installed(), folders);
    }

    // Ten packages, each cut once at its own offset, from the first byte to
    // the last: Retry continues each, from what reached the disk (which a
    // cut over TLS may leave short of what was sent), to the whole package,
    // and at no failure does a final name hold anything but a whole package.
    void connectionCut()
    {
        const qint64 size = 1 << 20;
        const QList<qint64> offsets{0, 1, 1000, 16384, 65537, 262144, 500000, 777777, size - 4096, size - 1};
        QList<VendorServer::Offer> offers;
        for (qint64 offset : offsets)
            offers << VendorServer::Offer{QStringLiteral("Cut-%1.zip").arg(offset), size,
                                          QStringLiteral("drop_after=%1&fault_times=1").arg(offset)};
        server.serveOffers(offers);

        DialogAnswerer user(QMessageBox::Retry);
        QStringList incomplete;
        user.ready = [&] {
            const QDir dir(downloads);
            for (const QString& name : dir.entryList(QDir::Files)) {
                if (!name.endsWith(".vlumdownload") && readFile(dir.filePath(name)) != server.package(name))
                    incomplete << name;
            }
            return true;
        };
        WizardDriver::enterDownloads(window);
        waitForFinishedPage();

        const QString reason = DlrNetworkError(QNetworkReply::RemoteHostClosedError);
        QCOMPARE(user.texts.count("Product download failed"), offsets.size());
        const QString retry = ". Press Abort to exit, Retry or Ignore to try the next product";
        QCOMPARE(user.informative.count(reason + retry), offsets.size());
        QVERIFY2(incomplete.isEmpty(), qPrintable(incomplete.join(' ')));
        for (int i = 0; i < offsets.size(); ++i) {
            const QString name = offers.at(i).name;
            QVERIFY2(readFile(downloads + '/' + name) == server.package(name), qPrintable(name));
            const QStringList ranges = requested("/packages/" + name);
            QCOMPARE(ranges.size(), 2); // the cut and one Retry
            const qint64 resumedAt = ranges.last().section('=', 1).section('-', 0, 0).toLongLong();
            QVERIFY2(resumedAt <= offsets.at(i) && (offsets.at(i) < 262144 || resumedAt > 0), qPrintable(ranges.last()));
        }
        QCOMPARE(QDir(downloads).entryList(QDir::Files).size(), offsets.size()); // no part files left
    }

    // The download folder, a small disk, fills up while a package arrives:
    // the user is told, no final name appears, and after making room Retry
    // goes on from what was kept, the bytes kept counted as arrived.
    void diskFull()
    {
        const QString name = "Full.zip";
        server.serveOffers({{name, 3 << 19, {}}});
        const TmpfsMount disk(downloads, "4m");
        QVERIFY2(disk.mounted, "mounting a tmpfs needs root");
        const QString filler = downloads + "/filler";
        bool filled = false;
        QString whole; // the amount shown when the resumed download is done
        LogWatch log;
        log.tap = [&](const QString& line) {
            if (line.startsWith("Download complete!"))
                whole = window->page(DlrMainWindow::DownloadPage)->findChild<QLabel*>("downloadAmount")->text();
            if (filled || !line.startsWith("downloading "))
                return;
            // Someone else takes all but 256 KiB of the room the wizard saw.
            QFile file(filler);
            filled = file.open(QIODevice::WriteOnly)
                && file.write(QByteArray(int(DlrMachineAssay::GetAvailableDisk(QDir(downloads)) - (256 << 10)), 'f')) > 0;
        };
        DialogAnswerer user(QMessageBox::Retry);
        QStringList finalAtFailure;
        qint64 kept = -1;
        user.ready = [&] {
            finalAtFailure = QDir(downloads).entryList({name}, QDir::Files);
            kept = QFileInfo(downloads + '/' + name + ".vlumdownload").size();
            QFile::remove(filler);
            return true;
        };
        WizardDriver::enterDownloads(window);
        waitForFinishedPage();
        window.reset();

        QVERIFY(filled);
        QCOMPARE(user.texts, QStringList{"Product download failed"});
        const QString reason = "Could not write " + downloads + '/' + name + ".vlumdownload: No space left on device";
        QCOMPARE(user.informative.value(0).section(". Press Abort", 0, 0), reason);
        QVERIFY(finalAtFailure.isEmpty());
        QVERIFY2(kept > 0 && kept <= 256 << 10, qPrintable(QString::number(kept)));
        QCOMPARE(readFile(downloads + '/' + name), server.package(name));
        QCOMPARE(QDir(downloads).entryList(QDir::Files), QStringList{name});
        QCOMPARE(whole, "1.50MB/1.50MB");
    }

    void serverRestarted_data()
    {
        QTest::addColumn<int>("restarts"); // at most one per request
        QTest::addColumn<bool>("listShown");
        QTest::newRow("once") << 1 << true;
        QTest::newRow("at every request") << 1000 << false;
    }

    // The server goes away and comes back on the same port while the
    // product list is being asked for. The network layer sends the request
    // again on a new connection, a few times; when each is cut the user is
    // told at once (not after the transfer timeout), and the run ends with 1.
    void serverRestarted()
    {
        QFETCH(int, restarts);
        QFETCH(bool, listShown);
        VendorServer restarting;
        restarting.serveOffers({{"Any.zip", 1000, {}}});
        // The delay holds each request until the server goes.
        const QStringList slow{"--tls", "chain", "--delay", "5"};
        QVERIFY(restarting.start(slow));
        const QStringList again{"--port", QString::number(restarting.port)};
        WizardDriver::useServer(restarting);
        int done = 0;
        bool restarted = true;
        QTimer watch;
        connect(&watch, &QTimer::timeout, this, [&] {
            if (done < restarts && restarted && restarting.requests().size() > done) {
                ++done;
                restarting.stop();
                restarted = restarting.start((done < restarts ? slow : QStringList(slow.mid(0, 2))) + again);
            }
        });
        watch.start(20);
        DialogAnswerer user(QMessageBox::Ok);
        // From the login page to the product list (0) or to the error that ends the run (1).
        const int code = WizardDriver::runUntilExit([this] {
            window.reset(new DlrMainWindow);
            QWizardPage* selection = window->page(DlrMainWindow::SelectionPage);
            connect(selection, &QWizardPage::completeChanged, selection, [selection] {
                if (selection->isComplete())
                    QCoreApplication::exit(0);
            });
            window->show();
            window->next();
        });
        watch.stop();

        QVERIFY(restarted);
        QCOMPARE(code, listShown ? 0 : 1);
        QCOMPARE(user.texts, listShown ? QStringList() : QStringList{"Could not get a product list from Oktavo"});
        if (!listShown)
            QCOMPARE(user.details, QStringList{DlrNetworkError(QNetworkReply::RemoteHostClosedError)});
    }
};

int main(int argc, char** argv)
{
    return runWithDlrApp<TestFaults>(argc, argv, {"-user", "demo", "-pass", "velluma"});
}

#include "tst_faults.moc"
