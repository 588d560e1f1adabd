// The privileged path against real helpers: the daemon on a temporary
// socket, the scripted server for replies the daemon never sends, the
// process object the download page runs the installer through, and other
// users who attack the daemon.

#include "../support/HelperProcess.h"
#include "../support/StderrCapture.h"

#include "DlrOSXProcess.h"
#include "DlrdClient.h"
#include "DlrdClientXPC.h"
#include "DlrdWire.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace {

// The user the helper serves, another user who attacks it, and a user it
// does not serve.
constexpr uid_t kUser = 4242;
constexpr uid_t kOther = 4343;
constexpr uid_t kStranger = 4444;

// The one program the helper may run; what it does depends on the package.
const char kInstaller[] = R"(#!/bin/sh
case "$5" in
  *ab.pkg) printf 'a\nb' ;;
  *silent.pkg) ;;
  *fails.pkg) echo x; exit 1 ;;
  *stderr.pkg) echo oops >&2 ;;
  *env.pkg) echo "mark=$VLUM_TEST_MARK" ;;
  *slow.pkg) echo first; sleep 0.5; i=0
             while [ $i -lt 200 ]; do echo "line $i"; i=$((i+1)); done
             touch "$5.done" ;;
  *) echo "installing $5"; [ "$VLUM_PACKAGE_FD" = 3 ] && cat <&3 ;;
esac
)";

// What one attack tried and how often it got through; printed at the end.
struct AttackTally {
    QString attack;
    int tries;
    int escapes;
};
QList<AttackTally> tallies;

// setpriv's arguments for running `command` as a real process of `uid`.
QStringList asUser(uid_t uid, const QStringList& command)
{
    return QStringList{QStringLiteral("--reuid=%1").arg(uid), QStringLiteral("--regid=%1").arg(uid),
                       QStringLiteral("--clear-groups"), QStringLiteral("--")}
        + command;
}

int runAs(uid_t uid, const QStringList& command, QByteArray* output)
{
    QProcess process;
    process.start(QStringLiteral("setpriv"), asUser(uid, command));
    if (!process.waitForFinished(120000))
        return -1;
    *output = process.readAllStandardOutput();
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

bool chownPath(const QString& path, uid_t uid)
{
    return ::lchown(QFile::encodeName(path).constData(), uid, uid) == 0;
}

bool chmodPath(const QString& path, int mode)
{
    return ::chmod(QFile::encodeName(path).constData(), mode_t(mode)) == 0;
}

QByteArray readToEnd(int fd)
{
    QByteArray all;
    char buffer[256];
    ssize_t n;
    while ((n = ::read(fd, buffer, sizeof buffer)) > 0)
        all.append(buffer, int(n));
    ::close(fd);
    return all;
}

std::unique_ptr<DlrdClient> clientOn(const QString& socketPath)
{
    qputenv("VLUM_HELPER_SOCKET", socketPath.toLocal8Bit());
    return std::make_unique<DlrdClient>();
}

int connectTo(const QString& socketPath)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, socketPath.toLocal8Bit().constData(), sizeof address.sun_path);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// True when the peer closed the connection within two seconds without
// sending anything.
bool closedByPeer(int fd)
{
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 2000) != 1)
        return false;
    char byte;
    return ::read(fd, &byte, 1) == 0;
}

QByteArray frame(const DlrdMessage& message)
{
    QByteArray bytes;
    QVector<int> fds;
    DlrdEncodeFrame(1, message, bytes, fds);
    return bytes;
}

DlrdMessage request(qint64 code)
{
    DlrdMessage message;
    message.SetInt64("message", code);
    return message;
}

// Everything a consumer of the process object sees, in order; output is
// read in the slot for readyReadStandardOutput, as the download page does.
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
    bool Ended() const { return !events.isEmpty() && (events.last().startsWith("finished") || events.last().startsWith("error")); }
    QList<QByteArray> events;
};

} // namespace

class TestHelperd : public QObject
{
    Q_OBJECT

    QTemporaryDir work;
    QString installer;
    HelperProcess daemon;
    std::unique_ptr<DlrdClient> client;
    // Where other users can reach: the attacked helper's allowed folder, a
    // folder of root's they must never read or write in, and the test
    // client they run.
    QTemporaryDir shared{QStringLiteral("/tmp/vlum-shared-XXXXXX")};
    HelperProcess attacked;

    QString attackClient() const { return shared.filePath(QStringLiteral("helperclient")); }
    QString mine() const { return shared.filePath(QStringLiteral("allowed/mine")); }
    QString secret() const { return shared.filePath(QStringLiteral("secret")); }

