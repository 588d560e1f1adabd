// Configuration as a whole process sees it: the settings file lookup, the
// environment, the command line and their order, the usage text, and the log
// filter and format on standard error (the system log copies every entry
// there); then the texts the user reads of network errors, sizes and
// transfers.

#include "../support/ChildRun.h"
#include "../support/ProductTree.h"

#include "DlrApp.h"
#include "DlrHumanBytes.h"
#include "DlrNetworkError.h"
#include "DlrOptions.h"

#include <QtTest>

class TestConfig : public QObject
{
    Q_OBJECT

    QScopedPointer<QTemporaryDir> scratch;
    QString home;
    QString bundle;

private slots:
    // Each case gets a fresh home folder and a fresh bundle holding a copy of
    // the probe in bin/, so a settings file can sit in either place.
    void init()
    {
        scratch.reset(new QTemporaryDir);
        home = scratch->filePath("home");
        bundle = scratch->filePath("bundle");
        QVERIFY(QDir().mkpath(home) && QDir().mkpath(bundle + "/bin"));
        QVERIFY(QFile::copy(VLUM_PROBE, bundle + "/bin/dlrprobe"));
    }

    void sources_data()
    {
        QTest::addColumn<QByteArray>("homeIni");
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QStringList>("expected"); // lines the probe must print
        QTest::addColumn<QByteArray>("printed");   // what the option parser said
        QTest::addColumn<QByteArray>("bundleIni");
        QTest::addColumn<QString>("bundleFolder"); // where in the bundle it lies
        QTest::addColumn<QStringList>("env");
        const auto row = [](const char* tag, const QByteArray& homeIni, const QStringList& args,
                            const QStringList& expected, const QByteArray& printed = {}, const QByteArray& bundleIni = {},
                            const QString& folder = "/Resources", const QStringList& env = {}) {
            QTest::newRow(tag) << homeIni << args << expected << printed << bundleIni << folder << env;
        };
        row("defaults", {}, {},
            {"manifestServer=www.oktavo.com", "manifestServerScheme=https", "manifestUrl=forum/currentproducts.php",
             "manifestURL=https://www.oktavo.com/forum/currentproducts.php",
             "successURL=https://www.oktavo.com/view/Install-Success", "logLevel=2", "dumpManifest=false", "user=",
             "pass=", "transferTimeout=30"});
        row("home file hides the bundle's, keys not merged", "user=fromhome\n", {}, {"user=fromhome", "pass="}, {},
            "user=frombundle\npass=bundlepass\n");
        // The key, unlike the option, keeps the scheme.
        row("bundle file read when home has none", {}, {},
            {"user=u1", "pass=p1", "manifestServer=alt.example", "manifestServerScheme=https",
             "manifestURL=https://alt.example/x/y.php"},
            {}, "user=u1\npass=p1\nmanifestserver=alt.example\nmanifesturl=x/y.php\n");
        row("no Resources folder: parent folder searched", {}, {}, {"user=inparent"}, {}, "user=inparent\n", "");
        row("manifest file keys", "manifest=/tmp/a.xml\nappendmanifest=/tmp/b.xml\nmanifestserverscheme=http\n", {},
            {"alternateManifestFile=/tmp/a.xml", "appendManifestFile=/tmp/b.xml",
             "manifestURL=http://www.oktavo.com/forum/currentproducts.php"});
        row("dumpManifest 1 is on", "dumpManifest=1\n", {}, {"dumpManifest=true"});
        row("dumpManifest true is off", "dumpManifest=true\n", {}, {"dumpManifest=false"});
        row("dumpManifest 0 is off, option turns it on", "dumpManifest=0\n", {"-dumpManifest"}, {"dumpManifest=true"});
        row("debug key: presence alone", "debug=false\n", {}, {"logLevel=0"});
        row("empty debug variable still counts", {}, {}, {"logLevel=0"}, {}, {}, "/Resources",
            {"VLUMINSTALLER_DEBUG_LOG="});
        row("-debug option", {}, {"-debug"}, {"logLevel=0"});
        row("command line beats settings file", "user=fromfile\npass=filepass\n", {"-user", "fromargs"},
            {"user=fromargs", "pass=filepass"});
        // The process list shows no password once read.
        row("blanks around a password are kept", {}, {"-user", "alice", "-pass", " s3cret ", "-pass", "p"},
            {"pass=p", "arguments=-user alice -pass xxxxxxxx -pass x"});
        row("-manifestserver then -manifestserverscheme https", {},
            {"-manifestserver", "h.example", "-manifestserverscheme", "https"},
            {"manifestServerScheme=https", "manifestURL=https://h.example/forum/currentproducts.php"});
        row("-manifestserverscheme https then -manifestserver", {},
            {"-manifestserverscheme", "https", "-manifestserver", "h.example"},
            {"manifestServerScheme=http", "manifestURL=http://h.example/forum/currentproducts.php"});
        row("-manifestserver resets the file's scheme", "manifestserverscheme=https\n", {"-manifestserver", "h.example"},
            {"manifestServerScheme=http"});
        row("trailing -pass is unknown, pass unchanged", "pass=keep\n", {"-pass"}, {"pass=keep"},
            "Unknown option -pass\n\n");
        row("value options take the next entry even if it looks like an option", {},
            {"-user", "-help", "-pass", "-debug"}, {"user=-help", "pass=-debug", "logLevel=2"});
        // Those of the run without a window are unknown without -unattended.
        row("unknown options reported, stray entries skipped silently", {},
            {"stray", "", "-bogus", "-USER", "x", "-products", "p", "-json", "-cafile", "c", "-manifest", "m.xml",
             "-appendmanifest", "a.xml", "-manifesturl", "p.php"},
            {"user=", "alternateManifestFile=m.xml", "appendManifestFile=a.xml", "manifestUrl=p.php"},
            "Unknown option -bogus\n\nUnknown option -USER\n\nUnknown option -products\n\nUnknown option -json\n\n"
            "Unknown option -cafile\n\n");
        // An unquoted comma makes a list, which QSettings gives as no text.
        row("wrong-typed values read as text, quietly",
            "user=@ByteArray(raw)\npass=a, b\nmanifesturl=a,\"b,c\"\nmanifest=\"a, b\"\n"
            "dumpManifest=@Variant(\\0\\0\\0\\x7f)\n",
            {}, {"user=raw", "pass=", "manifestUrl=", "alternateManifestFile=a, b", "dumpManifest=false"});
        row("INI comments, quotes, escapes, continued lines and sections",
            "; user=commented\nuser = \"a ; b\" ; trailing\npass=\\x41\\102 \\\n c\n[Other]\nmanifest=no.xml\n"
            "[general]\nmanifesturl=one\n",
            {}, {"user=a ; b", "pass=AB  c", "alternateManifestFile=", "manifestUrl=one"});
        row("a byte-order mark stays in the first key", "\xef\xbb\xbfuser=hidden\npass=p\n", {}, {"user=", "pass=p"});
        // Decoding would build whatever type the bytes name (a polygon here,
        // whose reader brought the program down).
        row("Qt's binary encodings not decoded",
            "user=@Variant(\\0\\0\\0Genw)\npass=@Rect(1 2 3 4)\nmanifesturl=@@x\n=@Variant(\\0\\0\\0Genw)\n", {},
            {"user=", "pass=", "manifestUrl=@x"});
        row("transfertimeout in seconds", "transfertimeout=5\n", {}, {"transferTimeout=5"});
        row("transfertimeout capped at a day", "transfertimeout=999999999\n", {}, {"transferTimeout=86400"});
        row("transfertimeout not above zero keeps the default", "transfertimeout=-4\n", {}, {"transferTimeout=30"});
    }

