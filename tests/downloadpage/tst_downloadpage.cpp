// The download page as a user meets it: packages from the real local
// server, installations through the real helper, whose one allowed
// program here is a script that prints installer output one line per gate
// the test opens. So every state of the page can be held still and looked
// at: the bar and labels, the back dialogs, and ends that arrive while a
// dialog is open.

#include "../support/BundleCopy.h"
#include "../support/DialogAnswerer.h"
#include "../support/HelperProcess.h"
#include "../support/TestMain.h"
#include "../support/VendorServer.h"
#include "../support/WizardDriver.h"

#include "DlrDownload.h"
#include "DlrHumanBytes.h"
#include "DlrInstallerLine.h"
#include "DlrMainWindow.h"
#include "DlrPlatform.h"

#include <QAbstractButton>
#include <QLabel>
#include <QProgressBar>
#include <QScopeGuard>

namespace {

// $5 is the package. A gated package prints each line only once the file
// <package>.<n> exists; every package it finishes is listed in installed.txt.
const char kInstaller[] = R"(#!/bin/sh
pkg="$5"
gate() { i=0; while [ ! -e "$pkg.$1" ]; do sleep 0.02; i=$((i+1)); [ $i -lt 1500 ] || exit 3; done; }
case "$pkg" in
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

} // namespace

Q_DECLARE_METATYPE(QMessageBox::StandardButton)

class TestDownloadPage : public QObject
{
    Q_OBJECT

    QTemporaryDir work;
    QString downloads;
    VendorServer server;
    HelperProcess helper;
    QScopedPointer<DlrMainWindow> window;
    int requestsBefore = 0;

    DlrDownload* page() const { return qobject_cast<DlrDownload*>(window->page(DlrMainWindow::DownloadPage)); }
    QProgressBar* bar() const { return page()->findChild<QProgressBar*>(); }
    QString label(const char* name) const { return page()->findChild<QLabel*>(QLatin1String(name))->text(); }
    QAbstractButton* backButton() const { return window->button(QWizard::CustomButton1); }

    void enterDownloads() { WizardDriver::enterDownloads(window); }

    void openGates(const QString& package, int last = 5)
    {
        for (int n = 1; n <= last; ++n) {
            QFile gate(downloads + QStringLiteral("/%1.%2").arg(package).arg(n));
            QVERIFY(gate.open(QIODevice::WriteOnly));
        }
    }

