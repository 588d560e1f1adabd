// The offer tree, the selection rules against real surveyed machines (real
// product trees, the real profiler stand-in) and the selection page as a
// user drives it: ticks, "Show All", Next and the dialogs on the way.

#include "../support/BundleCopy.h"
#include "../support/DialogAnswerer.h"
#include "../support/ProductTree.h"
#include "../support/SmallDisk.h"
#include "../support/TestMain.h"
#include "../support/VendorServer.h"
#include "../support/WizardDriver.h"

#include "DlrHumanBytes.h"
#include "DlrMachineAssay.h"
#include "DlrMainWindow.h"
#include "DlrNetworkError.h"
#include "DlrSelection.h"
#include "OfferTree.h"

#include <QCheckBox>
#include <QJsonDocument>
#include <QListWidget>
#include <QScopeGuard>
#include <QSignalSpy>

#include <limits>


namespace {

// One ProductInfo record. An empty version leaves the version fields out.
QByteArray offer(const QString& version, const QString& name, const QString& simple, const QString& build,
                 const QString& behavior = QStringLiteral("automatic"), qint64 size = 1000,
                 const QString& url = QString())
{
    QString fields = QStringLiteral("<Name>%1</Name><SimpleName>%2</SimpleName><BuildID>%3</BuildID>"
                                    "<DefaultBehavior>%4</DefaultBehavior><FileSize>%5</FileSize>"
                                    "<DownloadURL>%6</DownloadURL>")
                         .arg(name, simple, build, behavior, QString::number(size),
                              url.isNull() ? QStringLiteral("https://127.0.0.1:9/packages/") + name : url);
    if (!version.isEmpty()) {
        fields += QStringLiteral("<VersionMajor>%1</VersionMajor><VersionMinor>%2</VersionMinor>")
                      .arg(version.section(QLatin1Char('.'), 0, 0), version.section(QLatin1Char('.'), 1));
    }
    return "<ProductInfo>" + fields.toUtf8() + "</ProductInfo>\n";
}

QByteArray manifest(const QList<QByteArray>& offers)
{
    QByteArray xml = "<Manifest>\n";
    for (const QByteArray& one : offers)
        xml += one;
    return xml + "</Manifest>\n";
}

const QByteArray kCore22 = offer("22.0", "Velluma-CoreServer-22.0.200000.pkg", "Velluma CoreServer 22.0", "200000");
const QByteArray kMaya2018 = offer("22.0", "VellumaForMaya-22.0-maya2018_200000-1.pkg", "Velluma for Maya 2018", "200000");
const QByteArray kMaya2020 = offer("22.0", "VellumaForMaya-22.0-maya2020_200000-1.pkg", "Velluma for Maya 2020", "200000");
const QByteArray kMayaAny = offer("22.0", "VellumaForMaya-22.0_200000-1.pkg", "Velluma for Maya", "200000");

// Every kind of offer the rules tell apart, indices 0 to 12.
const QByteArray kCatalog = manifest({
    kCore22, kMaya2018, kMaya2020, kMayaAny,
    offer("22.0", "VellumaForKatana-22.0-katana3.5_200000-1.pkg", "Velluma for Katana 3.5", "200000"),
    offer("21.0", "Velluma-CoreServer-21.0.100000.pkg", "Velluma CoreServer 21.0", "100000"),
    offer("21.0", "VellumaForMaya-21.0-maya2018_100000-1.pkg", "Velluma for Maya 2018", "100000"),
    offer("22.0", "Harrow-22.0_200000.pkg", "Harrow", "200000"),
    offer("22.0", "VellumaSampleScenes-22.0.pkg", "Velluma Sample Scenes", "200000", "show"),
    offer("22.0", "VellumaDocs-22.0.pkg", "Velluma Docs", "200000", "Show"),
    offer("22.0", "VellumaForHoudini-22.0-houdini19_200000-1.pkg", "Velluma for Houdini 19", "200000"),
    offer("22.0", "VellumaExtras-22.0.pkg", "Velluma Extras", "200000", "show", 0),
    offer("22.0", "VellumaTools-22.0.pkg", "Velluma Tools", "200000", "show", 1000, "http://[bad"),
});

using Indices = QList<int>;

} // namespace