    // The probe prints its configuration, then logs one line of each kind
    // and a debug line after the application object is gone.
    void sources()
    {
        QFETCH(QByteArray, homeIni);
        QFETCH(QStringList, args);
        QFETCH(QStringList, expected);
        QFETCH(QByteArray, printed);
        QFETCH(QByteArray, bundleIni);
        QFETCH(QString, bundleFolder);
        QFETCH(QStringList, env);
        const QString bundleIniPath = bundle + bundleFolder + "/vluminstaller.ini";
        ProductTree files(scratch->path());
        QVERIFY(homeIni.isNull() || files.file("home/vluminstaller.ini", homeIni));
        QVERIFY(bundleIni.isNull() || files.file("bundle" + bundleFolder + "/vluminstaller.ini", bundleIni));

        const ChildRun run = runChild(bundle + "/bin/dlrprobe", args, home, env << "DLRPROBE_LOG=1");
        QVERIFY2(run.exitStatus == QProcess::NormalExit && run.exitCode == 0, run.err.constData());
        QCOMPARE(run.outBeforeConfig(), printed);
        const QByteArray config = run.out.mid(run.out.indexOf(kConfigMarker));
        const QString settings = homeIni.isNull() ? bundleIni.isNull() ? "" : bundleIniPath : home + "/vluminstaller.ini";
        for (const QString& line : expected + QStringList{"settingsFile=" + settings})
            QVERIFY2(config.contains('\n' + line.toLocal8Bit() + '\n'), qPrintable(line + " not in\n" + config));

        // Our own log lines (the toolkit may add its chatter), each with the
        // ident and this process's id; debug and warning only at level 0,
        // critical and info always, and nothing once the filter's object is gone.
        const QString prefix = QStringLiteral("Velluma Installer[%1]: ").arg(run.pid);
        const QStringList logged = QString::fromLocal8Bit(run.err).split('\n').filter(QRegularExpression(
            "^Velluma Installer\\[")).replaceInStrings(prefix, QString());
        QStringList wanted{"Critical: probe critical line", "Info: probe info line", "Debug: probe debug after shutdown"};
        if (config.contains("\nlogLevel=0\n"))
            wanted = QStringList{"Debug: probe debug line", "Warning: probe warning line"} + wanted;
        QCOMPARE(logged, wanted);
    }

