// The real program on a real X server (Xvfb), driven by key presses from
// outside as a user would: the window comes up with its title and size, the
// keyboard walks it to the end, and each way out gives the right status.

#include "../support/ChildRun.h"
#include "../support/HelperProcess.h"
#include "../support/VendorServer.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

class TestSession : public QObject
{
    Q_OBJECT

private:
    QProcess xserver;
    QString display;
    QTemporaryDir home;

    QByteArray xdotool(const QStringList& args, int timeoutMs = 10000)
    {
        QProcess tool;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("DISPLAY"), display);
        tool.setProcessEnvironment(env);
        tool.start(QStringLiteral("xdotool"), args);
        if (!tool.waitForFinished(timeoutMs)) {
            tool.kill();
            tool.waitForFinished();
            return QByteArray();
        }
        return tool.readAllStandardOutput().trimmed();
    }

    // Starts the wizard on our display and waits for its window.
    void startWizard(QProcess& wizard, const QStringList& args, QByteArray& windowId, const QStringList& extraEnv = {})
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        for (const QString& entry : extraEnv)
            env.insert(entry.section(QLatin1Char('='), 0, 0), entry.section(QLatin1Char('='), 1));
        env.insert(QStringLiteral("DISPLAY"), display);
        env.insert(QStringLiteral("HOME"), home.path());
        env.remove(QStringLiteral("QT_QPA_PLATFORM"));
        env.remove(QStringLiteral("VLUMINSTALLER_DEBUG_LOG"));
        wizard.setProcessEnvironment(env);
        wizard.start(QStringLiteral(VLUM_INSTALLER), args);
        QVERIFY(wizard.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(
            !(windowId = xdotool({"search", "--onlyvisible", "--name", "^Velluma Installer$"})).isEmpty()
                || wizard.state() != QProcess::Running,
            15000);
        QVERIFY2(!windowId.isEmpty(), wizard.readAllStandardError().constData());
        windowId = windowId.split('\n').first();
    }

    void finish(QProcess& wizard)
    {
        // waitForFinished() is false for a process that has already ended.
        if (wizard.state() != QProcess::NotRunning && !wizard.waitForFinished(15000)) {
            wizard.kill();
            wizard.waitForFinished();
            QFAIL("the wizard did not end");
        }
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(!QStandardPaths::findExecutable(QStringLiteral("Xvfb")).isEmpty(), "Xvfb is not installed");
        QVERIFY2(!QStandardPaths::findExecutable(QStringLiteral("xdotool")).isEmpty(), "xdotool is not installed");
        // A display number nobody holds: Xvfb refuses one that is taken.
        for (int n = 140; n < 240 && display.isEmpty(); ++n) {
            if (QFile::exists(QStringLiteral("/tmp/.X%1-lock").arg(n)))
                continue;
            // -noreset: a server that resets when its last client leaves
            // refuses the next wizard for a moment.
            xserver.start(QStringLiteral("Xvfb"), {QStringLiteral(":%1").arg(n), "-screen", "0", "1024x768x24",
                                                   "-nolisten", "tcp", "-noreset"});
            if (!xserver.waitForStarted())
                continue;
            display = QStringLiteral(":%1").arg(n);
            // Ready once a client can talk to it.
            QTRY_VERIFY_WITH_TIMEOUT(!xdotool({"getdisplaygeometry"}).isEmpty()
                                         || xserver.state() != QProcess::Running,
                                     10000);
            if (xserver.state() != QProcess::Running)
                display.clear();
        }
        QVERIFY2(!display.isEmpty(), "could not start Xvfb");
    }

    void cleanupTestCase()
    {
        xserver.terminate();
        if (!xserver.waitForFinished(5000))
            xserver.kill();
    }

    void windowOnScreen()
    {
        QProcess wizard;
        QByteArray id;
        startWizard(wizard, {}, id);
        QVERIFY(!id.isEmpty());
        const QByteArray geometry = xdotool({"getwindowgeometry", QString::fromLatin1(id)});
        QVERIFY2(geometry.contains("Geometry: 800x400"), geometry.constData());
        xdotool({"key", "Escape"}); // a wizard closes on Escape as on its title bar
        finish(wizard);
        QCOMPARE(wizard.exitStatus(), QProcess::NormalExit);
        QCOMPARE(wizard.exitCode(), 0);
    }

    // Presses Return until the wizard ends (the first presses may arrive
    // before the new window has the keyboard).
    void returnUntilEnd(QProcess& wizard)
    {
        for (int press = 0; press < 20 && wizard.state() == QProcess::Running; ++press) {
            xdotool({"key", "Return"});
            wizard.waitForFinished(300);
        }
        finish(wizard);
    }

    // Enter on each page until Finish, against a real vendor server and a
    // real helper: the one offered package is downloaded, installed into
    // the helper's install root, and the run ends with status 0 on the
    // finished page. No browser exists here, which must not keep the wizard
    // open.
    void keyboardWalkToTheEnd()
    {
        VendorServer server;
        QVERIFY(server.makeInstallablePackage(QStringLiteral("scenes.pkg"), QStringLiteral("Sample Scenes")));
        server.writeCatalogFile(QStringLiteral("manifest.xml"), R"(<Manifest><ProductInfo>
            <Name>VellumaSampleScenes-22.0.pkg</Name><SimpleName>Velluma Sample Scenes</SimpleName>
            <BuildID>1</BuildID><FileSize>@SIZE:scenes.pkg@</FileSize><DefaultBehavior>show</DefaultBehavior>
            <DownloadURL>@BASE@/packages/scenes.pkg</DownloadURL></ProductInfo></Manifest>)");
        QVERIFY(server.start({QStringLiteral("--tls"), QStringLiteral("chain")}));
        QTemporaryDir machine;
        HelperProcess helper;
        QVERIFY(helper.Start(QStringLiteral(VLUM_HELPER), {},
                             {QStringLiteral("VLUM_INSTALL_ROOT=") + machine.path()}));
        QVERIFY(QDir().mkpath(home.filePath(QStringLiteral("Downloads"))));

        QProcess wizard;
        QByteArray id;
        startWizard(wizard,
                    {"-user", "demo", "-pass", "velluma", "-debug", "-manifestserver",
                     QStringLiteral("127.0.0.1:%1").arg(server.port), "-manifestserverscheme", "https"},
                    id,
                    {QStringLiteral("VLUM_HELPER_SOCKET=") + helper.SocketPath(),
                     QStringLiteral("VLUM_PRODUCT_ROOT=") + machine.filePath(QStringLiteral("opt/Oktavo"))});
        returnUntilEnd(wizard);
        const QByteArray err = wizard.readAllStandardError();
        QVERIFY2(wizard.exitCode() == 0 && err.contains("]: Debug: Finished!\n"), err.right(4000).constData());
        QVERIFY(QFile::exists(home.filePath(QStringLiteral("Downloads/VellumaSampleScenes-22.0.pkg"))));
        QVERIFY2(QFile::exists(machine.filePath(QStringLiteral("opt/Oktavo/Sample Scenes/README.txt"))),
                 qPrintable(helper.Log()));
    }
};

QTEST_GUILESS_MAIN(TestSession)
#include "tst_session.moc"