Q_DECLARE_METATYPE(QMessageBox::StandardButton)

// What both suites below need: a machine, a manifest and the wizard.
using WizardDriver::runUntilExit;
using WizardDriver::useServer;

class SelectionFixture : public QObject
{
protected:
    QTemporaryDir scratch;
    QString productRoot;
    QString mayaRoot;
    QString manifestFile;
    QScopedPointer<DlrMainWindow> window;

    DlrSelection* page() const { return qobject_cast<DlrSelection*>(window->page(DlrMainWindow::SelectionPage)); }
    QListWidget* list() const { return page()->findChild<QListWidget*>(); }
    QCheckBox* showAll() const { return page()->findChild<QCheckBox*>(QStringLiteral("showAll")); }

    // "maya 2018": a Maya in the install history; "vcs 22.0 200000": an
    // installed core server; "vfm 21.0 2018 100000": an installed bridge.
    void setMachine(const QStringList& machine)
    {
        QVERIFY(QDir(productRoot).removeRecursively() && QDir().mkpath(productRoot));
        QVERIFY(QDir(mayaRoot).removeRecursively() && QDir().mkpath(mayaRoot));
        ProductTree tree(productRoot);
        for (const QString& line : machine) {
            const QStringList f = line.split(QLatin1Char(' '));
            if (f[0] == QLatin1String("maya")) {
                QVERIFY(QDir(mayaRoot).mkpath(QStringLiteral("maya") + f[1]));
            } else if (f[0] == QLatin1String("vcs")) {
                QVERIFY(tree.banner(QStringLiteral("VCS-%1/bin/vlrender").arg(f[1]), f[1], f[2]));
            } else {
                const QString folder = QStringLiteral("VellumaForMaya-%1-maya%2").arg(f[1], f[2]);
                QVERIFY(tree.plugin(folder));
                QVERIFY(tree.file(folder + QStringLiteral("/etc/buildid.txt"),
                                  QStringLiteral("Velluma %1 @%2\n").arg(f[1], f[3]).toUtf8()));
            }
        }
    }

    void setManifest(const QByteArray& xml)
    {
        QFile file(manifestFile);
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(xml);
        dlrApp()->alternateManifestFile = manifestFile;
    }

    // Login page, then Next: the selection page surveys and reads the manifest.
    void enterSelection()
    {
        window.reset(new DlrMainWindow);
        window->show();
        window->next();
        QCOMPARE(window->currentId(), int(DlrMainWindow::SelectionPage));
    }

    QStringList rows() const
    {
        QStringList texts;
        for (int row = 0; row < list()->count(); ++row)
            texts << (list()->item(row)->checkState() == Qt::Checked ? "[x] " : "[ ] ") + list()->item(row)->text();
        return texts;
    }

    void tick(int row, bool on) { list()->item(row)->setCheckState(on ? Qt::Checked : Qt::Unchecked); }

    void setUp()
    {
        QVERIFY(scratch.isValid());
        productRoot = scratch.filePath(QStringLiteral("Oktavo"));
        mayaRoot = scratch.filePath(QStringLiteral("autodesk"));
        manifestFile = scratch.filePath(QStringLiteral("manifest.xml"));
        qputenv("VLUM_PRODUCT_ROOT", productRoot.toLocal8Bit());
        qputenv("VLUM_MAYA_ROOT", mayaRoot.toLocal8Bit());
        qunsetenv("VLUMTREE");
        qunsetenv("VWSTREE");
        QVERIFY(QDir().mkpath(QDir::homePath() + QStringLiteral("/Downloads")));
    }
};