    // A package file the helper can open for root: in a folder of root's.
    QByteArray pkg(const QString& name) const { return work.filePath(name + QStringLiteral(".pkg")).toLocal8Bit(); }

    QList<QByteArray> installerRun(const QByteArray& package) const
    {
        return {installer.toLocal8Bit(), "-verboseR", "-target", "/", "-package", package};
    }

    QStringList installerArguments(const QString& package) const
    {
        return {"-verboseR", "-target", "/", "-package", QString::fromLocal8Bit(pkg(package))};
    }

private slots:
    void initTestCase()
    {
        // The client's lines go to the system log; LOG_PERROR copies them
        // to standard error, where the tests read them.
        openlog("tst_helperd", LOG_PERROR, LOG_USER);
        QVERIFY(work.isValid() && shared.isValid());
        installer = work.filePath(QStringLiteral("installer"));
        QVERIFY(writeFile(installer, kInstaller) && chmodPath(installer, 0700));
        QVERIFY(QDir(work.path()).mkpath(QStringLiteral("allowed/sub")));
        QVERIFY(writeFile(work.filePath(QStringLiteral("secret")), "secret"));
        QVERIFY(writeFile(work.filePath(QStringLiteral("allowed/readable")), "readable"));
        QVERIFY(QFile::link(work.filePath(QStringLiteral("secret")), work.filePath(QStringLiteral("allowed/link"))));
        QVERIFY(QFile::link(work.path(), work.filePath(QStringLiteral("allowed/up"))));
        QVERIFY(QFile::link(installer, work.filePath(QStringLiteral("installer-link"))));
        // The helper opens each package before it runs the installer on it.
        for (const char* name : {"x", "ab", "silent", "fails", "stderr", "env", "slow"})
            QVERIFY(writeFile(QString::fromLocal8Bit(pkg(QLatin1String(name))), ""));
        QVERIFY(daemon.Start(QStringLiteral(VLUM_HELPER),
                             {"--installer", installer, "--allow-folder", work.filePath(QStringLiteral("allowed"))}));
        StderrCapture log;
        // Also where the process object will find its helper.
        client = clientOn(daemon.SocketPath());
        QCOMPARE(client->Init(), 0);
        // Already answering: used without asking for any rights, and nothing
        // was installed, so nothing says so.
        QVERIFY2(!log.Text().contains(QLatin1String("Installed helper")), qPrintable(log.Text()));
        // Set only now, after the helper started, so that a leak of this
        // process's environment to the installer shows.
        qputenv("VLUM_TEST_MARK", "leaked");

        // The attacked helper serves two other users. The attacker's folder
        // in its allowed folder holds a file, a link to root's secret folder
        // (for the swap race) and a FIFO.
        if (::geteuid() != 0)
            return; // the attacks need root to act as other users
        QVERIFY(QDir().mkpath(mine() + QStringLiteral("/sub")) && QDir().mkpath(secret()));
        QVERIFY(writeFile(secret() + QStringLiteral("/file"), "secret\n") && chmodPath(secret(), 0700));
        QVERIFY(writeFile(mine() + QStringLiteral("/sub/file"), "public\n"));
        QVERIFY(QFile::link(secret(), mine() + QStringLiteral("/evil")));
        QCOMPARE(::mkfifo(QFile::encodeName(mine() + QStringLiteral("/fifo")).constData(), 0666), 0);
        for (const QString& path : {mine(), mine() + QStringLiteral("/sub"), mine() + QStringLiteral("/sub/file"),
                                    mine() + QStringLiteral("/evil"), mine() + QStringLiteral("/fifo")})
            QVERIFY(chownPath(path, kOther));
        QVERIFY(QFile::copy(QStringLiteral(VLUM_HELPERCLIENT), attackClient()));
        for (const QString& path : {shared.path(), shared.filePath(QStringLiteral("allowed")), attackClient()})
            QVERIFY(QFile::setPermissions(path, QFile::permissions(path) | QFileDevice::ExeOther));
        QVERIFY(attacked.Start(QStringLiteral(VLUM_HELPER),
                               {"--installer", installer, "--allow-folder", shared.filePath(QStringLiteral("allowed")),
                                "--allow-uid", QString::number(kUser), "--allow-uid", QString::number(kOther)}));
        QVERIFY(chmodPath(QFileInfo(attacked.SocketPath()).path(), 0701));
    }

    void cleanupTestCase()
    {
        qInfo("%-50s %6s %8s", "attack", "tries", "escapes");
        for (const AttackTally& tally : qAsConst(tallies))
            qInfo("%-50s %6d %8d", qPrintable(tally.attack), tally.tries, tally.escapes);
    }

