// Configuration as a whole process sees it: the settings file lookup, the
// environment, the command line and their order, and the usage text.

#include "../support/ChildRun.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const QString kServer = QStringLiteral("www.oktavo.com");

void writeFile(const QString& path, const QByteArray& text)
{
    QFile file(path);
    QVERIFY2(file.open(QIODevice::WriteOnly), qPrintable(path));
    file.write(text);
}

} // namespace

class TestConfig : public QObject
{
    Q_OBJECT

private:
    QScopedPointer<QTemporaryDir> scratch;
    QString home;
    QString bundle;
    QString probe;

private slots:
    // Each case gets a fresh home folder and a fresh bundle holding a copy of
    // the probe in bin/, so a settings file can sit in either place.
    void init()
    {
        scratch.reset(new QTemporaryDir);
        QVERIFY(scratch->isValid());
        home = scratch->filePath(QStringLiteral("home"));
        bundle = scratch->filePath(QStringLiteral("bundle"));
        QVERIFY(QDir().mkpath(home));
        QVERIFY(QDir().mkpath(bundle + QStringLiteral("/bin")));
        probe = bundle + QStringLiteral("/bin/dlrprobe");
        QVERIFY(QFile::copy(QStringLiteral(VLUM_PROBE), probe));
    }

    void sources_data()
    {
        QTest::addColumn<QByteArray>("homeIni");
        QTest::addColumn<QByteArray>("bundleIni");
        QTest::addColumn<bool>("resourcesFolder");
        QTest::addColumn<QStringList>("env");
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QByteArray>("printed");
        QTest::addColumn<QStringList>("expected");

        const QByteArray none;
        const QStringList noEnv;
        const QStringList noArgs;

        QTest::newRow("defaults") << none << none << true << noEnv << noArgs << QByteArray()
            << QStringList{QStringLiteral("manifestServer=") + kServer, "manifestServerScheme=https",
                           "manifestUrl=forum/currentproducts.php",
                           QStringLiteral("manifestURL=https://%1/forum/currentproducts.php").arg(kServer),
                           QStringLiteral("successURL=https://%1/view/Install-Success").arg(kServer),
                           "logLevel=2", "dumpManifest=false", "user=", "pass=", "settingsFile=",
                           "transferTimeout=30"};

        QTest::newRow("home file hides the bundle's, keys not merged")
            << QByteArray("user=fromhome\n") << QByteArray("user=frombundle\npass=bundlepass\n") << true
            << noEnv << noArgs << QByteArray() << QStringList{"user=fromhome", "pass="};

        QTest::newRow("bundle file read when home has none")
            << none << QByteArray("user=u1\npass=p1\nmanifestserver=alt.example\nmanifesturl=x/y.php\n")
            << true << noEnv << noArgs << QByteArray()
            << QStringList{"user=u1", "pass=p1", "manifestServer=alt.example",
                           "manifestServerScheme=https", // the key, unlike the option, keeps the scheme
                           "manifestURL=https://alt.example/x/y.php"};

        QTest::newRow("no Resources folder: parent folder searched")
            << none << QByteArray("user=inparent\n") << false << noEnv << noArgs << QByteArray()
            << QStringList{"user=inparent"};

        QTest::newRow("manifest file keys")
            << QByteArray("manifest=/tmp/a.xml\nappendmanifest=/tmp/b.xml\nmanifestserverscheme=http\n")
            << none << true << noEnv << noArgs << QByteArray()
            << QStringList{"alternateManifestFile=/tmp/a.xml", "appendManifestFile=/tmp/b.xml",
                           QStringLiteral("manifestURL=http://%1/forum/currentproducts.php").arg(kServer)};

        QTest::newRow("dumpManifest 1 is on") << QByteArray("dumpManifest=1\n") << none << true << noEnv
                                              << noArgs << QByteArray() << QStringList{"dumpManifest=true"};
        QTest::newRow("dumpManifest true is off") << QByteArray("dumpManifest=true\n") << none << true
                                                  << noEnv << noArgs << QByteArray()
                                                  << QStringList{"dumpManifest=false"};
        QTest::newRow("dumpManifest 0 is off, option turns it on")
            << QByteArray("dumpManifest=0\n") << none << true << noEnv << QStringList{"-dumpManifest"}
            << QByteArray() << QStringList{"dumpManifest=true"};

        QTest::newRow("debug key: presence alone") << QByteArray("debug=0\n") << none << true << noEnv
                                                   << noArgs << QByteArray() << QStringList{"logLevel=0"};
        QTest::newRow("empty debug variable still counts")
            << none << none << true << QStringList{"VLUMINSTALLER_DEBUG_LOG="} << noArgs << QByteArray()
            << QStringList{"logLevel=0"};
        QTest::newRow("-debug option") << none << none << true << noEnv << QStringList{"-debug"}
                                       << QByteArray() << QStringList{"logLevel=0"};

        QTest::newRow("command line beats settings file")
            << QByteArray("user=fromfile\npass=filepass\n") << none << true << noEnv
            << QStringList{"-user", "fromargs"} << QByteArray()
            << QStringList{"user=fromargs", "pass=filepass"};

        QTest::newRow("-manifestserver then -manifestserverscheme https")
            << none << none << true << noEnv
            << QStringList{"-manifestserver", "h.example", "-manifestserverscheme", "https"} << QByteArray()
            << QStringList{"manifestServerScheme=https", "manifestURL=https://h.example/forum/currentproducts.php"};
        QTest::newRow("-manifestserverscheme https then -manifestserver")
            << none << none << true << noEnv
            << QStringList{"-manifestserverscheme", "https", "-manifestserver", "h.example"} << QByteArray()
            << QStringList{"manifestServerScheme=http", "manifestURL=http://h.example/forum/currentproducts.php"};
        QTest::newRow("-manifestserver resets the file's scheme")
            << QByteArray("manifestserverscheme=https\n") << none << true << noEnv
            << QStringList{"-manifestserver", "h.example"} << QByteArray()
            << QStringList{"manifestServerScheme=http"};

        QTest::newRow("trailing -pass is unknown, pass unchanged")
            << QByteArray("pass=keep\n") << none << true << noEnv << QStringList{"-pass"}
            << QByteArray("Unknown option -pass\n\n") << QStringList{"pass=keep"};
        QTest::newRow("value options take the next entry even if it looks like an option")
            << none << none << true << noEnv << QStringList{"-user", "-help", "-pass", "-debug"}
            << QByteArray() << QStringList{"user=-help", "pass=-debug", "logLevel=2"};
        QTest::newRow("unknown options reported, stray entries skipped silently")
            << none << none << true << noEnv
            << QStringList{"stray", "", "-bogus", "-USER", "x", "-manifest", "m.xml", "-appendmanifest", "a.xml",
                           "-manifesturl", "p.php"}
            << QByteArray("Unknown option -bogus\n\nUnknown option -USER\n\n")
            << QStringList{"user=", "alternateManifestFile=m.xml", "appendManifestFile=a.xml", "manifestUrl=p.php"};

        QTest::newRow("wrong-typed values read as text, quietly")
            << QByteArray("user=@ByteArray(raw)\npass=a,b\ndumpManifest=@Variant(\\0\\0\\0\\x7f)\n") << none
            << true << noEnv << noArgs << QByteArray()
            << QStringList{"user=raw", "pass=a,b", "dumpManifest=false"};
        QTest::newRow("INI comments, quotes, escapes, continued lines and sections")
            << QByteArray("; user=commented\nuser = \"a ; b\" ; trailing\npass=\\x41\\102 \\\n c\n[Other]\nmanifest=no.xml\n"
                          "[general]\nmanifesturl=one, two\n")
            << none << true << noEnv << noArgs << QByteArray()
            << QStringList{"user=a ; b", "pass=AB  c", "alternateManifestFile=", "manifestUrl=one,two"};
        QTest::newRow("a byte-order mark stays in the first key")
            << QByteArray("\xef\xbb\xbfuser=hidden\npass=p\n") << none << true << noEnv << noArgs << QByteArray()
            << QStringList{"user=", "pass=p"};
        // Decoding would build whatever type the bytes name (a polygon here,
        // whose reader brought the program down).
        QTest::newRow("Qt's binary encodings not decoded")
            << QByteArray("user=@Variant(\\0\\0\\0Genw)\npass=@Rect(1 2 3 4)\nmanifesturl=@@x\n=@Variant(\\0\\0\\0Genw)\n")
            << none << true << noEnv << noArgs << QByteArray() << QStringList{"user=", "pass=", "manifestUrl=@x"};
        QTest::newRow("transfertimeout in seconds") << QByteArray("transfertimeout=5\n") << none << true << noEnv
                                                    << noArgs << QByteArray() << QStringList{"transferTimeout=5"};
        QTest::newRow("transfertimeout capped at a day") << QByteArray("transfertimeout=999999999\n") << none << true
                                                         << noEnv << noArgs << QByteArray()
                                                         << QStringList{"transferTimeout=86400"};
        QTest::newRow("transfertimeout not above zero keeps the default")
            << QByteArray("transfertimeout=-4\n") << none << true << noEnv << noArgs << QByteArray()
            << QStringList{"transferTimeout=30"};
    }