class TestSelection : public SelectionFixture
{
    Q_OBJECT

private slots:
    void initTestCase() { setUp(); }

    void init()
    {
        setMachine({});
        dlrApp()->alternateManifestFile.clear();
        dlrApp()->downloadIndices.clear();
    }

    void cleanup() { window.reset(); }

    // Keys order as text, newest last; lookups never add keys.
    void offerTree()
    {
        QList<DlrManifestElement> offers;
        for (const char* name : {"A-9.1", "B-10.0", "C-22.0", "D-21.3", "E-22.3", "F-23.0", "G-22.0", "H"}) {
            DlrManifestElement one;
            one.Name = QLatin1String(name);
            one.BuildID = QLatin1String(name[0] == 'E' ? "10000000" : "9000000");
            offers << one;
        }
        OfferTree tree;
        const OfferTree empty;
        QVERIFY(empty.GetVersions().isEmpty() && empty.GetHighestVersion().isEmpty());
        QVERIFY(empty.GetOffersForBuild(QStringLiteral("22"), QStringLiteral("1")).isEmpty());
        QVERIFY(empty[QStringLiteral("22")].isEmpty() && empty.GetVersions().isEmpty());
        for (DlrManifestElement& one : offers)
            tree.InsertOffer(&one);

        QCOMPARE(tree.GetVersions(), (QStringList{"9", "23", "22", "21", "10", ""}));
        QCOMPARE(tree.GetHighestVersion(), QStringLiteral("9"));
        QCOMPARE(tree.GetBuildsForVersion(QStringLiteral("22")), (QStringList{"9000000", "10000000"}));
        QCOMPARE(tree.GetHighestBuildForVersion(QStringLiteral("22")), QStringLiteral("9000000"));
        QCOMPARE(tree.GetOffersForBuild(QStringLiteral("22"), QStringLiteral("9000000")),
                 (QList<DlrManifestElement*>{&offers[2], &offers[6]}));
        QCOMPARE(OfferTree::GetOffersForBuild(tree[QStringLiteral("22")], QStringLiteral("10000000")),
                 QList<DlrManifestElement*>{&offers[4]});
        QVERIFY(tree.GetOffersForBuild(QStringLiteral("22"), QStringLiteral("1")).isEmpty());
        QVERIFY(tree.GetBuildsForVersion(QStringLiteral("24")).isEmpty());
        QCOMPARE(tree.GetVersions().size(), 6);
    }