    void outputSignals_data()
    {
        QTest::addColumn<QString>("program"); // "": the installer
        QTest::addColumn<QString>("package");
        QTest::addColumn<QList<QByteArray>>("events");
        const QByteArray end = "finished:0:" + QByteArray::number(int(QProcess::NormalExit));
        QTest::newRow("a, line feed, b") << "" << "ab" << QList<QByteArray>{"started", "out:a\n", "out:b", end};
        QTest::newRow("no output") << "" << "silent" << QList<QByteArray>{"started", end};
        QTest::newRow("exit status 1 still reads as 0") << "" << "fails" << QList<QByteArray>{"started", "out:x\n", end};
        QTest::newRow("standard error arrives as output") << "" << "stderr"
                                                          << QList<QByteArray>{"started", "out:oops\n", end};
        QTest::newRow("environment not passed on") << "" << "env" << QList<QByteArray>{"started", "out:mark=\n", end};
        QTest::newRow("a command the helper refuses")
            << "/bin/echo" << "ab" << QList<QByteArray>{"error:" + QByteArray::number(int(QProcess::FailedToStart))};
    }

    // Through the process object: lines one by one and complete, each read
    // once, then one finished; or, refused, FailedToStart and nothing else.
    void outputSignals()
    {
        QFETCH(QString, program);
        QFETCH(QString, package);
        QFETCH(QList<QByteArray>, events);
        DlrOSXProcess process;
        Recorder recorder(&process);
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("VLUM_TEST_MARK"), QStringLiteral("set"));
        QTest::ignoreMessage(QtDebugMsg, "No environment processing on OS X");
        process.setProcessEnvironment(environment);
        if (!program.isEmpty())
            QTest::ignoreMessage(QtDebugMsg, QRegularExpression(QStringLiteral("^Failed to launch \"%1\"").arg(program)));
        process.start(program.isEmpty() ? installer : program, installerArguments(package), QIODevice::ReadOnly);
        QTRY_VERIFY_WITH_TIMEOUT(recorder.Ended(), 5000);
        QTest::qWait(50); // nothing may follow the end
        QCOMPARE(recorder.events, events);
    }

    // The page may drop its process object at any time: the worker must read
    // on to the end without reaching the destroyed object.
    void deleteWhileReading()
    {
        auto process = std::make_unique<DlrOSXProcess>();
        Recorder recorder(process.get());
        process->start(installer, installerArguments(QStringLiteral("slow")), QIODevice::ReadOnly);
        QTRY_VERIFY(recorder.events.contains("out:first\n"));
        process.reset();
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(QString::fromLocal8Bit(pkg(QStringLiteral("slow")) + ".done")), 5000);
        QTest::qWait(300); // the worker reaches end-of-file and emits into the void
        QCOMPARE(recorder.events, (QList<QByteArray>{"started", "out:first\n"}));

        // The helper and its client are still fine.
        DlrOSXProcess next;
        Recorder after(&next);
        next.start(installer, installerArguments(QStringLiteral("ab")), QIODevice::ReadOnly);
        QTRY_VERIFY(after.Ended());
        QCOMPARE(after.events.size(), 4);
    }

    void openFile_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<int>("flags");
        QTest::addColumn<bool>("opens");
        QTest::newRow("file in an allowed folder") << "allowed/readable" << O_RDONLY << true;
        QTest::newRow("new file below an allowed folder") << "allowed/sub/new" << (O_WRONLY | O_CREAT | O_EXCL) << true;
        QTest::newRow("outside the allowed folders") << "secret" << O_RDONLY << false;
        QTest::newRow("'..' out of the folder") << "allowed/../secret" << O_RDONLY << false;
        QTest::newRow("link to a file outside") << "allowed/link" << O_RDONLY << false;
        QTest::newRow("through a link to a folder outside") << "allowed/up/secret" << O_RDONLY << false;
        QTest::newRow("relative path") << "../../allowed/readable" << O_RDONLY << false;
    }

    void openFile()
    {
        QFETCH(QString, path);
        QFETCH(int, flags);
        QFETCH(bool, opens);
        const QByteArray full = path.startsWith(QLatin1String("..")) ? path.toLocal8Bit()
                                                                      : work.filePath(path).toLocal8Bit();
        const int fd = client->OpenFile(full.constData(), flags, 0640);
        QCOMPARE(fd >= 0, opens);
        if (!opens)
            return;
        if (flags & O_CREAT) {
            struct stat info;
            QCOMPARE(::stat(full.constData(), &info), 0);
            QCOMPARE(info.st_mode & 0777, mode_t(0640)); // the mode was carried, not defaulted
            ::close(fd);
        } else {
            QCOMPARE(readToEnd(fd), QByteArray("readable"));
        }
    }

    void executeAllowlist_data()
    {
        QTest::addColumn<QList<QByteArray>>("argv");
        QTest::addColumn<bool>("runs");
        const QByteArray program = installer.toLocal8Bit();
        QTest::newRow("the installer run") << installerRun(pkg("x")) << true;
        QTest::newRow("the installer through a link")
            << (QList<QByteArray>{work.filePath(QStringLiteral("installer-link")).toLocal8Bit()} + installerRun(pkg("x")).mid(1))
            << true;
        QTest::newRow("a shell") << QList<QByteArray>{"/bin/sh", "-c", "id"} << false;
        QTest::newRow("a shell in the installer's shape") << (QList<QByteArray>{"/bin/sh"} + installerRun(pkg("x")).mid(1))
                                                          << false;
        QTest::newRow("extra argument") << (installerRun(pkg("x")) << "-dumplog") << false;
        QTest::newRow("another target")
            << QList<QByteArray>{program, "-verboseR", "-target", "/tmp", "-package", pkg("x")} << false;
        QTest::newRow("not a package") << installerRun("/etc/shadow") << false;
        QTest::newRow("an option for a package") << installerRun("-file.pkg") << false;
        QTest::newRow("program alone") << QList<QByteArray>{program} << false;
    }

    // Anything but the installer run must be refused with a reason, never run.
    void executeAllowlist()
    {
        QFETCH(QList<QByteArray>, argv);
        QFETCH(bool, runs);
        StderrCapture log;
        int fd = -1;
        int pid = 0;
        QCOMPARE(client->ExecuteCommand(argv, fd, pid), runs ? 0 : -1);
        if (runs) {
            QVERIFY(pid > 0);
            QCOMPARE(readToEnd(fd), "installing " + pkg("x") + "\n");
        } else {
            QVERIFY2(log.Text().contains(QLatin1String("ExecuteCommand failed: ")), qPrintable(log.Text()));
            QVERIFY(!log.Text().contains(QLatin1String("no error returned")));
        }
        QCOMPARE(client->transport->GetState(), int(DlrdClientXPC::Ready));
    }

    void badFrames_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<bool>("hangUp");
        QTest::addColumn<QString>("logged");
        DlrdMessage textCode;
        textCode.SetString("message", "66001");
        DlrdMessage argvAsText = request(66003);
        argvAsText.SetString("argv", "/bin/sh");
        DlrdMessage openWithoutMode = request(66002);
        openWithoutMode.SetString("filepath", "/etc/passwd");
        openWithoutMode.SetInt64("fileoflag", 0);

        QTest::newRow("oversized") << QByteArray("\x7f\xff\xff\xff", 4) << false << "bad frame length";
        QTest::newRow("code as a string") << frame(textCode) << false << "no integer";
        QTest::newRow("unknown request") << frame(request(1)) << false << "unknown request 1";
        QTest::newRow("argv as a string") << frame(argvAsText) << false << "without argument vector";
        QTest::newRow("open without a mode") << frame(openWithoutMode) << false << "without path, flags or mode";
        QTest::newRow("truncated, then hang-up") << frame(request(66001)).left(9) << true << "truncated frame";
    }

    // A bad frame costs its sender the connection, and nobody else anything.
    void badFrames()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(bool, hangUp);
        QFETCH(QString, logged);
        const int fd = connectTo(daemon.SocketPath());
        QVERIFY(fd >= 0);
        QCOMPARE(::write(fd, bytes.constData(), size_t(bytes.size())), ssize_t(bytes.size()));
        if (hangUp)
            ::shutdown(fd, SHUT_WR);
        QVERIFY(closedByPeer(fd));
        ::close(fd);
        QTRY_VERIFY2(daemon.Log().contains(QLatin1String("dropped connection")) && daemon.Log().contains(logged),
                     qPrintable(daemon.Log()));

        int api = 0;
        const char* build = nullptr;
        QCOMPARE(client->QueryVersion(api, build), 0);
        QVERIFY(daemon.IsRunning());
    }

    // A client that leaves mid-request, or stalls mid-frame, must not stop
    // the helper serving the others.
    void clientsThatMisbehave()
    {
        const int leaving = connectTo(daemon.SocketPath());
        DlrdMessage run = request(66003);
        run.SetStringArray("argv", installerRun(pkg("slow")));
        QVERIFY(DlrdSendMessage(leaving, 5, run));
        ::close(leaving);

        const int stalling = connectTo(daemon.SocketPath());
        const QByteArray half = frame(request(66001)).left(6);
        QCOMPARE(::write(stalling, half.constData(), size_t(half.size())), ssize_t(half.size()));

        int api = 0;
        const char* build = nullptr;
        QCOMPARE(client->QueryVersion(api, build), 0);
        ::close(stalling);

        // One that leaves with its reply unread: its connection is reset.
        const int unread = connectTo(daemon.SocketPath());
        const QByteArray ask = frame(request(66001));
        QCOMPARE(::write(unread, ask.constData(), size_t(ask.size())), ssize_t(ask.size()));
        pollfd replied{unread, POLLIN, 0};
        QCOMPARE(::poll(&replied, 1, 5000), 1);
        ::close(unread);
        QTRY_VERIFY(daemon.Log().contains(QLatin1String("receive failed")));
        QTest::qWait(1000); // the slow child ends; its reply had nowhere to go
        QCOMPARE(client->QueryVersion(api, build), 0);
        QVERIFY(daemon.IsRunning());
    }

    void scriptedReplies_data()
    {
        QTest::addColumn<QStringList>("serverOptions");
        QTest::addColumn<QString>("call");
        QTest::addColumn<int>("result");
        QTest::addColumn<QString>("logged");
        QTest::addColumn<int>("state");
        const int ready = DlrdClientXPC::Ready;
        const int dropped = DlrdClientXPC::Dropped;
        QTest::newRow("version reply after 1500 ms") << QStringList{"--delay-ms", "1500"} << "init" << -1 << "" << ready;
        QTest::newRow("childpid 0") << QStringList{"--childpid", "0"} << "execute" << -1 << "" << ready;
        QTest::newRow("childpid -1 without a reason")
            << QStringList{"--childpid", "-1", "--no-execerror"} << "execute" << -1
            << "ExecuteCommand failed: no error returned" << ready;
        QTest::newRow("childpid -1 with a reason") << QStringList{"--childpid", "-1"} << "execute" << -1
                                                   << "ExecuteCommand failed: scripted failure" << ready;
        QTest::newRow("open reply without a descriptor") << QStringList{"--no-fd"} << "open" << -1 << "" << ready;
        QTest::newRow("execute reply dropped") << QStringList{"--drop", "66003"} << "execute" << -1 << "" << ready;
        QTest::newRow("helper terminating") << QStringList{"--terminate-on", "66003"} << "execute" << -1
                                            << "ExecuteCommand: Connection terminated" << dropped;
        QTest::newRow("helper dies mid-request") << QStringList{"--die-after", "2"} << "version" << -1
                                                 << "Invalid connection. key=XPCErrorDescription" << dropped;
        QTest::newRow("helper gone before the first request") << QStringList() << "init, helper gone" << -1
                                                              << "QueryVersion: Invalid connection" << dropped;
        QTest::newRow("version without build text") << QStringList{"--no-build"} << "version" << 0 << "" << ready;
        QTest::newRow("message nobody asked for")
            << QStringList{"--unsolicited"} << "init" << 0 << "" << int(DlrdClientXPC::UnexpectedEvent);
    }

    void scriptedReplies()
    {
        QFETCH(QStringList, serverOptions);
        QFETCH(QString, call);
        QFETCH(int, result);
        QFETCH(QString, logged);
        QFETCH(int, state);
        HelperProcess server;
        QVERIFY(server.Start(QStringLiteral(VLUM_DLRDSERVER), serverOptions));
        StderrCapture log;
        std::unique_ptr<DlrdClient> own = clientOn(server.SocketPath());

        if (call == QLatin1String("init, helper gone"))
            server.Stop(SIGKILL);
        if (call.startsWith(QLatin1String("init"))) {
            if (result != 0)
                QTest::ignoreMessage(QtDebugMsg, "Could not get a response from helper after install");
            QCOMPARE(own->Init(), result);
            QCOMPARE(own->initialized, result == 0);
        } else {
            QCOMPARE(own->Init(), 0);
        }
        int fd = -1;
        int pid = 0;
        int api = 0;
        const char* build = nullptr;
        if (call == QLatin1String("execute"))
            QCOMPARE(own->ExecuteCommand({"/x/installer"}, fd, pid), result);
        if (call == QLatin1String("open"))
            QCOMPARE(own->OpenFile("/tmp/x", O_RDONLY, 0), result);
        if (call == QLatin1String("version")) {
            QCOMPARE(own->QueryVersion(api, build), result);
            if (result == 0) {
                QCOMPARE(api, 7);
                QVERIFY(build != nullptr); // a missing build text reads as empty, not as a crash
            }
        }
        QTRY_COMPARE(own->transport->GetState(), state);
        if (logged.isEmpty())
            QVERIFY2(!log.Text().contains(QLatin1String("ExecuteCommand failed")), qPrintable(log.Text()));
        else
            QVERIFY2(log.Text().contains(logged), qPrintable(log.Text()));
        // A lost or odd reply leaves the connection usable; once it is
        // dropped, requests are refused before anything is sent.
        if (state == DlrdClientXPC::Ready && !call.startsWith(QLatin1String("init")))
            QCOMPARE(own->QueryVersion(api, build), 0);
        if (state == DlrdClientXPC::Dropped)
            QCOMPARE(own->ExecuteCommand({"/x/installer"}, fd, pid), -1);
    }

    // No helper and no way to ask for rights: fail at once, never prompt or
    // hang, and say nothing about an installation.
    void noHelperNoAuthorisation()
    {
        QTemporaryDir empty;
        const QByteArray path = qgetenv("PATH");
        qputenv("PATH", empty.path().toLocal8Bit());
        StderrCapture log;
        std::unique_ptr<DlrdClient> own = clientOn(empty.filePath(QStringLiteral("nobody.sock")));
        qputenv("PATH", path);
        QCOMPARE(own->transport->GetState(), int(DlrdClientXPC::NotAuthorised));
        QTest::ignoreMessage(QtDebugMsg, "Could not get a response from helper after install");
        QCOMPARE(own->Init(), -1);
        QVERIFY(!log.Text().contains(QLatin1String("Installed helper")));
    }

    void installScript_data()
    {
        QTest::addColumn<bool>("printUnit"); // or install, where no service manager runs
        QTest::addColumn<QString>("programFolder"); // "": the build's own; else made with folderOwner/folderMode
        QTest::addColumn<uint>("folderOwner");
        QTest::addColumn<int>("folderMode");
        QTest::addColumn<QString>("socketName");
        QTest::addColumn<QString>("expected"); // the ExecStart line, or the reason it failed

        QTest::newRow("quotes, specifiers and variables escaped")
            << true << "" << 0u << 0 << "a \"b\" %n $HOME \\c.sock"
            << "ExecStart=\"@HELPER@\" --socket \"@WORK@/a \\\"b\\\" %%n $$HOME \\\\c.sock\" --installer \"@INSTALLER@\"";
        QTest::newRow("a line break in a path") << true << "" << 0u << 0 << "a\nb.sock" << "a control character in a path";
        QTest::newRow("a program in a folder others can write")
            << true << "open" << 0u << 0777 << "s.sock" << "writable by others than root: @FOLDER@";
        QTest::newRow("a program in another user's folder")
            << true << "theirs" << uint(kOther) << 0755 << "s.sock" << "not owned by root: @FOLDER@";
        QTest::newRow("no service manager") << false << "" << 0u << 0 << "s.sock"
                                            << "no service manager: systemd is not running";
    }

    // The service unit names only what root alone can change, and a path
    // cannot smuggle anything into it; where no service manager runs, the
    // script fails with its reason on the last line and writes no service.
    void installScript()
    {
        QFETCH(bool, printUnit);
        QFETCH(QString, programFolder);
        QFETCH(uint, folderOwner);
        QFETCH(int, folderMode);
        QFETCH(QString, socketName);
        QFETCH(QString, expected);
        if (::geteuid() != 0)
            QSKIP("the script refuses to run without administrator rights");
        if (!printUnit && QFileInfo::exists(QStringLiteral("/run/systemd/system")))
            QSKIP("systemd runs here; installing would change the machine");
        QString helper = QStringLiteral(VLUM_HELPER);
        const QString folder = work.filePath(programFolder);
        if (!programFolder.isEmpty()) {
            QVERIFY(QDir().mkpath(folder));
            helper = folder + QStringLiteral("/velluma-installer-helper");
            QFile::remove(helper);
            QVERIFY(QFile::copy(QStringLiteral(VLUM_HELPER), helper));
            QVERIFY(chmodPath(folder, folderMode) && chownPath(folder, folderOwner));
        }
        const QString label = QStringLiteral("com.oktavo.velluma.test.InstallerHelper");
        QProcess script;
        script.start(QStringLiteral(VLUM_LIBEXEC_DIR "/install-helper"),
                     (printUnit ? QStringList{QStringLiteral("--print-unit")} : QStringList())
                         + QStringList{helper, installer, work.filePath(socketName), label});
        QVERIFY(script.waitForFinished(10000));
        expected.replace(QLatin1String("@HELPER@"), QFileInfo(helper).canonicalFilePath())
            .replace(QLatin1String("@INSTALLER@"), QFileInfo(installer).canonicalFilePath())
            .replace(QLatin1String("@WORK@"), QFileInfo(work.path()).canonicalFilePath())
            .replace(QLatin1String("@FOLDER@"), QFileInfo(folder).canonicalFilePath());
        if (expected.startsWith(QLatin1String("ExecStart="))) {
            QCOMPARE(script.exitCode(), 0);
            const QStringList lines = QString::fromUtf8(script.readAllStandardOutput()).split(QLatin1Char('\n'));
            QCOMPARE(lines.filter(QStringLiteral("ExecStart=")), QStringList{expected});
        } else {
            QCOMPARE(script.exitCode(), 1);
            QCOMPARE(QString::fromUtf8(script.readAllStandardError().trimmed().split('\n').last()), expected);
        }
        QVERIFY(!QFileInfo::exists(QStringLiteral("/etc/systemd/system/%1.service").arg(label)));
    }

    void packageOwnership_data()
    {
        QTest::addColumn<uint>("folderOwner");
        QTest::addColumn<int>("folderMode");
        QTest::addColumn<uint>("fileOwner");
        QTest::addColumn<int>("fileMode");
        QTest::addColumn<QString>("via"); // "", "link" (owned by linkOwner), "hard link", "fifo"
        QTest::addColumn<uint>("linkOwner");
        QTest::addColumn<bool>("runs");

        QTest::newRow("the user's own package") << uint(kUser) << 0755 << uint(kUser) << 0644 << "" << 0u << true;
        QTest::newRow("root's package") << 0u << 0755 << 0u << 0644 << "" << 0u << true;
        QTest::newRow("the user's link to another disk") << uint(kUser) << 0755 << uint(kUser) << 0644 << "link"
                                                         << uint(kUser) << true;
        QTest::newRow("the user's package in a shared sticky folder")
            << 0u << 01777 << uint(kUser) << 0644 << "" << 0u << true;
        QTest::newRow("planted by another user in a shared folder")
            << 0u << 01777 << uint(kOther) << 0644 << "" << 0u << false;
        QTest::newRow("in another user's folder") << uint(kOther) << 0755 << uint(kUser) << 0644 << "" << 0u << false;
        QTest::newRow("in a folder others can write") << uint(kUser) << 0777 << uint(kUser) << 0644 << "" << 0u
                                                      << false;
        QTest::newRow("a package others can write") << uint(kUser) << 0755 << uint(kUser) << 0666 << "" << 0u
                                                    << false;
        QTest::newRow("a package with a second name") << uint(kUser) << 0755 << uint(kUser) << 0644 << "hard link"
                                                      << 0u << false;
        QTest::newRow("another user's link on the way") << uint(kUser) << 0755 << uint(kUser) << 0644 << "link"
                                                        << uint(kOther) << false;
        QTest::newRow("a FIFO for a package") << uint(kUser) << 0755 << uint(kUser) << 0644 << "fifo" << 0u << false;
    }

    // The helper installs only a package that the asking user or root owns,
    // in folders nobody else can change, and hands the installer the very
    // file it checked.
    void packageOwnership()
    {
        QFETCH(uint, folderOwner);
        QFETCH(int, folderMode);
        QFETCH(uint, fileOwner);
        QFETCH(int, fileMode);
        QFETCH(QString, via);
        QFETCH(uint, linkOwner);
        QFETCH(bool, runs);
        if (::geteuid() != 0)
            QSKIP("needs root to act as other users");
        QTemporaryDir arena(QStringLiteral("/tmp/vlum-arena-XXXXXX"));
        QVERIFY(QFile::setPermissions(arena.path(), QFile::permissions(arena.path()) | QFileDevice::ExeOther));
        const QString folder = arena.filePath(QStringLiteral("folder"));
        QVERIFY(QDir().mkpath(folder));
        const QString package = folder + QStringLiteral("/p.pkg");
        if (via == QLatin1String("fifo"))
            QCOMPARE(::mkfifo(QFile::encodeName(package).constData(), 0644), 0);
        else
            QVERIFY(writeFile(package, "the package\n"));
        QVERIFY(chmodPath(package, fileMode) && chownPath(package, fileOwner));
        QVERIFY(chmodPath(folder, folderMode) && chownPath(folder, folderOwner));
        QString asked = package;
        if (via == QLatin1String("link")) {
            asked = arena.filePath(QStringLiteral("Downloads/p.pkg"));
            QVERIFY(QFile::link(folder, arena.filePath(QStringLiteral("Downloads"))));
            QVERIFY(chownPath(arena.filePath(QStringLiteral("Downloads")), linkOwner));
        } else if (via == QLatin1String("hard link")) {
            QCOMPARE(::link(QFile::encodeName(package).constData(), QFile::encodeName(package + ".2").constData()), 0);
        }

        QByteArray output;
        const int status =
            runAs(kUser, {attackClient(), attacked.SocketPath(), QStringLiteral("exec"), installer, asked}, &output);
        QCOMPARE(status, runs ? 0 : 1);
        if (runs)
            QCOMPARE(output, "installing " + QFile::encodeName(asked) + "\nthe package\n");
        else
            tallies << AttackTally{QString::fromLatin1(QTest::currentDataTag()), 1, status == 0 ? 1 : 0};
    }

    void attacks_data()
    {
        QTest::addColumn<uint>("uid");
        QTest::addColumn<QStringList>("command"); // the test client's, against the attacked helper
        QTest::addColumn<int>("tries");
        QTest::addColumn<QString>("held"); // the client's first line when the helper held
        const uint other = kOther;
        QTest::newRow("folder swapped for a link (reads, files made)")
            << other << QStringList{"race", "@MINE@", "10000"} << 10000
            << "swaps=10000 reads=[1-9][0-9]* secrets=0"; // some reads got through: the race tested something
        QTest::newRow("FIFO opened for reading through the helper")
            << other << QStringList{"open", "@MINE@/fifo", QString::number(O_RDONLY)} << 1 << "refused";
        QTest::newRow("FIFO opened for writing through the helper")
            << other << QStringList{"open", "@MINE@/fifo", QString::number(O_WRONLY)} << 1 << "refused";
        QTest::newRow("connection flood (64 idle, others locked out)")
            << other << QStringList{"hold", "64", "20"} << 64 << "answered=[1-9][0-9]* refused=[1-9][0-9]*";
        QTest::newRow("connection that never asks (request deadline)")
            << other << QStringList{"silent", "10"} << 1 << "dropped";
        QTest::newRow("a user the helper does not serve")
            << uint(kStranger) << QStringList{"hold", "1", "0"} << 1 << "answered=0 refused=1";
    }

    // Races, floods and stalls from an allowed user, and a user who is not
    // served: never a file read or made outside the allowed folder, never
    // the others locked out while the attack goes on.
    void attacks()
    {
        QFETCH(uint, uid);
        QFETCH(QStringList, command);
        QFETCH(int, tries);
        QFETCH(QString, held);
        if (::geteuid() != 0)
            QSKIP("needs root to act as other users");
        QProcess attack;
        attack.start(QStringLiteral("setpriv"),
                     asUser(uid, QStringList{attackClient(), attacked.SocketPath()}
                                     + command.replaceInStrings(QStringLiteral("@MINE@"), mine())));
        QVERIFY(attack.waitForReadyRead(120000));
        const QString line = QString::fromLatin1(attack.readLine()).trimmed();
        QByteArray output;
        const bool userServed =
            runAs(kUser, {attackClient(), attacked.SocketPath(), QStringLiteral("exec"), installer, pkg("x")}, &output)
            == 0;
        const bool rootServed = clientOn(attacked.SocketPath())->Init() == 0;
        attack.kill();
        attack.waitForFinished();
        const bool refused = QRegularExpression(QStringLiteral("^(?:%1)$").arg(held)).match(line).hasMatch();
        const int made = QDir(secret()).entryList({QStringLiteral("made-*")}).size();
        tallies << AttackTally{QString::fromLatin1(QTest::currentDataTag()), tries,
                               (refused ? 0 : 1) + made + (userServed ? 0 : 1) + (rootServed ? 0 : 1)};
        QVERIFY2(refused, qPrintable(line));
        QCOMPARE(made, 0);
        QVERIFY(userServed);
        QVERIFY(rootServed);
    }

    // Asked to stop, the helper tells the connected clients and ends by
    // itself.
    void stopsWhenAsked()
    {
        QVERIFY(daemon.Stop(SIGTERM));
        QTRY_COMPARE(client->transport->GetState(), int(DlrdClientXPC::Dropped));
    }
};

QTEST_GUILESS_MAIN(TestHelperd)
#include "tst_helperd.moc"
