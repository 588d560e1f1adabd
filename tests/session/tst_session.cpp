// The real program on a real X server (Xvfb), driven by key presses from
// outside as a user would: the window comes up with its title and size, the
// keyboard walks it to the end, and each way out gives the right status.

#include "../support/HelperProcess.h"
#include "../support/VendorServer.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

class TestSession : public QObject
{
    Q_OBJECT

    QProcess xserver;
    QTemporaryDir home;

    // On the X server, whose DISPLAY this process and its children have.
    static QByteArray xdotool(const QStringList& args)
    {
        QProcess tool;
        tool.start(QStringLiteral("xdotool"), args);
        tool.waitForFinished(10000);
        return tool.readAllStandardOutput().trimmed();
    }

private slots:
    void initTestCase()
    {
        // Xvfb picks a display nobody holds and writes its number once it
        // accepts connections. -noreset: a server that resets when its last
        // client leaves refuses the next wizard for a moment.
        xserver.start(QStringLiteral("Xvfb"), {"-displayfd", "1", "-screen", "0", "1024x768x24", "-nolisten", "tcp",
                                               "-noreset"});
        QVERIFY2(xserver.waitForStarted(), "Xvfb is not installed");
        QTRY_VERIFY_WITH_TIMEOUT(xserver.canReadLine() || xserver.state() != QProcess::Running, 10000);
        const QByteArray display = ':' + xserver.readLine().trimmed();
        QVERIFY2(display.size() > 1, "could not start Xvfb");
        qputenv("DISPLAY", display);
        QVERIFY2(!xdotool({"getdisplaygeometry"}).isEmpty(), "xdotool is not installed");
    }

    void cleanupTestCase()
    {
        xserver.terminate();
        xserver.waitForFinished(5000);
    }

    void keyboard_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<bool>("installs");
        // A wizard closes on Escape as on its title bar.
        QTest::newRow("Escape closes it") << "Escape" << false;
        // No browser exists here, which must not keep the wizard open.
        QTest::newRow("Return on each page until Finish") << "Return" << true;
    }

    // Against a real vendor server and a real helper: the window shows at its
    // size; the walk downloads the one offered package and installs it into
    // the helper's install root; either way out ends with status 0.
    void keyboard()
    {
        QFETCH(QString, key);
        QFETCH(bool, installs);
        VendorServer server;
        const QString name = QStringLiteral("VellumaSampleScenes-22.0.pkg");
        QVERIFY(server.makeInstallablePackage(name, QStringLiteral("Sample Scenes")));
        server.serveOffers({{name, 0, QString()}});
        QVERIFY(server.start({QStringLiteral("--tls"), QStringLiteral("chain")}));
        QTemporaryDir machine;
        HelperProcess helper;
        QVERIFY(helper.Start(QStringLiteral(VLUM_HELPER), {}, {QStringLiteral("VLUM_INSTALL_ROOT=") + machine.path()}));
        QVERIFY(QDir().mkpath(home.filePath(QStringLiteral("Downloads"))));

        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("HOME"), home.path());
        env.insert(QStringLiteral("VLUM_HELPER_SOCKET"), helper.SocketPath());
        env.insert(QStringLiteral("VLUM_PRODUCT_ROOT"), machine.filePath(QStringLiteral("opt/Oktavo")));
        env.remove(QStringLiteral("QT_QPA_PLATFORM"));
        env.remove(QStringLiteral("VLUMINSTALLER_DEBUG_LOG"));
        QProcess wizard;
        wizard.setProcessEnvironment(env);
        wizard.start(QStringLiteral(VLUM_INSTALLER),
                     {"-user", "demo", "-pass", "velluma", "-debug", "-manifestserver",
                      QStringLiteral("127.0.0.1:%1").arg(server.port), "-manifestserverscheme", "https"});
        QVERIFY(wizard.waitForStarted());
        QByteArray id;
        QTRY_VERIFY_WITH_TIMEOUT(
            !(id = xdotool({"search", "--onlyvisible", "--name", "^Velluma Installer$"})).isEmpty()
                || wizard.state() != QProcess::Running,
            15000);
        const QByteArray geometry = xdotool({"getwindowgeometry", QString::fromLatin1(id.split('\n').first())});
        QVERIFY2(geometry.contains("Geometry: 800x400"), geometry.constData());

        // The first presses may arrive before the new window has the keyboard.
        for (int press = 0; press < 20 && wizard.state() == QProcess::Running; ++press) {
            xdotool({"key", key});
            wizard.waitForFinished(300);
        }
        QVERIFY2(wizard.waitForFinished(15000) || wizard.state() == QProcess::NotRunning, "the wizard did not end");
        const QByteArray err = wizard.readAllStandardError();
        QVERIFY2(wizard.exitStatus() == QProcess::NormalExit && wizard.exitCode() == 0, err.right(4000).constData());
        QCOMPARE(err.contains("]: Debug: Finished!\n"), installs);
        QCOMPARE(QFile::exists(home.filePath(QStringLiteral("Downloads/") + name)), installs);
        QVERIFY2(QFile::exists(machine.filePath(QStringLiteral("opt/Oktavo/Sample Scenes/README.txt"))) == installs,
                 qPrintable(helper.Log()));
    }
};

QTEST_GUILESS_MAIN(TestSession)
#include "tst_session.moc"