    void rules_data()
    {
        QTest::addColumn<QByteArray>("xml");
        QTest::addColumn<QStringList>("machine");
        QTest::addColumn<Indices>("chosen");
        QTest::addColumn<Indices>("hidden");

        const Indices allButScenes{1, 2, 3, 4, 5, 6, 7, 9, 10};
        QTest::newRow("bare machine: newest server and shown offers")
            << kCatalog << QStringList() << Indices{0, 8} << allButScenes;
        QTest::newRow("Maya 2018: its bridge and the host-agnostic one")
            << kCatalog << QStringList{"maya 2018"} << Indices{0, 1, 3, 8} << Indices{2, 4, 5, 6, 7, 9, 10};
        QTest::newRow("Maya 2019 only: no 2018 bridge")
            << kCatalog << QStringList{"maya 2019"} << Indices{0, 3, 8} << Indices{1, 2, 4, 5, 6, 7, 9, 10};
        QTest::newRow("same server build: bridges still offered")
            << kCatalog << QStringList{"maya 2018", "vcs 22.0 200000"} << Indices{1, 3, 8}
            << Indices{0, 2, 4, 5, 6, 7, 9, 10};
        QTest::newRow("newer server build: no bridges")
            << kCatalog << QStringList{"maya 2018", "vcs 22.0 300000"} << Indices{8}
            << Indices{0, 1, 2, 3, 4, 5, 6, 7, 9, 10};
        QTest::newRow("older server build: update and bridges")
            << kCatalog << QStringList{"maya 2018", "vcs 22.0 100000"} << Indices{0, 1, 3, 8}
            << Indices{2, 4, 5, 6, 7, 9, 10};
        QTest::newRow("older major installed: both versions considered")
            << kCatalog << QStringList{"maya 2018", "vcs 21.0 50000"} << Indices{0, 1, 3, 5, 6, 8}
            << Indices{2, 4, 7, 9, 10};
        QTest::newRow("older major current: its missing bridge only")
            << kCatalog << QStringList{"maya 2018", "vcs 21.0 100000"} << Indices{0, 1, 3, 6, 8}
            << Indices{2, 4, 5, 7, 9, 10};
        QTest::newRow("older major with its bridge installed")
            << kCatalog << QStringList{"maya 2018", "vcs 21.0 100000", "vfm 21.0 2018 100000"}
            << Indices{0, 1, 3, 8} << Indices{2, 4, 5, 6, 7, 9, 10};
        QTest::newRow("older major newer than offered")
            << kCatalog << QStringList{"maya 2018", "vcs 21.0 150000"} << Indices{0, 1, 3, 8}
            << Indices{2, 4, 5, 6, 7, 9, 10};
        QTest::newRow("empty manifest") << manifest({}) << QStringList{"maya 2018"} << Indices() << Indices();
        QTest::newRow("no core server: no bridges")
            << manifest({kMaya2018, kMaya2020, kMayaAny}) << QStringList{"maya 2018"} << Indices() << Indices{0, 1, 2};
        QTest::newRow("server without a version is not chosen")
            << manifest({offer("", "Velluma-CoreServer.pkg", "Velluma CoreServer", "200000"), kMayaAny})
            << QStringList{"maya 2018"} << Indices() << Indices{0, 1};
        QTest::newRow("duplicate offer: the first is chosen")
            << manifest({kCore22, kCore22}) << QStringList() << Indices{0} << Indices{1};
        QTest::newRow("chosen server keeps its place without a URL or size")
            << manifest({offer("22.0", "Velluma-CoreServer-22.0.200000.pkg", "Velluma CoreServer 22.0", "200000",
                               "automatic", 0, "http://[bad"),
                         kMayaAny})
            << QStringList{"maya 2018"} << Indices{0, 1} << Indices();
        QTest::newRow("names that leave the download folder are never listed")
            << manifest({offer("22.0", "../Velluma-CoreServer-22.0.300000.pkg", "Velluma CoreServer 22.0", "300000"),
                         offer("22.0", "/tmp/VellumaSampleScenes-22.0.pkg", "Velluma Sample Scenes", "1", "show"),
                         offer("22.0", "sub/VellumaDocs-22.0.pkg", "Velluma Docs", "1", "show"),
                         offer("22.0", "..", "Velluma Extras", "1", "show"), kCore22})
            << QStringList() << Indices{4} << Indices();
        QTest::newRow("a negative size is unknown")
            << manifest({kCore22, offer("22.0", "VellumaSampleScenes-22.0.pkg", "Velluma Sample Scenes", "1", "show", -5)})
            << QStringList() << Indices{0} << Indices();
    }

    // What the rules choose and hide for one manifest on one machine.
    void rules()
    {
        QFETCH(QByteArray, xml);
        QFETCH(QStringList, machine);
        QFETCH(Indices, chosen);
        QFETCH(Indices, hidden);
        setMachine(machine);
        setManifest(xml);
        enterSelection();
        QCOMPARE(page()->chosenIndices, chosen);
        QCOMPARE(page()->hiddenIndices, hidden);
        QVERIFY(page()->isComplete());
        QCOMPARE(list()->count(), chosen.size());
    }

    // Each bridge goes to its host's rule: Katana to the Katana rule (no
    // Katana is ever surveyed here), an unknown host to none.
    void bridgeHosts()
    {
        setMachine({"maya 2018"});
        setManifest(kCatalog);
        QTest::ignoreMessage(QtDebugMsg, "No katanas present in the assay.");
        QTest::ignoreMessage(QtDebugMsg, "No auto selection handler for \"Houdini\"");
        enterSelection();
        QVERIFY(!page()->chosenIndices.contains(4));
    }