    QStringList installed() const
    {
        QFile list(DlrPlatform::LibexecDir() + QStringLiteral("/installed.txt"));
        if (!list.open(QIODevice::ReadOnly))
            return {};
        return QString::fromUtf8(list.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }

    // Requests for the package since this test began.
    int packageRequests(const QString& name) const
    {
        int n = 0;
        for (const QJsonObject& request : server.requests().mid(requestsBefore))
            n += request.value(QStringLiteral("path")).toString() == QStringLiteral("/packages/") + name ? 1 : 0;
        return n;
    }

    void waitForFinishedPage() { QTRY_COMPARE_WITH_TIMEOUT(window->currentId(), int(DlrMainWindow::FinishedPage), 20000); }

private slots:
    void initTestCase()
    {
        QVERIFY(work.isValid());
        downloads = QDir::homePath() + QStringLiteral("/Downloads");
        qputenv("VLUM_PRODUCT_ROOT", QFile::encodeName(work.filePath(QStringLiteral("Oktavo"))));
        qputenv("VLUM_MAYA_ROOT", QFile::encodeName(work.filePath(QStringLiteral("autodesk"))));
        // This copy of the program runs in a bundle whose installer is the
        // script (main() below made it); the helper runs only that.
        const QString script = DlrPlatform::PackageInstallerProgram();
        QVERIFY(helper.Start(QStringLiteral(VLUM_HELPER), {QStringLiteral("--installer"), script}));
        qputenv("VLUM_HELPER_SOCKET", QFile::encodeName(helper.SocketPath()));
        QVERIFY(server.start({QStringLiteral("--tls"), QStringLiteral("chain")}));
        WizardDriver::useServer(server);
    }

    void init()
    {
        QVERIFY(QDir(downloads).removeRecursively() && QDir().mkpath(downloads));
        QFile::remove(DlrPlatform::LibexecDir() + QStringLiteral("/installed.txt"));
        requestsBefore = server.requests().size();
    }

    void cleanup() { window.reset(); }

    // Four products share the bar in quarters. The third one's install is
    // held line by line: the bar fills the second half of its share by the
    // installer's percentages, and the label shows its other lines without
    // prefixes or typographic characters. A ".PKG" is downloaded only.
    void progressAndLabels()
    {
        server.serveOffers({{"A.pkg", 3000, {}}, {"B.pkg", 3000, {}}, {"Gated.pkg", 3000, {}}, {"D.PKG", 3000, {}}});
        DialogAnswerer nobody(QMessageBox::Ok); // a run without a single question
        LogWatch log;
        QStringList atCompletion; // what the page shows the moment a download is done
        log.tap = [&](const QString& line) {
            if (line.startsWith(QLatin1String("Download complete!")))
                atCompletion << QStringLiteral("%1 %2").arg(bar()->value()).arg(label("downloadAmount"));
        };
        enterDownloads();

        QTRY_COMPARE_WITH_TIMEOUT(label("downloadStatus"), QStringLiteral("Installing Product Gated..."), 20000);
        QCOMPARE(bar()->value(), 625);
        const QString whole = DlrHumanBytes(3000) + QLatin1Char('/') + DlrHumanBytes(3000);
        QCOMPARE(atCompletion, (QStringList{"125 " + whole, "375 " + whole, "625 " + whole}));

        const QString gated = QStringLiteral("Gated.pkg");
        openGates(gated, 1);
        QTRY_COMPARE(label("downloadAmount"), QStringLiteral("Validating packages"));
        QCOMPARE(bar()->value(), 625);
        openGates(gated, 2);
        QTRY_COMPARE(bar()->value(), 687); // 625 + 0.5 x 125, truncated
        QCOMPARE(label("downloadAmount"), QStringLiteral("Validating packages"));
        openGates(gated, 3);
        QTRY_COMPARE(label("downloadAmount"), QStringLiteral("Running package scripts"));
        openGates(gated, 4);
        QTRY_COMPARE(bar()->value(), 640); // a line with a percentage moves only the bar
        QCOMPARE(label("downloadAmount"), QStringLiteral("Running package scripts"));
        openGates(gated, 5);

        waitForFinishedPage();
        QCOMPARE(bar()->value(), 1000);
        QCOMPARE(nobody.texts, QStringList());
        QCOMPARE(installed(), (QStringList{"A.pkg", "B.pkg", "Gated.pkg"}));
        QVERIFY(log.contains(QStringLiteral("Not running installer on  \"%1/D.PKG\"").arg(downloads)));
        QCOMPARE(QFileInfo(downloads + QStringLiteral("/D.PKG")).size(), qint64(3000));
    }

    // What one read of installer output means: a percentage held to
    // 0..100 moves the bar, one that is no finite number moves nothing, and
    // the rest is shown without prefixes, typographic characters or what
    // follows a NUL.
    void installerLines_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("meaning"); // "bar <fraction>", "text <text>" or "nothing"
        QTest::newRow("percent") << QByteArray("installer:%42.5\n") << "bar 0.425";
        QTest::newRow("percent within a status") << QByteArray("installer:STATUS:Copying installer:%12") << "bar 0.12";
        QTest::newRow("huge percent") << QByteArray("installer:%44444444444") << "bar 1";
        QTest::newRow("past double range") << "installer:%1" + QByteArray(400, '0') << "nothing";
        QTest::newRow("negative") << QByteArray("installer:%-5") << "bar 0";
        QTest::newRow("NaN") << QByteArray("installer:%nan") << "nothing";
        QTest::newRow("infinity") << QByteArray("installer:%inf") << "nothing";
        QTest::newRow("two points") << QByteArray("installer:%1.2.3") << "nothing";
        QTest::newRow("no number") << QByteArray("installer:%") << "nothing";
        QTest::newRow("phase") << QByteArray("installer:PHASE:Validating packages\n") << "text Validating packages";
        QTest::newRow("ellipsis dropped") << QByteArray("installer:STATUS:Running scripts\342\200\246") << "text Running scripts";
        QTest::newRow("NUL ends the text") << QByteArray("installer:STATUS:Done\0installer:%5", 34) << "text Done";
        QTest::newRow("end report") << QByteArray("installer: The install was successful.") << "text  The install was successful.";
    }

