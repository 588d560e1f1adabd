// The helper-backed process against the real daemon, whose one allowed
// program here is a script that behaves according to the package name.

#include "../support/HelperProcess.h"

#include "DlrOSXProcess.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const char kScript[] = R"(#!/bin/sh
case "$5" in
  *ab.pkg) printf 'a\nb' ;;
  *silent.pkg) ;;
  *fails.pkg) echo x; exit 1 ;;
  *stderr.pkg) echo oops >&2 ;;
  *env.pkg) echo "mark=$VLUM_TEST_MARK" ;;
  *slow.pkg) echo first; sleep 0.5; i=0
             while [ $i -lt 200 ]; do echo "line $i"; i=$((i+1)); done
             touch "$5.done" ;;
esac
)";

// Everything a consumer sees, in order; output is read in the slot for
// readyReadStandardOutput, as the download page does.
class Recorder : public QObject
{
public:
    explicit Recorder(DlrOSXProcess* process)
    {
        connect(process, &DlrOSXProcess::started, this, [this] { events << "started"; });
        connect(process, &DlrOSXProcess::readyReadStandardOutput, this, [this, process] {
            events << "out:" + process->readAllStandardOutput();
            const QByteArray again = process->readAllStandardOutput();
            if (!again.isEmpty())
                events << "read twice:" + again;
            const QByteArray err = process->readAllStandardError();
            if (!err.isEmpty())
                events << "err:" + err;
        });
        connect(process, &DlrOSXProcess::readyReadStandardError, this, [this] { events << "stderr signal"; });
        connect(process, &DlrOSXProcess::stateChanged, this, [this] { events << "state signal"; });
        connect(process, &DlrOSXProcess::finished, this, [this](int code, QProcess::ExitStatus status) {
            events << QByteArray("finished:") + QByteArray::number(code) + ":" + QByteArray::number(int(status));
        });
        connect(process, &DlrOSXProcess::error, this,
                [this](QProcess::ProcessError error) { events << "error:" + QByteArray::number(int(error)); });
    }
    QList<QByteArray> events;
};

} // namespace

class TestOSXProcess : public QObject
{
    Q_OBJECT

    QTemporaryDir work;
    QString installer;
    HelperProcess daemon;

    QStringList arguments(const QString& package) const
    {
        return {"-verboseR", "-target", "/", "-package", work.filePath(package)};
    }

private slots:
    void initTestCase()
    {
        QVERIFY(work.isValid());
        installer = work.filePath(QStringLiteral("installer"));
        QFile script(installer);
        QVERIFY(script.open(QIODevice::WriteOnly));
        script.write(kScript);
        script.close();
        QVERIFY(script.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner));
        // The helper opens each package before it runs the installer on it.
        for (const char* name : {"ab", "silent", "fails", "stderr", "env", "slow"})
            QVERIFY(QFile(work.filePath(QLatin1String(name) + QStringLiteral(".pkg"))).open(QIODevice::WriteOnly));
        QVERIFY(daemon.Start(QStringLiteral(VLUM_HELPER), {"--installer", installer}));
        // The process object makes its helper client on first use, from here.
        qputenv("VLUM_HELPER_SOCKET", daemon.SocketPath().toLocal8Bit());
        // Set here too, so that a leak of this process's environment shows.
        qputenv("VLUM_TEST_MARK", "leaked");
    }

    void outputSignals_data()
    {
        QTest::addColumn<QString>("package");
        QTest::addColumn<QList<QByteArray>>("events");
        const QByteArray end = "finished:0:" + QByteArray::number(int(QProcess::NormalExit));
        QTest::newRow("a, line feed, b") << "ab.pkg" << QList<QByteArray>{"started", "out:a\n", "out:b", end};
        QTest::newRow("no output") << "silent.pkg" << QList<QByteArray>{"started", end};
        QTest::newRow("exit status 1 still reads as 0") << "fails.pkg" << QList<QByteArray>{"started", "out:x\n", end};
        QTest::newRow("standard error arrives as output") << "stderr.pkg"
                                                          << QList<QByteArray>{"started", "out:oops\n", end};
        QTest::newRow("environment not passed on") << "env.pkg" << QList<QByteArray>{"started", "out:mark=\n", end};
    }

    // Lines one by one and complete, each read once, then one finished.
    void outputSignals()
    {
        QFETCH(QString, package);
        QFETCH(QList<QByteArray>, events);
        DlrOSXProcess process;
        Recorder recorder(&process);
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("VLUM_TEST_MARK"), QStringLiteral("set"));
        QTest::ignoreMessage(QtDebugMsg, "No environment processing on OS X");
        process.setProcessEnvironment(environment);
        process.start(installer, arguments(package), QIODevice::ReadOnly);
        QTRY_VERIFY_WITH_TIMEOUT(!recorder.events.isEmpty() && recorder.events.last().startsWith("finished"), 5000);
        QTest::qWait(50); // nothing may follow finished
        QCOMPARE(recorder.events, events);
    }

    // A command the helper refuses: FailedToStart, and nothing else.
    void refusedCommand()
    {
        DlrOSXProcess process;
        Recorder recorder(&process);
        QTest::ignoreMessage(QtDebugMsg, QRegularExpression(QStringLiteral("^Failed to launch \"/bin/echo\"")));
        process.start(QStringLiteral("/bin/echo"), {QStringLiteral("hi")}, QIODevice::ReadOnly);
        QTest::qWait(100);
        QCOMPARE(recorder.events, QList<QByteArray>{"error:" + QByteArray::number(int(QProcess::FailedToStart))});
    }

    // The page may drop its process object at any time: the worker must read
    // on to the end without reaching the destroyed object.
    void deleteWhileReading()
    {
        auto process = std::make_unique<DlrOSXProcess>();
        Recorder recorder(process.get());
        process->start(installer, arguments(QStringLiteral("slow.pkg")), QIODevice::ReadOnly);
        QTRY_VERIFY(recorder.events.contains("out:first\n"));
        process.reset();
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(work.filePath(QStringLiteral("slow.pkg.done"))), 5000);
        QTest::qWait(300); // the worker reaches end-of-file and emits into the void
        QCOMPARE(recorder.events, (QList<QByteArray>{"started", "out:first\n"}));

        // The helper and its client are still fine.
        DlrOSXProcess next;
        Recorder after(&next);
        next.start(installer, arguments(QStringLiteral("ab.pkg")), QIODevice::ReadOnly);
        QTRY_COMPARE(after.events.size(), 4);
    }
};

QTEST_GUILESS_MAIN(TestOSXProcess)
#include "tst_osxprocess.moc"