    // "Show All" lists hidden offers unticked and keeps the user's ticks on
    // rows that stay; a hidden row that goes out of view is not downloaded.
    void showAllAndNext()
    {
        setMachine({"maya 2018"});
        setManifest(kCatalog);
        enterSelection();
        QVERIFY(showAll()->isEnabled());
        const QStringList first{"[x] Velluma CoreServer 22.0", "[x] Velluma for Maya 2018", "[x] Velluma for Maya",
                                "[x] Velluma Sample Scenes"};
        QCOMPARE(rows(), first);

        tick(1, false);
        showAll()->click();
        QCOMPARE(rows().size(), 11);
        QCOMPARE(rows().mid(0, 4), QStringList(first).replaceInStrings(QStringLiteral("[x] Velluma for Maya 2018"),
                                                                       QStringLiteral("[ ] Velluma for Maya 2018")));
        QCOMPARE(rows().at(4), QStringLiteral("[ ] Velluma for Maya 2020"));
        tick(4, true); // Maya 2020 bridge, index 2
        tick(6, true); // 21 server, index 5
        QVERIFY(page()->validatePage()); // what Next does, without downloading
        QCOMPARE(dlrApp()->downloadIndices, (QList<int>{0, 3, 8, 2, 5}));

        window->back();
        window->next(); // a fresh visit
        QCOMPARE(rows(), first);
        showAll()->click();
        tick(4, true);
        showAll()->click();
        QCOMPARE(rows(), first);
        QVERIFY(page()->validatePage());
        QCOMPARE(dlrApp()->downloadIndices, (QList<int>{0, 1, 3, 8}));
    }

    // Next with nothing ticked ends the run with code 0, whether the list
    // was empty or the user unticked everything.
    void nothingToInstall_data()
    {
        QTest::addColumn<QByteArray>("xml");
        QTest::newRow("empty list") << manifest({});
        QTest::newRow("all unticked") << kCatalog;
    }

    void nothingToInstall()
    {
        QFETCH(QByteArray, xml);
        setManifest(xml);
        enterSelection();
        QVERIFY(window->button(QWizard::NextButton)->isEnabled());
        for (int row = 0; row < list()->count(); ++row)
            tick(row, false);
        DialogAnswerer user(QMessageBox::Ok);
        QCOMPARE(runUntilExit([this] { window->next(); }), 0);
        QCOMPARE(user.texts, QStringList{"There were no products to install"});
        QCOMPARE(window->currentId(), int(DlrMainWindow::SelectionPage));
        QVERIFY(dlrApp()->downloadIndices.isEmpty());
    }

    // Next stays off while the manifest is on its way, though the survey
    // is done.
    void nextWaitsForManifest()
    {
        VendorServer server;
        server.writePackage(QStringLiteral("core.pkg"), 3000);
        server.writeCatalogFile(QStringLiteral("manifest.xml"),
                                manifest({offer("22.0", "Velluma-CoreServer-22.0.1.pkg", "Velluma CoreServer 22.0", "1",
                                                "automatic", 3000, "@BASE@/packages/core.pkg")}));
        QVERIFY(server.start({QStringLiteral("--tls"), QStringLiteral("chain"), QStringLiteral("--delay"),
                              QStringLiteral("1")}));
        useServer(server);
        enterSelection();
        QVERIFY(page()->assayDone);
        QVERIFY(!window->button(QWizard::NextButton)->isEnabled());
        QSignalSpy complete(page(), &QWizardPage::completeChanged);
        QVERIFY(complete.wait(20000));
        QVERIFY(window->button(QWizard::NextButton)->isEnabled());
        QCOMPARE(rows(), QStringList{"[x] Velluma CoreServer 22.0"});
        const QJsonObject request = server.requests().last();
        QVERIFY2(QJsonDocument(request).toJson().contains("osx"), "the platform text was not sent");
    }