    void installerLines()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, meaning);
        const DlrInstallerLine line = DlrReadInstallerLine(bytes);
        switch (line.kind) {
        case DlrInstallerLine::Progress:
            QCOMPARE(QStringLiteral("bar %1").arg(line.fraction), meaning);
            break;
        case DlrInstallerLine::Status:
            QCOMPARE(QStringLiteral("text ") + line.text, meaning);
            break;
        case DlrInstallerLine::Nothing:
            QCOMPARE(QStringLiteral("nothing"), meaning);
            break;
        }
    }

    // Back while a download runs asks first. An end that arrives while the
    // question is open is kept: a completed download is installed after
    // Cancel and left alone after OK; a failure is reported after Cancel
    // and swallowed after OK.
    void backDuringDownload_data()
    {
        QTest::addColumn<QMessageBox::StandardButton>("answer");
        QTest::addColumn<QString>("whileOpen"); // what happens before the user answers
        QTest::addColumn<QString>("outcome");
        QTest::newRow("cancel") << QMessageBox::Cancel << "" << "installed";
        QTest::newRow("ok") << QMessageBox::Ok << "" << "left, nothing kept";
        QTest::newRow("completes, cancel") << QMessageBox::Cancel << "completed" << "installed";
        QTest::newRow("completes, ok") << QMessageBox::Ok << "completed" << "left, package kept";
        QTest::newRow("fails, cancel") << QMessageBox::Cancel << "failed" << "failure reported";
        QTest::newRow("fails, ok") << QMessageBox::Ok << "failed" << "left, nothing kept";
    }

    void backDuringDownload()
    {
        QFETCH(QMessageBox::StandardButton, answer);
        QFETCH(QString, whileOpen);
        QFETCH(QString, outcome);
        const QString faults = whileOpen == QLatin1String("failed") ? QStringLiteral("throttle=100000&drop_after=200000")
                                                                    : QStringLiteral("throttle=100000");
        server.serveOffers({{"Slow.pkg", 300000, faults}});
        LogWatch log;
        enterDownloads();
        QTRY_VERIFY(!label("downloadAmount").isEmpty()); // bytes are arriving

        DialogAnswerer user(answer);
        user.thenAnswer({QMessageBox::Ignore});
        if (!whileOpen.isEmpty())
            user.ready = [] { return dlrApp()->downloadReply == nullptr; }; // the engine is done with it
        backButton()->click();
        QCOMPARE(user.texts.value(0), QStringLiteral("Download In Progress. Really go back?"));
        QCOMPARE(user.informative.value(0), QStringLiteral("Pressing Ok will stop this download of Product Slow. "
                                                           "Press Cancel to resume download and installation"));
        if (!whileOpen.isEmpty())
            QVERIFY(log.contains(QStringLiteral("Download %1 while in the back dialog").arg(whileOpen)));

        const QString package = downloads + QStringLiteral("/Slow.pkg");
        if (outcome.startsWith(QLatin1String("left"))) {
            QCOMPARE(window->currentId(), int(DlrMainWindow::SelectionPage));
            QVERIFY(window->button(QWizard::BackButton)->isVisible());
            QVERIFY(!backButton()->isVisible());
            QTest::qWait(300); // a failure report must not surface later
            QCOMPARE(user.texts.size(), 1);
            const bool kept = outcome == QLatin1String("left, package kept");
            QCOMPARE(QFileInfo(package).size(), kept ? qint64(300000) : qint64(0));
            QVERIFY(installed().isEmpty());
            return;
        }
        waitForFinishedPage();
        if (outcome == QLatin1String("failure reported")) {
            QCOMPARE(user.texts.value(1), QStringLiteral("Product download failed"));
            QVERIFY(installed().isEmpty());
        } else {
            QCOMPARE(user.texts.size(), 1);
            QCOMPARE(installed(), QStringList{"Slow.pkg"});
            QCOMPARE(packageRequests(QStringLiteral("Slow.pkg")), 1);
        }
    }

    // Back while an installation runs cannot stop it: OK means "go back
    // once it is done", Cancel changes nothing, and an end that came while
    // the question was open is handled after the answer.
    void backDuringInstall_data()
    {
        QTest::addColumn<QMessageBox::StandardButton>("answer");
        QTest::addColumn<bool>("endsWhileOpen");
        QTest::newRow("ok") << QMessageBox::Ok << false;
        QTest::newRow("cancel") << QMessageBox::Cancel << false;
        QTest::newRow("ends, ok") << QMessageBox::Ok << true;
        QTest::newRow("ends, cancel") << QMessageBox::Cancel << true;
    }

    void backDuringInstall()
    {
        QFETCH(QMessageBox::StandardButton, answer);
        QFETCH(bool, endsWhileOpen);
        server.serveOffers({{"Gated.pkg", 1000, {}}, {"After.pkg", 1000, {}}});
        LogWatch log;
        enterDownloads();
        QTRY_COMPARE_WITH_TIMEOUT(label("downloadStatus"), QStringLiteral("Installing Product Gated..."), 20000);

        DialogAnswerer user(answer);
        if (endsWhileOpen) {
            user.ready = [&] {
                openGates(QStringLiteral("Gated.pkg"));
                return log.contains(QStringLiteral("Installer finished while waiting for user input"));
            };
        }
        backButton()->click();
        QCOMPARE(user.texts, QStringList{"A Product Install Is In Progress"});
        QCOMPARE(user.informative,
                 QStringList{"Once Product Gated is installed the Velluma Installer will go back"});
        if (!endsWhileOpen) {
            QCOMPARE(window->currentId(), int(DlrMainWindow::DownloadPage)); // the install goes on
            openGates(QStringLiteral("Gated.pkg"));
        }

        if (answer == QMessageBox::Ok) {
            QTRY_COMPARE(window->currentId(), int(DlrMainWindow::SelectionPage));
            QCOMPARE(installed(), QStringList{"Gated.pkg"});
            QTest::qWait(200);
            QCOMPARE(packageRequests(QStringLiteral("After.pkg")), 0);
        } else {
            waitForFinishedPage();
            QCOMPARE(installed(), (QStringList{"Gated.pkg", "After.pkg"}));
        }
    }

    // A process object that reports a crash gets a dialog with its exit
    // code; a plain failure code does not. Either way the run goes on.
    void installerEndReports_data()
    {
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QProcess::ExitStatus>("exitStatus");
        QTest::addColumn<QStringList>("dialogs");
        QTest::newRow("failure code") << 1 << QProcess::NormalExit << QStringList();
        QTest::newRow("crash") << 9 << QProcess::CrashExit << QStringList{"Installer exited with err. Exit code: 9"};
        QTest::newRow("negative code") << -2 << QProcess::NormalExit
                                       << QStringList{"Installer exited with err. Exit code: -2"};
    }

    void installerEndReports()
    {
        QFETCH(int, exitCode);
        QFETCH(QProcess::ExitStatus, exitStatus);
        QFETCH(QStringList, dialogs);
        server.serveOffers({{"Gated.pkg", 1000, {}}, {"After.pkg", 1000, {}}});
        enterDownloads();
        QTRY_COMPARE_WITH_TIMEOUT(label("downloadStatus"), QStringLiteral("Installing Product Gated..."), 20000);
        DialogAnswerer user(QMessageBox::Ok);
        page()->installerFinished(exitCode, exitStatus); // as a process object that knows its exit would
        QCOMPARE(user.texts, dialogs);
        waitForFinishedPage();
        QCOMPARE(installed(), QStringList{"After.pkg"});
        openGates(QStringLiteral("Gated.pkg")); // let the abandoned script end
        QTRY_COMPARE(installed(), (QStringList{"After.pkg", "Gated.pkg"}));
    }

    // While-you-wait pictures run from 1 up, skip what is missing, and
    // start over after the last (the bundle has 1 to 4; the page showed 1).
    void whileYouWaitPictures()
    {
        server.serveOffers({});
        window.reset(new DlrMainWindow);
        auto* artwork = page()->findChild<QLabel*>(QStringLiteral("downloadArtwork"));
        QList<int> shown;
        for (int pick = 0; pick < 6; ++pick) {
            page()->nextWhileUWait();
            const QImage image = artwork->pixmap(Qt::ReturnByValue).toImage();
            for (int n = 1; n <= 19; ++n) {
                const QByteArray name = QStringLiteral("whileUWait-%1.png").arg(n).toLatin1();
                if (image == dlrApp()->LoadPixmapResource(name.constData()).toImage())
                    shown << n;
            }
        }
        QCOMPARE(shown, (QList<int>{2, 3, 4, 1, 2, 3}));
    }

    // A complete package already in Downloads is installed as it is.
    void packageAlreadyOnDisk()
    {
        server.serveOffers({{"Ready.pkg", 2000, {}}});
        QFile::copy(server.catalogPath(QStringLiteral("packages/Ready.pkg")), downloads + QStringLiteral("/Ready.pkg"));
        LogWatch log;
        QStringList statusAtInstall;
        log.tap = [&](const QString& line) {
            if (line.startsWith(QLatin1String("running installer")))
                statusAtInstall << label("downloadStatus");
        };
        enterDownloads();
        waitForFinishedPage();
        QCOMPARE(installed(), QStringList{"Ready.pkg"});
        QCOMPARE(packageRequests(QStringLiteral("Ready.pkg")), 0);
        QCOMPARE(statusAtInstall, QStringList{"Download/Installing"}); // never "Downloading ..."
    }

    // Without a package installer, OK on the selection page's question means
    // download only: the package is fetched, not handed to the helper (whose
    // failure would ask a second question), and the page says so.
    void downloadOnlyWithoutInstaller()
    {
        const QString script = DlrPlatform::PackageInstallerProgram();
        QVERIFY(QFile::setPermissions(script, QFileDevice::ReadOwner | QFileDevice::WriteOwner));
        const auto restore = qScopeGuard([&script] {
            QFile::setPermissions(script, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
        });
        server.serveOffers({{"Only.pkg", 2000, {}}});
        DialogAnswerer user(QMessageBox::Ok);
        enterDownloads();
        waitForFinishedPage();
        QCOMPARE(user.texts, QStringList{"Cannot complete the installation on this machine"});
        QCOMPARE(QFileInfo(downloads + QStringLiteral("/Only.pkg")).size(), qint64(2000));
        QCOMPARE(label("downloadStatus"), QStringLiteral("Product Only was downloaded but not installed"));
    }

    // A run that ends while the page is being entered (its one product is
    // on disk and is no package) lands on the finished page with only
    // Finish, not with this page's buttons.
    void runEndsOnEntry()
    {
        server.serveOffers({{"Notes.zip", 500, {}}});
        QVERIFY(QFile::copy(server.catalogPath(QStringLiteral("packages/Notes.zip")), downloads + QStringLiteral("/Notes.zip")));
        enterDownloads();
        waitForFinishedPage();
        QVERIFY(window->button(QWizard::FinishButton)->isVisible());
        QVERIFY(!backButton()->isVisible());
        QVERIFY(!window->button(QWizard::BackButton)->isVisible());
    }

    // The engine refuses to start the page's download (here it is busy
    // with another): the user is told, and the run ends with 0.
    void downloadCannotStart()
    {
        server.serveOffers({{"Busy.pkg", 400000, QStringLiteral("throttle=100000")}, {"Mine.pkg", 1000, {}}});
        WizardDriver::enterSelection(window);
        QNetworkReply* other = dlrApp()->DownloadProduct(0);
        QVERIFY(other);
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
    }
};

// The suite runs in a copy of this program placed in a bundle whose package
// installer is the gated script.
int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsSet("VLUM_SCRIPTED_BUNDLE"))
        return runWithDlrApp<TestDownloadPage>(argc, argv, {"-user", "demo", "-pass", "velluma"});

    QCoreApplication app(argc, argv);
    QTemporaryDir bundle;
    const QString copy = makeBundleCopy(bundle.path());
    QFile script(bundle.filePath(QStringLiteral("libexec/installer")));
    if (copy.isEmpty() || !script.open(QIODevice::WriteOnly) || script.write(kInstaller) < 0
        || !script.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner)) {
        qCritical("could not make the scripted bundle in %s", qPrintable(bundle.path()));
        return 1;
    }
    script.close();
    return runBundleCopy(copy, "VLUM_SCRIPTED_BUNDLE", app.arguments().mid(1), 600000);
}

#include "tst_downloadpage.moc"
