// The log filter and format as a whole process shows them on standard error
// (the system log copies every entry there), and the network error texts.

#include "../support/ChildRun.h"

#include "DlrNetworkError.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

class TestLogging : public QObject
{
    Q_OBJECT

private slots:
    void levelFilter_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QStringList>("env");
        QTest::addColumn<QByteArray>("homeIni");
        QTest::addColumn<bool>("debugShown");

        QTest::newRow("level 2 by default") << QStringList() << QStringList() << QByteArray() << false;
        QTest::newRow("-debug") << QStringList{"-debug"} << QStringList() << QByteArray() << true;
        QTest::newRow("environment") << QStringList() << QStringList{"VLUMINSTALLER_DEBUG_LOG="} << QByteArray()
                                     << true;
        QTest::newRow("settings key") << QStringList() << QStringList() << QByteArray("debug=false\n") << true;
    }

    void levelFilter()
    {
        QFETCH(QStringList, args);
        QFETCH(QStringList, env);
        QFETCH(QByteArray, homeIni);
        QFETCH(bool, debugShown);

        QTemporaryDir home;
        QVERIFY(home.isValid());
        if (!homeIni.isEmpty()) {
            QFile ini(home.filePath(QStringLiteral("vluminstaller.ini")));
            QVERIFY(ini.open(QIODevice::WriteOnly));
            ini.write(homeIni);
        }
        const ChildRun run = runChild(QStringLiteral(VLUM_PROBE), args, home.path(),
                                      env + QStringList{QStringLiteral("DLRPROBE_LOG=1")});
        QCOMPARE(run.exitStatus, QProcess::NormalExit);
        QCOMPARE(run.exitCode, 0);

        // Only our log lines: the toolkit may add its own chatter on stderr.
        const QString prefix = QStringLiteral("Velluma Installer[%1]: ").arg(run.pid);
        QStringList logged;
        for (const QByteArray& line : run.err.split('\n')) {
            const QString text = QString::fromLocal8Bit(line);
            if (text.startsWith(QLatin1String("Velluma Installer[")))
                logged << text;
        }
        for (const QString& line : logged)
            QVERIFY2(line.startsWith(prefix), qPrintable(line)); // ident and this process's id

        QStringList expected;
        if (debugShown)
            expected << prefix + QStringLiteral("Debug: probe debug line")
                     << prefix + QStringLiteral("Warning: probe warning line");
        // Critical and info are never filtered; once the application object
        // is gone nothing is filtered any more.
        expected << prefix + QStringLiteral("Critical: probe critical line")
                 << prefix + QStringLiteral("Info: probe info line")
                 << prefix + QStringLiteral("Debug: probe debug after shutdown");
        QCOMPARE(logged, expected);
    }

    void networkErrorTexts_data()
    {
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("text");
        QTest::newRow("0") << 0 << "no error condition.";
        QTest::newRow("1") << 1 << "the remote server refused the connection (the server is not accepting requests)";
        QTest::newRow("203") << 203 << "the remote content was not found at the server (similar to HTTP error 404)";
        QTest::newRow("399") << 399
                             << "a breakdown in protocol was detected (parsing error, invalid or unexpected "
                                "responses, etc.)";
        // Codes the table does not name, including ones the toolkit knows.
        for (int code : {8, 9, 10, 11, 100, 200, 206, 207, 401, 499, 12345, -1})
            QTest::newRow(qPrintable(QStringLiteral("unknown %1").arg(code)))
                << code << QStringLiteral("Unknown network error %1").arg(code);
    }

    void networkErrorTexts()
    {
        QFETCH(int, code);
        QFETCH(QString, text);
        QCOMPARE(DlrNetworkError(static_cast<QNetworkReply::NetworkError>(code)), text);
    }
};

QTEST_GUILESS_MAIN(TestLogging)
#include "tst_logging.moc"