    // No product list: the reason in a dialog, then the run ends with 1.
    void noProductList_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<QMessageBox::StandardButton>("tlsAnswer");
        QTest::addColumn<QString>("reason");
        QTest::addColumn<QString>("details"); // the network error, if any
        QTest::newRow("refused") << QStringList{"--tls", "chain"} << QMessageBox::Ok << "Wrong password" << "";
        QTest::newRow("TLS refused") << QStringList{"--tls", "self"} << QMessageBox::Cancel
                                     << "Unknown manifest Validation"
                                     << DlrNetworkError(QNetworkReply::SslHandshakeFailedError);
        QTest::newRow("unreachable") << QStringList() << QMessageBox::Ok << "Unknown manifest Validation"
                                     << DlrNetworkError(QNetworkReply::ConnectionRefusedError);
    }

    void noProductList()
    {
        QFETCH(QStringList, options);
        QFETCH(QMessageBox::StandardButton, tlsAnswer);
        QFETCH(QString, reason);
        QFETCH(QString, details);
        VendorServer server;
        server.writeCatalogFile(QStringLiteral("manifest.xml"), manifest({kCore22}));
        server.setUsers({{QStringLiteral("demo"), QStringLiteral("another password")}});
        if (options.isEmpty()) {
            QVERIFY(server.start());
            server.stop(); // its port is closed now
        } else {
            QVERIFY(server.start(options));
        }
        useServer(server);
        DialogAnswerer answer(tlsAnswer);
        QCOMPARE(runUntilExit([this] { enterSelection(); }), 1);
        QCOMPARE(answer.texts.last(), QStringLiteral("Could not get a product list from Oktavo"));
        QCOMPARE(answer.informative.last(), reason);
        QCOMPARE(answer.details.last(), details);
        QVERIFY(!page()->isComplete());
    }

    // Two ticked packages need twice their size on a 1 MiB file system:
    // exactly 1 MiB is enough, one byte more is not, and unticking one
    // then goes on.
    void diskSpace_data()
    {
        QTest::addColumn<qint64>("coreSize");
        QTest::addColumn<qint64>("scenesSize");
        QTest::addColumn<qint64>("needed"); // 0: enough room
        QTest::newRow("equal is enough") << qint64(262144) << qint64(262144) << qint64(0);
        QTest::newRow("one byte short") << qint64(262145) << qint64(262145) << qint64(1048580);
        // Neither may bring the need below what the other package takes.
        QTest::newRow("negative size") << qint64(-600000) << qint64(600000) << qint64(1200000);
        QTest::newRow("sum past 63 bits")
            << std::numeric_limits<qint64>::max() << qint64(600000) << std::numeric_limits<qint64>::max();
    }

    void diskSpace()
    {
        QFETCH(qint64, coreSize);
        QFETCH(qint64, scenesSize);
        QFETCH(qint64, needed);
        QTemporaryDir small;
        const TmpfsMount disk(small.path(), QStringLiteral("1m"));
        if (!disk.mounted)
            QSKIP("a 1 MiB tmpfs cannot be mounted here (needs root)");
        const auto restore = qScopeGuard([] { dlrApp()->downloadDir.reset(); });
        QCOMPARE(DlrMachineAssay::GetAvailableDisk(QDir(small.path())), qint64(1048576));
        dlrApp()->downloadDir.reset(new QDir(small.path()));

        setManifest(manifest({offer("22.0", "Velluma-CoreServer-22.0.1.pkg", "Velluma CoreServer 22.0", "1", "automatic", coreSize),
                              offer("22.0", "VellumaSampleScenes-22.0.pkg", "Velluma Sample Scenes", "1", "show", scenesSize)}));
        enterSelection();
        QCOMPARE(list()->count(), 2);
        {
            DialogAnswerer user(QMessageBox::Ok);
            QCOMPARE(page()->validatePage(), needed == 0);
            if (needed == 0) {
                QVERIFY(user.texts.isEmpty());
                QCOMPARE(dlrApp()->downloadIndices, (QList<int>{0, 1}));
                return;
            }
            QCOMPARE(user.texts, QStringList{"You do not have enough free disk space to download the selected products"});
            QCOMPARE(user.informative.first(),
                     QStringLiteral("Needed %1 for selected downloads. There is %2 of available space on %3")
                         .arg(DlrHumanBytes(needed), DlrHumanBytes(1048576), small.path()));
        }
        QVERIFY(dlrApp()->downloadIndices.isEmpty());
        if (coreSize > 262144 * 2)
            return;
        tick(1, false);
        QVERIFY(page()->validatePage());
        QCOMPARE(dlrApp()->downloadIndices, QList<int>{0});
    }

    // A bundle without its package installer, in a copy of this program:
    // the survey and the selection page must say so (TestBareBundle).
    void cannotInstall()
    {
        QTemporaryDir bare;
        const QString copy = makeBundleCopy(bare.path()); // no libexec/installer
        QVERIFY(!copy.isEmpty());
        QByteArray out;
        const int code = runBundleCopy(copy, "VLUM_BARE_BUNDLE", {QStringLiteral("-maxwarnings"), QStringLiteral("0")},
                                       60000, &out);
        QVERIFY2(code == 0 && out.contains("PASS   : TestBareBundle::cannotInstall()"), out.right(3000).constData());
    }

    void manyOffers()
    {
        QByteArray xml = "<Manifest>\n";
        for (int i = 0; i < 10000; ++i) {
            xml += offer("22.0", QStringLiteral("Extra-22.0-%1.pkg").arg(i), QString(), QStringLiteral("1"),
                         QLatin1String(i % 2 ? "show" : "automatic"));
        }
        setManifest(xml + "</Manifest>");
        enterSelection();
        QCOMPARE(page()->chosenIndices.size(), 5000);
        QCOMPARE(page()->chosenIndices.last(), 9999);
        QCOMPARE(page()->hiddenIndices.size(), 5000);
        showAll()->click();
        QCOMPARE(list()->count(), 10000);
    }
};

