// The wizard in this process, page by page, as a user meets it: the look
// from the bundle's Resources, the login and finished pages, the selection
// rules against real surveyed machines (real product trees, the profiler
// stand-in) and the selection page, then the download page with packages
// from the real local server installed through the real helper. The suite
// runs in a copy of this program in a bundle whose package installer is a
// script that prints one installer line per gate the test opens, so every
// state of the download page can be held still and looked at.

#include "../support/DialogAnswerer.h"
#include "../support/HelperProcess.h"
#include "../support/Manifest.h"
#include "../support/ProductTree.h"
#include "../support/SmallDisk.h"
#include "../support/TestMain.h"
#include "../support/UrlCatcher.h"
#include "../support/WizardDriver.h"

#include "DlrDownload.h"
#include "DlrHumanBytes.h"
#include "DlrInstallerLine.h"
#include "DlrNetworkError.h"
#include "DlrPlatform.h"
#include "DlrProductWalk.h"
#include "InstallerOutput.h"
#include "OfferTree.h"

#include <QtWidgets>

namespace {

// $5 is the package. A gated package prints each line only once the file
// <package>.<n> exists; every package it finishes is listed in installed.txt.
// A bad package fails.
const char kInstaller[] = R"(pkg="$5"
gate() { i=0; while [ ! -e "$pkg.$1" ]; do sleep 0.02; i=$((i+1)); [ $i -lt 1500 ] || exit 3; done; }
case "$pkg" in
  *Bad*) echo 'installer: Error - disk full'; exit 1 ;;
  *Gated*)
    gate 1; echo 'installer:PHASE:Validating packages'
    gate 2; echo 'installer:%50'
    gate 3; printf 'installer:STATUS:Running package scripts\342\200\246\n'
    gate 4; echo 'installer:STATUS:Copying installer:%12'
    gate 5 ;;
esac
echo 'installer: The install was successful.'
echo "${pkg##*/}" >> "$(dirname "$0")/installed.txt"
)";

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
    offer("22.0", "VellumaExtras-22.0.pkg", "Velluma Extras", "200000", "show", "0"),
    offer("22.0", "VellumaTools-22.0.pkg", "Velluma Tools", "200000", "show", "1000", "http://[bad"),
});

} // namespace

Q_DECLARE_METATYPE(QMessageBox::StandardButton)

class TestWizard : public QObject
{
    Q_OBJECT

    QTemporaryDir work;
    QString downloads;
    QString realAppDir;
    VendorServer server;
    HelperProcess helper;
    UrlCatcher browser;
    QScopedPointer<DlrMainWindow> window;
    int requestsBefore = 0;

    template <class T> T* child(const char* name = nullptr) const { return window->findChild<T*>(name); }
    QLineEdit* field(const char* name) const { return child<QLineEdit>(name); }
    QString label(const char* name) const { return child<QLabel>(name)->text(); }
    QListWidget* list() const { return child<QListWidget>(); }
    QAbstractButton* backButton() const { return window->button(QWizard::CustomButton1); }
    DlrSelection* selection() const { return qobject_cast<DlrSelection*>(window->page(DlrMainWindow::SelectionPage)); }
    DlrDownload* download() const { return qobject_cast<DlrDownload*>(window->page(DlrMainWindow::DownloadPage)); }

    // A fresh wizard, shown and active, so that focus and keys work.
    void showWindow(bool fresh = true)
    {
        if (fresh)
            window.reset(new DlrMainWindow);
        window->show();
        window->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(window.data()));
    }

    // Login page, then Next: the selection page surveys and asks for the
    // product list.
    void enterSelection()
    {
        showWindow();
        window->next();
    }

    // "maya 2018": a Maya in the install history; "vcs 22.0 200000": an
    // installed core server; "vfm 21.0 2018 100000": an installed bridge.
    void setMachine(const QStringList& machine)
    {
        ProductTree tree(work.path());
        QVERIFY(QDir(tree.path("Oktavo")).removeRecursively() && QDir(tree.path("autodesk")).removeRecursively());
        QVERIFY(tree.folder("Oktavo") && tree.folder("autodesk"));
        for (const QString& line : machine) {
            const QStringList f = line.split(' ');
            const QString bridge = QStringLiteral("Oktavo/VellumaForMaya-%1-maya%2").arg(f[1], f.value(2));
            if (f[0] == "maya")
                QVERIFY(tree.folder("autodesk/maya" + f[1]));
            else if (f[0] == "vcs")
                QVERIFY(tree.banner(QStringLiteral("Oktavo/VCS-%1/bin/vlrender").arg(f[1]), f[1], f[2]));
            else
                QVERIFY(tree.plugin(bridge)
                        && tree.file(bridge + "/etc/buildid.txt", ("Velluma " + f[1] + " @" + f[3]).toUtf8()));
        }
    }

    void setManifest(const QByteArray& xml)
    {
        QVERIFY(ProductTree(work.path()).file("manifest.xml", xml));
        dlrApp()->alternateManifestFile = work.filePath("manifest.xml");
    }

    QStringList rows() const
    {
        QStringList texts;
        for (int row = 0; row < list()->count(); ++row)
            texts << (list()->item(row)->checkState() == Qt::Checked ? "[x] " : "[ ] ") + list()->item(row)->text();
        return texts;
    }

    void tick(int row, bool on) { list()->item(row)->setCheckState(on ? Qt::Checked : Qt::Unchecked); }

    void openGates(const QString& package, int last = 5)
    {
        for (int n = 1; n <= last; ++n)
            QVERIFY(QFile(downloads + QStringLiteral("/%1.%2").arg(package).arg(n)).open(QIODevice::WriteOnly));
    }

    QStringList installed() const
    {
        QFile list(DlrPlatform::LibexecDir() + "/installed.txt");
        return list.open(QIODevice::ReadOnly) ? QString(list.readAll()).split('\n', Qt::SkipEmptyParts) : QStringList();
    }

    // Requests for the package since this test began.
    int packageRequests(const QString& name) const
    {
        const QList<QJsonObject> all = server.requests().mid(requestsBefore);
        return int(std::count_if(all.begin(), all.end(), [&](const auto& r) { return r["path"] == "/packages/" + name; }));
    }

    // The bundle's package installer, executable or not (again after each test).
    static void withInstaller(bool usable)
    {
        const QFileDevice::Permissions exec = usable ? QFileDevice::ExeOwner : QFileDevice::Permissions();
        QVERIFY(QFile::setPermissions(DlrPlatform::PackageInstallerProgram(),
                                      QFileDevice::ReadOwner | QFileDevice::WriteOwner | exec));
    }

    void waitForFinishedPage() { QTRY_COMPARE_WITH_TIMEOUT(window->currentId(), int(DlrMainWindow::FinishedPage), 20000); }