    // The real program prints the usage text and leaves with status 0 before
    // logging starts (though asked for) and before any window: over ssh as
    // root, with no display, no platform named and no runtime folder.
    void usage_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QByteArray>("before");
        QTest::newRow("-help") << QStringList{"-help"} << QByteArray();
        QTest::newRow("--help") << QStringList{"--help"} << QByteArray();
        QTest::newRow("-h") << QStringList{"-h"} << QByteArray();
        QTest::newRow("after other options") << QStringList{"-debug", "-user", "u", "-nonsense", "-h", "-alsoignored"}
                                             << QByteArray("Unknown option -nonsense\n\n");
    }

    void usage()
    {
        QFETCH(QStringList, args);
        QFETCH(QByteArray, before);
        const ChildRun run = runChild(VLUM_INSTALLER, args, home,
                                      {"VLUMINSTALLER_DEBUG_LOG=1", "QT_QPA_PLATFORM", "DISPLAY", "WAYLAND_DISPLAY",
                                       "XDG_RUNTIME_DIR"});
        QVERIFY2(run.exitStatus == QProcess::NormalExit && run.exitCode == 0, run.err.constData());
        QFile expected(QStringLiteral(VLUM_SOURCE_DIR "/tests/fixtures/usage.txt")); // the wording as users read it
        QVERIFY(expected.open(QIODevice::ReadOnly));
        QCOMPARE(run.out, before + expected.readAll());
        QCOMPARE(run.err, QByteArray());
    }

    // What the user reads of network errors, sizes and transfers that came up short.
    void texts_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("expected");
        const auto error = [](int code) { return DlrNetworkError(static_cast<QNetworkReply::NetworkError>(code)); };
        QTest::newRow("error 0") << error(0) << "no error condition.";
        QTest::newRow("error 399") << error(399)
                                   << "a breakdown in protocol was detected (parsing error, invalid or unexpected "
                                      "responses, etc.)";
        // Codes the table does not name, including ones the toolkit knows.
        for (int code : {8, 9, 10, 11, 100, 200, 206, 207, 401, 499, 12345, -1})
            QTest::newRow(qPrintable(QStringLiteral("unknown error %1").arg(code)))
                << error(code) << QStringLiteral("Unknown network error %1").arg(code);
        QTest::newRow("1023 bytes") << DlrHumanBytes(1023) << "1023b";
        QTest::newRow("1024 bytes") << DlrHumanBytes(1024) << "1.000KB";
        QTest::newRow("a byte under a MiB") << DlrHumanBytes(1048575) << "1023.999KB";
        QTest::newRow("1.5 MiB") << DlrHumanBytes(1572864) << "1.50MB";
        QTest::newRow("2 GiB") << DlrHumanBytes(Q_INT64_C(2147483648)) << "2.000GB";
        // What the network layer sometimes reports as a success.
        QTest::newRow("closed before the announced end")
            << DlrApp::DownloadShortfall(100000, 300000, 0) << "Download incomplete: 100000 of 300000 bytes";
        QTest::newRow("nothing announced, size unknown") << DlrApp::DownloadShortfall(5, -1, 0) << "";
    }

    void texts()
    {
        QFETCH(QString, text);
        QFETCH(QString, expected);
        QCOMPARE(text, expected);
    }
};

QTEST_GUILESS_MAIN(TestConfig)
#include "tst_config.moc"