// Runs in a copy of this program placed in a bundle without the package
// installer (see TestSelection::cannotInstall).
class TestBareBundle : public SelectionFixture
{
    Q_OBJECT

private slots:
    void initTestCase() { setUp(); }
    void cleanup() { window.reset(); }

    // The survey says why nothing can be installed; OK goes on to download
    // only, Cancel leaves with -1.
    void cannotInstall()
    {
        const QString installer = QDir::cleanPath(QCoreApplication::applicationDirPath() + "/../libexec/installer");
        const QString reason = QStringLiteral("The package installer %1 is missing. Press OK to conitue download "
                                              "only or Cancel to exit this application").arg(installer);
        setManifest(kCatalog);
        {
            DialogAnswerer user(QMessageBox::Cancel);
            QCOMPARE(runUntilExit([this] { enterSelection(); }), -1);
            QCOMPARE(user.texts, QStringList{"Cannot complete the installation on this machine"});
            QCOMPARE(user.informative, QStringList{reason});
            QVERIFY(!page()->isComplete());
            QCOMPARE(list()->count(), 0);
        }
        DialogAnswerer user(QMessageBox::Ok);
        enterSelection();
        QCOMPARE(user.informative, QStringList{reason});
        QVERIFY(page()->isComplete());
        QCOMPARE(page()->chosenIndices, (Indices{0, 8}));
    }
};

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsSet("VLUM_BARE_BUNDLE"))
        return runWithDlrApp<TestBareBundle>(argc, argv, {"-user", "demo", "-pass", "velluma"});
    return runWithDlrApp<TestSelection>(argc, argv, {"-user", "demo", "-pass", "velluma"});
}

#include "tst_selection.moc"