    void sources()
    {
        QFETCH(QByteArray, homeIni);
        QFETCH(QByteArray, bundleIni);
        QFETCH(bool, resourcesFolder);
        QFETCH(QStringList, env);
        QFETCH(QStringList, args);
        QFETCH(QByteArray, printed);
        QFETCH(QStringList, expected);

        if (resourcesFolder)
            QVERIFY(QDir().mkpath(bundle + QStringLiteral("/Resources")));
        const QString bundleIniPath =
            bundle + (resourcesFolder ? QStringLiteral("/Resources") : QString()) + QStringLiteral("/vluminstaller.ini");
        if (!homeIni.isNull())
            writeFile(home + QStringLiteral("/vluminstaller.ini"), homeIni);
        if (!bundleIni.isNull())
            writeFile(bundleIniPath, bundleIni);

        const ChildRun run = runChild(probe, args, home, env);
        QCOMPARE(run.exitStatus, QProcess::NormalExit);
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.outBeforeConfig(), printed);

        const QMap<QString, QString> config = run.config();
        QVERIFY2(!config.isEmpty(), run.out.constData());
        for (const QString& line : expected) {
            const int eq = line.indexOf(QLatin1Char('='));
            const QString key = line.left(eq);
            QVERIFY2(config.contains(key), qPrintable(key));
            QCOMPARE(config.value(key), line.mid(eq + 1));
        }
        if (!homeIni.isNull())
            QCOMPARE(config.value(QStringLiteral("settingsFile")), home + QStringLiteral("/vluminstaller.ini"));
        else if (!bundleIni.isNull())
            QCOMPARE(QFileInfo(config.value(QStringLiteral("settingsFile"))).canonicalFilePath(),
                     QFileInfo(bundleIniPath).canonicalFilePath());
    }

    // The real program prints the usage text byte for byte and leaves with
    // status 0 before logging starts and before any window.
    void usage_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QByteArray>("before");
        QTest::newRow("-help") << QStringList{"-help"} << QByteArray();
        QTest::newRow("--help") << QStringList{"--help"} << QByteArray();
        QTest::newRow("-h") << QStringList{"-h"} << QByteArray();
        QTest::newRow("after other options")
            << QStringList{"-debug", "-user", "u", "-nonsense", "-h", "-alsoignored"}
            << QByteArray("Unknown option -nonsense\n\n");
    }

    void usage()
    {
        QFETCH(QStringList, args);
        QFETCH(QByteArray, before);

        QFile expectedFile(QStringLiteral(VLUM_SOURCE_DIR "/tests/fixtures/usage.txt"));
        QVERIFY(expectedFile.open(QIODevice::ReadOnly));
        const QByteArray expected = before + expectedFile.readAll();

        // Even with debug logging asked for, nothing reaches the log.
        const ChildRun run = runChild(QStringLiteral(VLUM_INSTALLER), args, home,
                                      {QStringLiteral("VLUMINSTALLER_DEBUG_LOG=1")});
        QCOMPARE(run.exitStatus, QProcess::NormalExit);
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out, expected);
        QVERIFY2(!run.err.contains("Velluma Installer["), run.err.constData());
    }
};

QTEST_GUILESS_MAIN(TestConfig)
#include "tst_config.moc"