private slots:
    void initTestCase()
    {
        QVERIFY(work.isValid());
        downloads = QDir::homePath() + "/Downloads";
        realAppDir = dlrApp()->appDirPath;
        qputenv("VLUM_PRODUCT_ROOT", QFile::encodeName(work.filePath("Oktavo")));
        qputenv("VLUM_MAYA_ROOT", QFile::encodeName(work.filePath("autodesk")));
        qunsetenv("VLUMTREE");
        qunsetenv("VWSTREE");
        // The helper runs only this bundle's installer, the gated script.
        QVERIFY(helper.Start(VLUM_HELPER, {"--installer", DlrPlatform::PackageInstallerProgram()}));
        qputenv("VLUM_HELPER_SOCKET", QFile::encodeName(helper.SocketPath()));
        QVERIFY(server.start({"--tls", "chain"}));
        // Whatever the wizard opens is caught here, the schemes it must not open too.
        for (const char* scheme : {"https", "http", "file", "javascript", "smb"})
            QDesktopServices::setUrlHandler(scheme, &browser, "open");
    }

    void init()
    {
        setMachine({});
        QVERIFY(QDir(downloads).removeRecursively() && QDir().mkpath(downloads));
        QFile::remove(DlrPlatform::LibexecDir() + "/installed.txt");
        requestsBefore = server.requests().size();
        WizardDriver::useServer(server);
        dlrApp()->downloadDir.reset();
        dlrApp()->user = "demo";
        dlrApp()->pass = "velluma";
        browser.opened.clear();
    }

    void cleanup()
    {
        window.reset();
        DlrApp* app = dlrApp();
        app->mainWindow.reset();
        app->appDirPath = realAppDir;
        app->setStyleSheet(QString());
        app->setWindowIcon(QIcon());
        withInstaller(true);
    }

    // The program starts in its bundle, or away from it (with no Resources,
    // or with its own style sheet): it still opens its window, but a picture
    // it cannot read gives an empty icon, not one that draws nothing. The
    // sheet's lines are joined with nothing between them, so a blank that was
    // only a line break is gone; a sheet that cannot be read leaves the look
    // as it was.
    void start_data()
    {
        QTest::addColumn<QByteArray>("sheetFile"); // "-": the real bundle; null: none; "/": a folder
        QTest::addColumn<QString>("sheet");
        const QString before = "QLabel { color: #123456; }";
        QTest::newRow("in its bundle") << QByteArray("-") << QString();
        QTest::newRow("away from it") << QByteArray() << before;
        QTest::newRow("a folder for a sheet") << QByteArray("/") << before;
        QTest::newRow("sheet lines joined")
            << QByteArray("QLabel#joined {\n  color: #ff0000;\n}\nQWidget\nQLabel#runTogether {\ncolor: #00ff00;\n}\n")
            << "QLabel#joined {  color: #ff0000;}QWidgetQLabel#runTogether {color: #00ff00;}";
    }

    void start()
    {
        QFETCH(QByteArray, sheetFile);
        QFETCH(QString, sheet);
        const bool inBundle = sheetFile == "-";
        QTemporaryDir bundle; // bin/ is where the program runs
        ProductTree tree(bundle.path());
        const QString path = "Resources/stylesheets/vluminstaller.qss";
        QVERIFY(tree.folder("bin") && tree.folder("Resources/stylesheets"));
        if (!inBundle && !sheetFile.isNull())
            QVERIFY(sheetFile == "/" ? tree.folder(path) : tree.file(path, sheetFile));
        DlrApp* app = dlrApp();
        if (!inBundle)
            app->appDirPath = bundle.filePath("bin");
        app->setStyleSheet("QLabel { color: #123456; }");
        QCOMPARE(app->Start(), false);
        DlrMainWindow* window = app->mainWindow.get();
        QVERIFY(window->isVisible());
        QCOMPARE(app->windowIcon().isNull(), !inBundle);
        QCOMPARE(window->pixmap(QWizard::BannerPixmap).isNull(), !inBundle);
        QCOMPARE(window->findChild<QLabel*>("finishArtwork")->pixmap(Qt::ReturnByValue).isNull(), !inBundle);
        QStringList names;
        for (int id : window->pageIds()) {
            QCOMPARE(window->page(id)->pixmap(QWizard::BannerPixmap).isNull(), !inBundle);
            for (const QWidget* widget : window->page(id)->findChildren<QWidget*>())
                names << widget->objectName();
        }
        if (!inBundle)
            QCOMPARE(app->styleSheet(), sheet);
        // The real sheet names every object name the pages give their widgets
        // (a renamed widget would silently lose its look), and every picture it
        // names is found whatever the current folder (a missing one would
        // leave a tick box silently empty).
        names = names.filter(QRegularExpression("^(?!qt_)."));
        QVERIFY(names.size() >= 9);
        for (const QString& name : names)
            QVERIFY2(!inBundle || app->styleSheet().contains('#' + name), qPrintable(name));
        QRegularExpressionMatchIterator url = QRegularExpression("url\\(([^)]*)\\)").globalMatch(app->styleSheet());
        QCOMPARE(url.hasNext(), inBundle);
        while (url.hasNext()) {
            const QString name = url.next().captured(1);
            QVERIFY2(!QPixmap(name).isNull(), qPrintable(name));
        }
    }

    // The login page first shows the credentials it was given, the password
    // hidden, and the focus on the sign-up button, so that a stray key press
    // does not edit the password; only that first showing moves the focus.
    // Enter goes on exactly like Next, the credentials kept as typed, and
    // never opens the sign-up page, which only a click does; with a field
    // emptied Next is off and Enter is swallowed until it has text again.
    void loginPage_data()
    {
        QTest::addColumn<QByteArray>("emptied");
        QTest::addColumn<QByteArray>("where");
        QTest::addColumn<int>("key"); // 0: a click
        QTest::addColumn<int>("page");
        const int login = DlrMainWindow::LoginPage, selection = DlrMainWindow::SelectionPage;
        QTest::newRow("Return in user ID") << QByteArray() << QByteArray("userName") << int(Qt::Key_Return) << selection;
        QTest::newRow("Enter in password") << QByteArray() << QByteArray("password") << int(Qt::Key_Enter) << selection;
        QTest::newRow("Return on sign-up")
            << QByteArray() << QByteArray("needToRegister") << int(Qt::Key_Return) << selection;
        QTest::newRow("user ID emptied, Enter on sign-up")
            << QByteArray("userName") << QByteArray("needToRegister") << int(Qt::Key_Enter) << login;
        QTest::newRow("password emptied, Return in password")
            << QByteArray("password") << QByteArray("password") << int(Qt::Key_Return) << login;
        QTest::newRow("click on sign-up") << QByteArray() << QByteArray("needToRegister") << 0 << login;
    }

    void loginPage()
    {
        QFETCH(QByteArray, emptied);
        QFETCH(QByteArray, where);
        QFETCH(int, key);
        QFETCH(int, page);
        // A local product list, and no Downloads folder: a temporary one serves.
        dlrApp()->alternateManifestFile = VLUM_SOURCE_DIR "/tests/fixtures/one-offer.xml";
        QVERIFY(QDir(downloads).removeRecursively());
        dlrApp()->pass = " s3cret ";
        showWindow();
        QCOMPARE(field("userName")->text(), "demo");
        QCOMPARE(field("password")->text(), " s3cret ");
        QCOMPARE(field("password")->echoMode(), QLineEdit::Password);
        QTRY_COMPARE(QApplication::focusWidget(), child<QWidget>("needToRegister"));
        field("userName")->setFocus();
        window->hide();
        showWindow(false);
        QTRY_COMPARE(window->focusWidget(), field("userName"));

        field("userName")->selectAll();
        QTest::keyClicks(field("userName"), " bob ");
        if (!emptied.isEmpty()) {
            field(emptied)->selectAll();
            QTest::keyClick(field(emptied), Qt::Key_Backspace);
            QVERIFY(!window->button(QWizard::NextButton)->isEnabled());
        }
        if (key)
            QTest::keyClick(child<QWidget>(where), Qt::Key(key));
        else
            QTest::mouseClick(child<QWidget>(where), Qt::LeftButton);
        QCOMPARE(window->currentId(), page);
        QCOMPARE(browser.opened,
                 key ? QList<QUrl>() : QList<QUrl>{QUrl("https://www.oktavo.com/forum/register.php?action=signup")});
        if (page == DlrMainWindow::SelectionPage) {
            QCOMPARE(dlrApp()->user, " bob ");
            QCOMPARE(dlrApp()->pass, " s3cret ");
            // The temporary folder, or a private folder in it when it is shared.
            const QString dir = dlrApp()->GetDownloadDir()->path();
            QVERIFY2(dir == QDir::tempPath() || (QFileInfo(dir).path() == QDir::tempPath() && QDir().rmdir(dir)),
                     qPrintable(dir));
        } else if (!emptied.isEmpty()) {
            QTest::keyClicks(field(emptied), "x");
            QVERIFY(window->button(QWizard::NextButton)->isEnabled());
        }
    }

    // Under the real sheet every control Tab reaches on the login and
    // selection pages looks different with the focus than without it; in
    // the product list that is the current row, which Tab leaves unselected.
    void focusShows()
    {
        dlrApp()->loadStylesheet("vluminstaller.qss");
        setManifest(kCatalog);
        showWindow();
        for (const int page : {DlrMainWindow::LoginPage, DlrMainWindow::SelectionPage}) {
            if (page == DlrMainWindow::SelectionPage)
                window->next(); // and no further: Next there starts the downloads
            int shown = 0;
            for (QWidget* widget : window->currentPage()->findChildren<QWidget*>()
                     + QList<QWidget*>{window->button(QWizard::BackButton), window->button(QWizard::NextButton)}) {
                if (!widget->isVisible() || !widget->isEnabled() || !(widget->focusPolicy() & Qt::TabFocus))
                    continue;
                const bool row = widget == list();
                const auto look = [&] {
                    return row ? list()->viewport()->grab(list()->visualItemRect(list()->currentItem())).toImage()
                               : widget->grab().toImage();
                };
                widget->setFocus(Qt::TabFocusReason);
                QVERIFY(widget->hasFocus() && (!row || !list()->currentItem()->isSelected()));
                const QImage focused = look();
                widget->clearFocus();
                QVERIFY2(focused != look(), widget->metaObject()->className());
                ++shown;
            }
            QCOMPARE(shown, 4); // both fields, the link and Next; the list, Show All, Back and Next
        }
    }

    // Keys order as text, newest last; lookups never add keys. The highest
    // version and a version's builds are looked up on their own too.
    void offerTree()
    {
        QList<DlrManifestElement> offers;
        for (const char* name : {"A-9.1", "B-10.0", "C-22.0", "D-21.3", "E-22.3", "F-23.0", "G-22.0", "H"}) {
            offers << DlrManifestElement();
            offers.last().Name = name;
            offers.last().BuildID = name[0] == 'E' ? "10000000" : "9000000";
        }
        OfferTree tree;
        for (DlrManifestElement& one : offers)
            tree.InsertOffer(&one);
        QCOMPARE(tree.GetVersions(), (QStringList{"9", "23", "22", "21", "10", ""}));
        QCOMPARE(tree.GetHighestVersion(), "9");
        QCOMPARE(tree.GetBuildsForVersion("22"), (QStringList{"9000000", "10000000"}));
        QCOMPARE(tree.GetOffersForBuild("22", "9000000"), (QList<DlrManifestElement*>{&offers[2], &offers[6]}));
        QCOMPARE(OfferTree::GetOffersForBuild(tree["22"], "10000000"), QList<DlrManifestElement*>{&offers[4]});
        QVERIFY(tree["24"].isEmpty() && tree.GetOffersForBuild("22", "1").isEmpty());
        QCOMPARE(tree.GetVersions().size(), 6);
    }

    void rules_data()
    {
        QTest::addColumn<QByteArray>("xml");
        QTest::addColumn<QStringList>("machine");
        QTest::addColumn<QByteArray>("fates"); // offer by offer: c chosen, h hidden, . (or none left) neither
        QTest::addColumn<QStringList>("logged"); // debug lines among those logged
        const auto row = [](const char* tag, const QByteArray& xml, const QStringList& machine, const char* fates,
                            const QStringList& logged = {}) {
            QTest::newRow(tag) << xml << machine << QByteArray(fates) << logged;
        };
        row("bare machine: newest server and shown offers", kCatalog, {}, "chhhhhhhchh",
            {"\"Velluma Sample Scenes\" is speficied as shown", "\"Velluma Docs\" is specifed hidden"});
        row("Maya 2018: its bridge and the host-agnostic one", kCatalog, {"maya 2018"}, "cchchhhhchh",
            {"No katanas present in the assay.", "No auto selection handler for \"Houdini\""});
        row("Maya 2019 only: no 2018 bridge", kCatalog, {"maya 2019"}, "chhchhhhchh");
        row("same server build: bridges still offered", kCatalog, {"maya 2018", "vcs 22.0 200000"}, "hchchhhhchh");
        row("newer server build: no bridges", kCatalog, {"maya 2018", "vcs 22.0 300000"}, "hhhhhhhhchh");
        row("older server build: update and bridges", kCatalog, {"maya 2018", "vcs 22.0 100000"}, "cchchhhhchh");
        row("older major installed: both versions considered", kCatalog, {"maya 2018", "vcs 21.0 50000"}, "cchchcchchh");
        row("older major current: its missing bridge only", kCatalog, {"maya 2018", "vcs 21.0 100000"}, "cchchhchchh");
        row("older major with its bridge installed", kCatalog,
            {"maya 2018", "vcs 21.0 100000", "vfm 21.0 2018 100000"}, "cchchhhhchh");
        row("older major newer than offered", kCatalog, {"maya 2018", "vcs 21.0 150000"}, "cchchhhhchh");
        row("empty manifest", manifest({}), {"maya 2018"}, "");
        row("no core server: no bridges", manifest({kMaya2018, kMaya2020, kMayaAny}), {"maya 2018"}, "hhh");
        row("server without a version is not chosen",
            manifest({offer("", "Velluma-CoreServer.pkg", "Velluma CoreServer", "200000"), kMayaAny}), {"maya 2018"},
            "hh");
        row("duplicate offer: the first is chosen", manifest({kCore22, kCore22}), {}, "ch");
        row("chosen server keeps its place without a URL or size",
            manifest({offer("22.0", "Velluma-CoreServer-22.0.200000.pkg", "Velluma CoreServer 22.0", "200000",
                            "automatic", "0", "http://[bad"),
                      kMayaAny}),
            {"maya 2018"}, "cc");
        row("names that leave the download folder are never listed",
            manifest({offer("22.0", "../Velluma-CoreServer-22.0.300000.pkg", "Velluma CoreServer 22.0", "300000"),
                      offer("22.0", "/tmp/VellumaSampleScenes-22.0.pkg", "Velluma Sample Scenes", "1", "show"),
                      offer("22.0", "sub/VellumaDocs-22.0.pkg", "Velluma Docs", "1", "show"),
                      offer("22.0", "..", "Velluma Extras", "1", "show"), kCore22}),
            {}, "....c");
        row("a negative size is unknown",
            manifest({kCore22, offer("22.0", "VellumaSampleScenes-22.0.pkg", "Velluma Sample Scenes", "1", "show", "-5")}),
            {}, "c");
    }

    // What the rules choose and hide for one manifest on one machine. Each
    // bridge goes to its host's rule: Katana to the Katana rule (no Katana
    // is ever surveyed here), an unknown host to none.
    void rules()
    {
        QFETCH(QByteArray, xml);
        QFETCH(QStringList, machine);
        QFETCH(QByteArray, fates);
        QFETCH(QStringList, logged);
        QList<int> chosen, hidden;
        for (int i = 0; i < fates.size(); ++i) {
            if (fates[i] != '.')
                (fates[i] == 'c' ? chosen : hidden) << i;
        }
        setMachine(machine);
        setManifest(xml);
        for (const QString& line : logged)
            QTest::ignoreMessage(QtDebugMsg, qPrintable(line));
        enterSelection();
        QCOMPARE(selection()->chosenIndices, chosen);
        QCOMPARE(selection()->hiddenIndices, hidden);
        QVERIFY(selection()->isComplete());
        QCOMPARE(list()->count(), chosen.size());
    }

    // "Show All" lists hidden offers unticked and keeps the user's ticks on
    // rows that stay; a hidden row that goes out of view is not downloaded.
    void showAllAndNext()
    {
        setMachine({"maya 2018"});
        setManifest(kCatalog);
        enterSelection();
        auto* showAll = child<QCheckBox>("showAll");
        QVERIFY(showAll->isEnabled());
        const QStringList first{"[x] Velluma CoreServer 22.0", "[x] Velluma for Maya 2018", "[x] Velluma for Maya",
                                "[x] Velluma Sample Scenes"};
        QCOMPARE(rows(), first);

        tick(1, false);
        showAll->click();
        QCOMPARE(rows().size(), 11);
        QCOMPARE(rows().mid(0, 5), QStringList(first).replaceInStrings("[x] Velluma for Maya 2018",
                                                                       "[ ] Velluma for Maya 2018")
                                       << "[ ] Velluma for Maya 2020");
        tick(4, true); // Maya 2020 bridge, index 2
        tick(6, true); // 21 server, index 5
        QVERIFY(selection()->validatePage()); // what Next does, without downloading
        QCOMPARE(dlrApp()->downloadIndices, (QList<int>{0, 3, 8, 2, 5}));

        window->back();
        window->next(); // a fresh visit
        QCOMPARE(rows(), first);
        showAll->click();
        tick(4, true);
        showAll->click();
        QCOMPARE(rows(), first);
        QVERIFY(selection()->validatePage());
        QCOMPARE(dlrApp()->downloadIndices, (QList<int>{0, 1, 3, 8}));
    }

    // The run ends on the selection page with one dialog: no product list
    // (1: the reason, and the network error, if any, under its details), a
    // bundle without a usable package installer, where the survey says why
    // nothing can be installed (Cancel: -1), or Next with nothing ticked
    // (0), whether the list was empty or the user unticked everything; Next
    // stays off while that list is on its way, though the survey is done.
    void runEndsOnSelection_data()
    {
        QTest::addColumn<QString>("setup"); // "other": a server that refuses the password, with its options
        QTest::addColumn<QMessageBox::StandardButton>("answer");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QStringList>("dialog"); // text, informative, details
        const QString noList = "Could not get a product list from Oktavo", unknown = "Unknown manifest Validation";
        const QStringList none{"There were no products to install", "", ""};
        const QString installer = "The package installer " + DlrPlatform::PackageInstallerProgram()
            + " is missing. Press OK to conitue download only or Cancel to exit this application";
        QTest::newRow("refused") << "other --tls chain" << QMessageBox::Ok << 1 << QStringList{noList, "Wrong password", ""};
        QTest::newRow("TLS refused") << "other --tls self" << QMessageBox::Cancel << 1
                                     << QStringList{noList, unknown, DlrNetworkError(QNetworkReply::SslHandshakeFailedError)};
        QTest::newRow("unreachable") << "other" << QMessageBox::Ok << 1
                                     << QStringList{noList, unknown, DlrNetworkError(QNetworkReply::ConnectionRefusedError)};
        QTest::newRow("no installer") << "no-installer Only.pkg" << QMessageBox::Cancel << -1
                                      << QStringList{"Cannot complete the installation on this machine", installer, ""};
        QTest::newRow("empty list") << "list" << QMessageBox::Ok << 0 << none;
        QTest::newRow("all unticked") << "list Core.pkg Docs.pkg" << QMessageBox::Ok << 0 << none;
    }

    void runEndsOnSelection()
    {
        QFETCH(QString, setup);
        QFETCH(QMessageBox::StandardButton, answer);
        QFETCH(int, exitCode);
        QFETCH(QStringList, dialog);
        const QStringList args = setup.split(' ').mid(1);
        VendorServer other;
        other.setUsers({{"demo", "another password"}});
        if (setup.startsWith("other")) {
            QVERIFY(other.start(args));
            if (args.isEmpty())
                other.stop(); // its port is closed now
            WizardDriver::useServer(other);
        }
        withInstaller(!setup.startsWith("no-installer"));
        QList<VendorServer::Offer> offers;
        for (const QString& name : args)
            offers << VendorServer::Offer{name, 3000, {}};
        server.serveOffers(offers);
        DialogAnswerer user(answer);
        if (setup.startsWith("list")) {
            dlrApp()->manifestUrl += "?delay=1";
            enterSelection();
            QVERIFY(selection()->assayDone);
            QVERIFY(!window->button(QWizard::NextButton)->isEnabled());
            QSignalSpy complete(selection(), &QWizardPage::completeChanged);
            QVERIFY(complete.wait(20000));
            QVERIFY(window->button(QWizard::NextButton)->isEnabled());
            QCOMPARE(rows(), QStringList(args).replaceInStrings(QRegularExpression("(.*).pkg"), "[x] Product \\1"));
            for (int row = 0; row < list()->count(); ++row)
                tick(row, false);
            QCOMPARE(WizardDriver::runUntilExit([this] { window->next(); }), exitCode);
            QVERIFY(dlrApp()->downloadIndices.isEmpty());
        } else {
            QCOMPARE(WizardDriver::runUntilExit([this] { enterSelection(); }), exitCode);
            QVERIFY(!selection()->isComplete());
            QCOMPARE(list()->count(), 0);
        }
        QCOMPARE(window->currentId(), int(DlrMainWindow::SelectionPage));
        QCOMPARE((QStringList{user.texts.last(), user.informative.last(), user.details.last()}), dialog);
    }

    // Two ticked packages need twice their size on a 1 MiB file system:
    // exactly 1 MiB is enough, one byte more is not, and unticking one then
    // goes on. Neither a negative size nor a sum past 63 bits may bring the
    // need below what the other package takes.
    void diskSpace_data()
    {
        QTest::addColumn<qint64>("coreSize");
        QTest::addColumn<qint64>("scenesSize");
        QTest::addColumn<qint64>("needed"); // 0: enough room
        QTest::newRow("equal is enough") << qint64(262144) << qint64(262144) << qint64(0);
        QTest::newRow("one byte short") << qint64(262145) << qint64(262145) << qint64(1048580);
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
        const TmpfsMount disk(small.path(), "1m");
        if (!disk.mounted)
            QSKIP("a 1 MiB tmpfs cannot be mounted here (needs root)");
        dlrApp()->downloadDir.reset(new QDir(small.path()));
        setManifest(manifest({offer("22.0", "Velluma-CoreServer-22.0.1.pkg", "Velluma CoreServer 22.0", "1", "automatic", QString::number(coreSize)),
                              offer("22.0", "VellumaSampleScenes-22.0.pkg", "Velluma Sample Scenes", "1", "show", QString::number(scenesSize))}));
        enterSelection();
        QCOMPARE(list()->count(), 2);
        DialogAnswerer user(QMessageBox::Ok);
        QCOMPARE(selection()->validatePage(), needed == 0);
        QCOMPARE(dlrApp()->downloadIndices, (needed ? QList<int>() : QList<int>{0, 1}));
        const QString space = QStringLiteral("Needed %1 for selected downloads. There is %2 of available space on %3")
                                  .arg(DlrHumanBytes(needed), DlrHumanBytes(1048576), small.path());
        QCOMPARE(user.informative, needed ? QStringList{space} : QStringList());
        QCOMPARE(user.texts, needed ? QStringList{"You do not have enough free disk space to download the selected products"}
                                    : QStringList());
        if (needed == 0 || coreSize > 262144 * 2)
            return;
        tick(1, false);
        QVERIFY(selection()->validatePage());
        QCOMPARE(dlrApp()->downloadIndices, QList<int>{0});
    }

    // Four products share the bar in quarters; a download fills the first
    // half of its share. A complete package already in Downloads is installed
    // as it is, never "Downloading". The third one's install is held line by
    // line: the bar fills the second half of its share by the installer's
    // percentages, and the label shows its other lines without prefixes or
    // typographic characters. A ".PKG" is downloaded only, and a package
    // the installer fails asks nothing: the next one goes on.
    void progressAndLabels()
    {
        server.serveOffers({{"A.pkg", 3000, {}}, {"Bad.pkg", 3000, {}}, {"Gated.pkg", 3000, {}}, {"D.PKG", 3000, {}}});
        QVERIFY(QFile::copy(server.catalogPath("packages/A.pkg"), downloads + "/A.pkg"));
        DialogAnswerer nobody(QMessageBox::Ok); // a run without a single question
        LogWatch log;
        QStringList shown; // what the page shows the moment a download is done or an install starts
        log.tap = [&](const QString& line) {
            if (line.startsWith("Download complete!"))
                shown << QStringLiteral("%1 %2").arg(child<QProgressBar>()->value()).arg(label("downloadAmount"));
            if (line.startsWith("running installer"))
                shown << label("downloadStatus");
        };
        WizardDriver::enterDownloads(window);

        QTRY_COMPARE_WITH_TIMEOUT(label("downloadStatus"), "Installing Product Gated...", 20000);
        QCOMPARE(child<QProgressBar>()->value(), 625);
        const QString whole = DlrHumanBytes(3000) + '/' + DlrHumanBytes(3000);
        QCOMPARE(shown, (QStringList{"0 ", "Download/Installing", "375 " + whole, "Downloading Product Bad...",
                                     "625 " + whole, "Downloading Product Gated..."}));
        // Bar and label after each installer line: 687 is 625 + 0.5 x 125,
        // truncated; a line with a percentage moves only the bar.
        const QList<QPair<int, QString>> steps{
            {625, "Validating packages"}, {687, "Validating packages"}, {687, "Running package scripts"},
            {640, "Running package scripts"}};
        for (int gate = 1; gate <= steps.size(); ++gate) {
            openGates("Gated.pkg", gate);
            QTRY_COMPARE(child<QProgressBar>()->value(), steps[gate - 1].first);
            QTRY_COMPARE(label("downloadAmount"), steps[gate - 1].second);
        }
        openGates("Gated.pkg", 5);

        waitForFinishedPage();
        QCOMPARE(child<QProgressBar>()->value(), 1000);
        QCOMPARE(nobody.texts, QStringList());
        QCOMPARE(installed(), (QStringList{"A.pkg", "Gated.pkg"}));
        QCOMPARE(packageRequests("A.pkg"), 0);
        QVERIFY(log.contains(QStringLiteral("Not running installer on  \"%1/D.PKG\"").arg(downloads)));
        QCOMPARE(QFileInfo(downloads + "/D.PKG").size(), qint64(3000));
    }

    // What one read of installer output means: the first "installer:%" with
    // digits and points is a percentage, held to 0..100, that moves the bar
    // (one that is no number counts as 0), and the rest is shown without
    // prefixes, typographic characters or what follows a NUL; the verdict
    // lines say how the installation ended as well. The download page shows
    // the plain lines of a real installer.
    void installerLines_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("meaning"); // "bar <fraction>", "text <text>", "success <text>", "failure <reason>"
        QTest::newRow("huge percent") << QByteArray("installer:%44444444444") << "bar 1";
        QTest::newRow("past float range") << "installer:%1" + QByteArray(40, '0') << "bar 0";
        QTest::newRow("percent sign after") << QByteArray("installer:%42.5%") << "bar 0.425";
        QTest::newRow("first percentage counts") << QByteArray("installer:%x installer:%30 installer:%60") << "bar 0.3";
        QTest::newRow("letters") << QByteArray("installer:%abc") << "text %abc";
        QTest::newRow("negative") << QByteArray("installer:%-5") << "text %-5";
        QTest::newRow("NaN") << QByteArray("installer:%nan") << "text %nan";
        QTest::newRow("two points") << QByteArray("installer:%1.2.3") << "bar 0";
        QTest::newRow("no number") << QByteArray("installer:%") << "text %";
        QTest::newRow("NUL ends the text") << QByteArray("installer:STATUS:Done\0installer:%5", 34) << "text Done";
        QTest::newRow("success") << QByteArray("installer: The install was successful.\n") << "success  The install was successful.";
        QTest::newRow("failure") << QByteArray("installer: Error - no room\n") << "failure no room";
        QTest::newRow("failure holding a percentage") << QByteArray("installer: Error - bad installer:%5") << "bar 0.05";
    }

    void installerLines()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, meaning);
        const DlrInstallerLine line = DlrReadInstallerLine(bytes);
        const QString got = line.kind == DlrInstallerLine::Progress ? QStringLiteral("bar %1").arg(line.fraction)
            : line.kind == DlrInstallerLine::Status                 ? "text " + line.text
            : line.kind == DlrInstallerLine::Success                ? "success " + line.text
            : line.kind == DlrInstallerLine::Failure                ? "failure " + line.reason
                                                                    : "nothing";
        QCOMPARE(got, meaning);
    }

    // Back while a download runs asks first. An end that arrives while the
    // question is open is kept: a completed download is installed after
    // Cancel and left alone after OK; a failure is reported after Cancel
    // and swallowed after OK, now and later; Retry then fetches the rest.
    // Nothing else is fetched twice.
    void backDuringDownload_data()
    {
        QTest::addColumn<QMessageBox::StandardButton>("answer");
        QTest::addColumn<QString>("whileOpen"); // what happens before the user answers
        QTest::addColumn<QStringList>("installed");
        QTest::addColumn<qint64>("kept"); // the package's size in Downloads
        QTest::addColumn<QStringList>("dialogs"); // after the question
        QTest::newRow("cancel") << QMessageBox::Cancel << "" << QStringList{"Slow.pkg"} << qint64(300000) << QStringList();
        QTest::newRow("ok") << QMessageBox::Ok << "" << QStringList() << qint64(0) << QStringList();
        QTest::newRow("completes, cancel")
            << QMessageBox::Cancel << "completed" << QStringList{"Slow.pkg"} << qint64(300000) << QStringList();
        QTest::newRow("completes, ok") << QMessageBox::Ok << "completed" << QStringList() << qint64(300000) << QStringList();
        QTest::newRow("fails, cancel, retried") << QMessageBox::Cancel << "failed" << QStringList{"Slow.pkg"} << qint64(300000)
                                                << QStringList{"Product download failed"};
        QTest::newRow("fails, ok") << QMessageBox::Ok << "failed" << QStringList() << qint64(0) << QStringList();
    }

    void backDuringDownload()
    {
        QFETCH(QMessageBox::StandardButton, answer);
        QFETCH(QString, whileOpen);
        QFETCH(QStringList, installed);
        QFETCH(qint64, kept);
        QFETCH(QStringList, dialogs);
        // A failure hits the first request only: the answer keeps each row's address its own.
        QString faults = "throttle=100000";
        if (whileOpen == "failed")
            faults += QStringLiteral("&drop_after=200000&fault_times=1&answer=%1").arg(answer);
        server.serveOffers({{"Slow.pkg", 300000, faults}});
        LogWatch log;
        WizardDriver::enterDownloads(window);
        QTRY_VERIFY(!label("downloadAmount").isEmpty()); // bytes are arriving

        DialogAnswerer user(answer);
        user.thenAnswer({QMessageBox::Retry});
        if (!whileOpen.isEmpty())
            user.ready = [] { return dlrApp()->downloadReply == nullptr; }; // the engine is done with it
        backButton()->click();
        QVERIFY(whileOpen.isEmpty() || log.contains("Download " + whileOpen + " while in the back dialog"));
        if (answer == QMessageBox::Ok) {
            QCOMPARE(window->currentId(), int(DlrMainWindow::SelectionPage));
            QVERIFY(window->button(QWizard::BackButton)->isVisible() && !backButton()->isVisible());
            QTest::qWait(300); // a failure report must not surface later
        } else {
            waitForFinishedPage();
        }
        QCOMPARE(user.texts, QStringList{"Download In Progress. Really go back?"} + dialogs);
        QCOMPARE(user.informative.value(0), "Pressing Ok will stop this download of Product Slow. "
                                            "Press Cancel to resume download and installation");
        QCOMPARE(this->installed(), installed);
        QCOMPARE(QFileInfo(downloads + "/Slow.pkg").size(), kept);
        QCOMPARE(packageRequests("Slow.pkg"), 1 + dialogs.size());
    }

    // While an installation runs, Back cannot stop it: OK means "go back
    // once it is done", Cancel changes nothing, and an end that came while
    // the question was open is handled after the answer. A process object
    // that reports a crash or a negative code gets a dialog with the code,
    // a plain failure code none; either way the run goes on.
    void duringInstall_data()
    {
        QTest::addColumn<QMessageBox::StandardButton>("answer"); // NoButton: no Back, the process object ends
        QTest::addColumn<bool>("endsWhileOpen");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QProcess::ExitStatus>("exitStatus");
        QTest::addColumn<QStringList>("dialogs");
        const QStringList back{"A Product Install Is In Progress"};
        const QProcess::ExitStatus normal = QProcess::NormalExit;
        QTest::newRow("back, ok") << QMessageBox::Ok << false << 0 << normal << back;
        QTest::newRow("back, cancel") << QMessageBox::Cancel << false << 0 << normal << back;
        QTest::newRow("back, ends, ok") << QMessageBox::Ok << true << 0 << normal << back;
        QTest::newRow("back, ends, cancel") << QMessageBox::Cancel << true << 0 << normal << back;
        // The abandoned script still runs: the helper starts no second installer for the user.
        const QString next = QStringLiteral("Could not start installer process for Product After, skipping to next product");
        QTest::newRow("failure code") << QMessageBox::NoButton << false << 1 << normal << QStringList{next};
        QTest::newRow("crash") << QMessageBox::NoButton << false << 9 << QProcess::CrashExit
                               << QStringList{"Installer exited with err. Exit code: 9", next};
        QTest::newRow("negative code") << QMessageBox::NoButton << false << -2 << normal
                                       << QStringList{"Installer exited with err. Exit code: -2", next};
    }

    void duringInstall()
    {
        QFETCH(QMessageBox::StandardButton, answer);
        QFETCH(bool, endsWhileOpen);
        QFETCH(int, exitCode);
        QFETCH(QProcess::ExitStatus, exitStatus);
        QFETCH(QStringList, dialogs);
        server.serveOffers({{"Gated.pkg", 1000, {}}, {"After.pkg", 1000, {}}});
        LogWatch log;
        WizardDriver::enterDownloads(window);
        QTRY_COMPARE_WITH_TIMEOUT(label("downloadStatus"), "Installing Product Gated...", 20000);
        DialogAnswerer user(answer == QMessageBox::NoButton ? QMessageBox::Ok : answer);
        if (answer == QMessageBox::NoButton) {
            download()->installerFinished(exitCode, exitStatus); // as a process object that knows its exit would
            waitForFinishedPage();
            QCOMPARE(installed(), QStringList());
        } else {
            if (endsWhileOpen) {
                user.ready = [&] {
                    openGates("Gated.pkg");
                    return log.contains("Installer finished while waiting for user input");
                };
            }
            backButton()->click();
            QCOMPARE(user.informative, QStringList{"Once Product Gated is installed the Velluma Installer will go back"});
            QVERIFY(endsWhileOpen || window->currentId() == DlrMainWindow::DownloadPage); // the install goes on
        }
        QCOMPARE(user.texts, dialogs);
        openGates("Gated.pkg");
        if (answer == QMessageBox::Ok) {
            QTRY_COMPARE(window->currentId(), int(DlrMainWindow::SelectionPage));
            QCOMPARE(installed(), QStringList{"Gated.pkg"});
            QTest::qWait(200);
            QCOMPARE(packageRequests("After.pkg"), 0);
        } else {
            waitForFinishedPage();
            // Cancel: the next one after it; an abandoned script ends alone.
            const QStringList order = answer == QMessageBox::Cancel ? QStringList{"Gated.pkg", "After.pkg"}
                                                                     : QStringList{"Gated.pkg"};
            QTRY_COMPARE(installed(), order);
        }
    }

    // While-you-wait pictures run from 1 up, skip what is missing, and
    // start over after the last (the bundle has 1 to 4; the page showed 1).
    void whileYouWaitPictures()
    {
        window.reset(new DlrMainWindow);
        QList<int> shown;
        for (int pick = 0; pick < 6; ++pick) {
            download()->nextWhileUWait();
            const QImage image = child<QLabel>("downloadArtwork")->pixmap(Qt::ReturnByValue).toImage();
            for (int n = 1; n <= 19; ++n) {
                if (image == dlrApp()->LoadPixmapResource(qPrintable(QStringLiteral("whileUWait-%1.png").arg(n))).toImage())
                    shown << n;
            }
        }
        QCOMPARE(shown, (QList<int>{2, 3, 4, 1, 2, 3}));
    }

    // OK to a bundle without a usable package installer means download
    // only: the package is fetched, not handed to the helper (whose failure
    // would ask a second question), and the page says so.
    void withoutInstaller()
    {
        withInstaller(false);
        server.serveOffers({{"Only.pkg", 2000, {}}});
        DialogAnswerer user(QMessageBox::Ok);
        WizardDriver::enterDownloads(window);
        waitForFinishedPage();
        QCOMPARE(QFileInfo(downloads + "/Only.pkg").size(), qint64(2000));
        QCOMPARE(label("downloadStatus"), "Product Only was downloaded but not installed");
        QCOMPARE(user.texts, QStringList{"Cannot complete the installation on this machine"});
    }

    // A run that ends while the page is being entered (its one product is
    // on disk and is no package) lands on the finished page with only
    // Finish, not with this page's buttons. Finish opens the manifest's
    // success page when it is a web page, else the default one.
    void runEndsOnEntry_data()
    {
        QTest::addColumn<QString>("named"); // the manifest's DLRSuccessURL
        QTest::addColumn<QUrl>("opened");
        const QUrl page("http://127.0.0.1/view/done");
        const QUrl fallback("https://www.oktavo.com/view/Install-Success");
        QTest::newRow("web page") << page.toString() << page;
        QTest::newRow("local file") << "file:///etc/passwd" << fallback;
        QTest::newRow("script") << "javascript:alert(1)" << fallback;
        QTest::newRow("network share") << "smb://127.0.0.1/share/run.desktop" << fallback;
    }

    void runEndsOnEntry()
    {
        QFETCH(QString, named);
        QFETCH(QUrl, opened);
        server.serveOffers({{"Notes.zip", 500, {}}});
        QByteArray xml = readFile(server.catalogPath("manifest.xml"));
        xml.replace("</Manifest>", "<DLRSuccessURL>" + named.toUtf8() + "</DLRSuccessURL></Manifest>");
        QVERIFY(server.writeCatalogFile("manifest.xml", xml));
        QVERIFY(QFile::copy(server.catalogPath("packages/Notes.zip"), downloads + "/Notes.zip"));
        WizardDriver::enterDownloads(window);
        waitForFinishedPage();
        QVERIFY(window->button(QWizard::FinishButton)->isVisible());
        QVERIFY(!backButton()->isVisible() && !window->button(QWizard::BackButton)->isVisible());
        QCOMPARE(WizardDriver::runUntilExit([this] { window->button(QWizard::FinishButton)->click(); }), 0);
        QCOMPARE(browser.opened, QList<QUrl>{opened});
    }

    // The engine refuses to start the page's download (here it is busy
    // with another): the user is told, and the run ends with 0.
    void downloadCannotStart()
    {
        server.serveOffers({{"Busy.pkg", 400000, "throttle=100000"}, {"Mine.pkg", 1000, {}}});
        WizardDriver::enterSelection(window);
        QVERIFY(dlrApp()->DownloadProduct(0));
        // The page goes first, so that the abort's failure report finds no one.
        const auto stop = qScopeGuard([this] {
            window.reset();
            if (dlrApp()->downloadReply)
                dlrApp()->downloadReply->abort();
        });
        DialogAnswerer user(QMessageBox::Ok);
        QCOMPARE(WizardDriver::runUntilExit([this] { window->next(); }), 0);
        QCOMPARE(user.texts, QStringList{"There Was An Error Downloading"});
        QCOMPARE(user.informative, QStringList{"While processingProduct Busy. If this error persists contact "
                                               "customer support. Press Ok to exit the application"});
        // A walk with the engine's own step is told the same: each product
        // fails, and the walk goes on to its end.
        DlrProductWalk walk;
        QList<DlrProductWalk::Outcome> ended;
        connect(&walk, &DlrProductWalk::productEnded, &walk, [&](const auto& result) { ended << result.outcome; });
        QSignalSpy finished(&walk, &DlrProductWalk::finished);
        walk.Start();
        QTRY_COMPARE(finished.count(), 1);
        QCOMPARE(ended, (QList<DlrProductWalk::Outcome>{DlrProductWalk::DownloadFailed, DlrProductWalk::DownloadFailed}));
    }

    // The walk alone, its steps replaced: download and install outcomes as
    // rows ("A.pkg how verdict"), each run in milliseconds.
    void productWalk_data()
    {
        QTest::addColumn<QStringList>("products");
        QTest::addColumn<QStringList>("outcomes");
        QTest::addColumn<int>("fetches");
        QTest::newRow("retried") << QStringList{"A.pkg flaky success"} << QStringList{"Installed"} << 2;
        QTest::newRow("given up, next goes on") << QStringList{"A.pkg fail", "B.pkg refused", "C.pkg ok success"}
                                                << QStringList{"DownloadFailed:no route", "DownloadFailed", "Installed"} << 4;
        QTest::newRow("installer verdicts")
            << QStringList{"A.pkg ok failure", "B.pkg ok silence", "C.pkg ok nostart", "D.PKG ok"}
            << QStringList{"InstallFailed:disk full", "InstallFailed", "InstallerNotStarted:no helper", "DownloadedOnly"}
            << 4;
    }

    void productWalk()
    {
        QFETCH(QStringList, products);
        QFETCH(QStringList, outcomes);
        QFETCH(int, fetches);
        DlrApp* app = dlrApp();
        app->manifest.clear();
        app->downloadIndices.clear();
        for (const QString& product : qAsConst(products)) {
            app->downloadIndices << app->manifest.size();
            app->manifest << DlrManifestElement();
            app->manifest.last().Name = product.section(' ', 0, 0);
        }
        const auto plan = [&](int index, int word) { return products.at(index).section(' ', word, word); };
        DlrProductWalk walk;
        int fetched = 0;
        walk.download = [&](int index) {
            const bool fails = plan(index, 1) == "fail" || (plan(index, 1) == "flaky" && fetched == 0);
            if (++fetched && plan(index, 1) == "refused")
                return false;
            QTimer::singleShot(0, &walk, [&walk, app, index, fails, this] {
                DlrManifestElement& offer = app->manifest[index];
                if (fails)
                    return walk.EngineFailed("no route", index);
                QVERIFY(ProductTree(downloads).file(offer.Name, QByteArray(10, 'x')));
                offer.downloadFile = QSharedPointer<QFile>::create(downloads + '/' + offer.Name);
                walk.EngineCompleted(index);
            });
            return true;
        };
        walk.install = [&](const QString&) {
            const QString how = plan(walk.CurrentIndex(), 2);
            if (how == "nostart")
                return walk.InstallerCannotStart("no helper");
            QTimer::singleShot(0, &walk, [&walk, how] {
                walk.InstallerOutput(how == "success"   ? QByteArray(InstallerOutput::kSuccess)
                                     : how == "failure" ? QByteArray(InstallerOutput::kFailure) + "disk full"
                                                        : QByteArray("installer:%50"));
                walk.InstallerEnded(0, QProcess::NormalExit);
            });
        };
        bool retried = false;
        connect(&walk, &DlrProductWalk::downloadFailed, &walk, [&](const QString& reason) {
            retried ? walk.GiveUp(reason) : walk.Retry();
            retried = true;
        });
        QStringList ended;
        connect(&walk, &DlrProductWalk::productEnded, &walk, [&](const DlrProductWalk::Result& result) {
            retried = false;
            ended << QMetaEnum::fromType<DlrProductWalk::Outcome>().valueToKey(result.outcome)
                         + (result.reason.isEmpty() ? QString() : ':' + result.reason);
        });
        QSignalSpy finished(&walk, &DlrProductWalk::finished);
        walk.Start();
        QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, 5000);
        QCOMPARE(ended, outcomes);
        QCOMPARE(fetched, fetches);
    }
};

// The suite runs in a copy of this program in a bundle of its own making:
// Resources and the profiler are links to the real bundle's, and the
// package installer is the gated script.
int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsSet("VLUM_SCRIPTED_BUNDLE"))
        return runWithDlrApp<TestWizard>(argc, argv, {"-user", "demo", "-pass", "velluma"});
    QCoreApplication app(argc, argv);
    QTemporaryDir bundle;
    ProductTree tree(bundle.path());
    const QString real = app.applicationDirPath() + "/..", copy = tree.path("tests/tst_wizard");
    if (!tree.folder("tests") || !tree.script("libexec/installer", kInstaller)
        || !QFile::copy(app.applicationFilePath(), copy) || !QFile::link(real + "/Resources", tree.path("Resources"))
        || !QFile::link(real + "/libexec/system_profiler", tree.path("libexec/system_profiler"))) {
        qCritical("could not make the scripted bundle in %s", qPrintable(bundle.path()));
        return 1;
    }
    qputenv("VLUM_SCRIPTED_BUNDLE", "1");
    return QProcess::execute(copy, app.arguments().mid(1));
}

#include "tst_wizard.moc"
