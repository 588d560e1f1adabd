// The privileged path: the helper's wire format, the daemon on a temporary
// socket, the scripted server for replies the daemon never sends, the
// process object the download page runs the installer through, and other
// users who attack the daemon.

#include "../support/AttackTally.h"
#include "../support/Files.h"
#include "../support/HelperProcess.h"
#include "../support/HelperSocket.h"
#include "../support/StderrCapture.h"

#include "DlrOSXProcess.h"
#include "DlrPlatform.h"
#include "DlrdClient.h"
#include "DlrdClientXPC.h"
#include "DlrdWire.h"

#include <QDir>
#include <QRegularExpression>
#include <QtEndian>
#include <QtTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>

using Descriptors = QVector<std::shared_ptr<const DlrdDescriptor>>;
using Events = QList<QByteArray>;

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
  *held.pkg) while echo held; do sleep 0.1; done ;;
  *) echo "installing $5"; [ "$VLUM_PACKAGE_FD" = 3 ] && cat <&3 ;;
esac
)";

// A frame written by hand, so that each broken one breaks one rule: the
// length, then `hex` (blanks between fields are for the reader).
QByteArray framed(const char* hex)
{
    const QByteArray body = QByteArray::fromHex(hex);
    char length[4];
    qToBigEndian(quint32(body.size()), length);
    return QByteArray(length, 4) + body;
}

QByteArray frame(const DlrdMessage& message, quint32 id = 1)
{
    QByteArray bytes;
    QVector<int> fds;
    return DlrdEncodeFrame(id, message, bytes, fds) ? bytes : QByteArray();
}

DlrdMessage request(qint64 code)
{
    DlrdMessage message;
    message.SetInt64("message", code);
    return message;
}

// lchown, then chmod unless `mode` is -1.
bool setOwner(const QString& path, uid_t uid, int mode = -1)
{
    const QByteArray name = QFile::encodeName(path);
    return ::lchown(name.constData(), uid, uid) == 0 && (mode < 0 || ::chmod(name.constData(), mode_t(mode)) == 0);
}

std::unique_ptr<DlrdClient> clientOn(const QString& socketPath)
{
    qputenv("VLUM_HELPER_SOCKET", socketPath.toLocal8Bit());
    return std::make_unique<DlrdClient>();
}

} // namespace

class TestHelperd : public QObject
{
    Q_OBJECT

    // Reached by other users too: the socket, the test client, the allowed
    // folder with the attacker's folder in it. Root's secret folder beside
    // it they must never read or write in.
    QTemporaryDir work{QStringLiteral("/tmp/vlum-helperd-XXXXXX")};
    QString installer;
    HelperProcess daemon;
    std::unique_ptr<DlrdClient> client;
    AttackTally tally;

    QString at(const char* name) const { return work.filePath(QLatin1String(name)); }
    // A package file the helper can open for root: in a folder of root's.
    QByteArray pkg(const char* name) const { return QFile::encodeName(at(name) + QStringLiteral(".pkg")); }

    // The test client run by setpriv as a real process of `uid`.
    QStringList asUser(uid_t uid, const QStringList& command) const
    {
        return QStringList{QStringLiteral("--reuid=%1").arg(uid), QStringLiteral("--regid=%1").arg(uid),
                           QStringLiteral("--clear-groups"), QStringLiteral("--"), at("helperclient")}
            + command + QStringList{QStringLiteral("--socket"), daemon.SocketPath()};
    }
    int runAs(uid_t uid, const QStringList& command, QByteArray* output = nullptr) const
    {
        QProcess process;
        process.start(QStringLiteral("setpriv"), asUser(uid, command));
        if (!process.waitForFinished(120000))
            return -1;
        if (output)
            *output = process.readAllStandardOutput();
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }

private slots:
    void initTestCase()
    {
        // The client's lines go to the system log; LOG_PERROR copies them
        // to standard error, where the tests read them.
        openlog("tst_helperd", LOG_PERROR, LOG_USER);
        QVERIFY2(::geteuid() == 0, "the attacks need root to act as other users");
        installer = at("installer");
        for (const char* folder : {"allowed/sub", "allowed/mine/sub", "secret"})
            QVERIFY(QDir().mkpath(at(folder)));
        QVERIFY(writeFile(installer, kInstaller) && setOwner(installer, 0, 0700));
        QVERIFY(writeFile(at("secret/file"), "secret\n") && setOwner(at("secret"), 0, 0700));
        QVERIFY(writeFile(at("allowed/readable"), "readable"));
        QVERIFY(QFile::link(at("secret/file"), at("allowed/link")) && QFile::link(work.path(), at("allowed/up")));
        QVERIFY(QFile::link(installer, at("installer-link")));
        // The attacker's folder holds a file, a link to the secret folder
        // (for the swap race) and a FIFO.
        QVERIFY(writeFile(at("allowed/mine/sub/file"), "public\n"));
        QVERIFY(QFile::link(at("secret"), at("allowed/mine/evil")));
        QCOMPARE(::mkfifo(QFile::encodeName(at("allowed/mine/fifo")).constData(), 0666), 0);
        for (const char* path : {"", "/sub", "/sub/file", "/evil", "/fifo"})
            QVERIFY(setOwner(at("allowed/mine") + QLatin1String(path), kOther));
        QVERIFY(QFile::copy(QStringLiteral(VLUM_HELPERCLIENT), at("helperclient")));
        for (const QString& path : {work.path(), at("allowed"), at("helperclient")})
            QVERIFY(QFile::setPermissions(path, QFile::permissions(path) | QFileDevice::ExeOther));
        // The helper opens each package before it runs the installer on it.
        for (const char* name : {"x", "ab", "silent", "fails", "stderr", "env", "slow", "held"})
            QVERIFY(writeFile(QFile::decodeName(pkg(name)), ""));
        QVERIFY(daemon.Start(QStringLiteral(VLUM_HELPER), {"--installer", installer, "--allow-folder", at("allowed"),
                                                           "--allow-uid", QString::number(kUser), "--allow-uid",
                                                           QString::number(kOther), "--allow-uid", "4245",
                                                           "--allow-uid", "4246"}));
        QVERIFY(setOwner(QFileInfo(daemon.SocketPath()).path(), 0, 0701));
        StderrCapture log;
        client = clientOn(daemon.SocketPath()); // also where the process object will find its helper
        QCOMPARE(client->Init(), 0);
        // Already answering: used without asking for any rights, and nothing
        // was installed, so nothing says so.
        QVERIFY2(!log.Text().contains(QLatin1String("Installed helper")), qPrintable(log.Text()));
        // Set only now, after the helper started, so that a leak of this
        // process's environment to the installer shows.
        qputenv("VLUM_TEST_MARK", "leaked");
    }

    // A value that changes on the way (sign, byte order, empty entries,
    // bytes above 0x7f) would reach the helper as a different request.
    // Reading a frame before all of it arrived must wait, never guess; and
    // a frame must not swallow the one after it.
    void wireRoundTrip()
    {
        DlrdMessage message = request(66003);
        message.SetInt64("min", std::numeric_limits<qint64>::min());
        message.SetInt64("negative", -1);
        message.SetString("empty", "");
        message.SetString("text", "Installing Velluma\xe2\x80\xa6");
        message.SetStringArray("argv", {"/x/installer", "", "-package", "/tmp/a b.pkg"});
        message.SetStringArray("none", {});
        const QByteArray first = frame(message, 0xfffffffe);
        const QByteArray stream = first + frame(DlrdMessage(), 2);
        Descriptors none;
        quint32 id = 0;
        DlrdMessage decoded;
        int length = 0;
        for (int cut = 0; cut < first.size(); ++cut)
            QCOMPARE(DlrdDecodeFrame(stream.left(cut), none, id, decoded, length), DlrdDecodeResult::NeedMore);
        QCOMPARE(DlrdDecodeFrame(stream, none, id, decoded, length), DlrdDecodeResult::Complete);
        QCOMPARE(id, 0xfffffffeu);
        QCOMPARE(length, first.size());
        QCOMPARE(frame(decoded, id), first); // every key, kind and value as sent
        // A value read as the wrong kind is absent, not reinterpreted.
        QCOMPARE(decoded.String("message"), nullptr);
        QCOMPARE(decoded.Int64("text"), 0);
        QCOMPARE(DlrdDecodeFrame(stream.mid(length), none, id, decoded, length), DlrdDecodeResult::Complete);
        QCOMPARE(id, 2u);
        QVERIFY(decoded.Keys().isEmpty());

        // A message too big for one frame is refused by the sender, whole.
        message.SetStringArray("argv", {QByteArray(kDlrdMaxFrame, 'x')});
        QByteArray kept("kept");
        QVector<int> fds;
        QVERIFY(!DlrdEncodeFrame(1, message, kept, fds));
        QCOMPARE(kept, QByteArray("kept"));
    }

    void malformedFrames_data()
    {
        QTest::addColumn<QByteArray>("frame");
        QTest::addColumn<int>("descriptorsAvailable");
        // Header: id, descriptor count, entry count. Entry: key length, key,
        // kind (01 integer, 02 string, 03 array, 04 descriptor), value.
        QTest::newRow("length over the limit, judged before the body arrives") << QByteArray("\0\1\0\1", 4) << 0;
        QTest::newRow("length shorter than a header") << framed("61626364") << 0;
        QTest::newRow("unknown value kind") << framed("00000001 0000 0001  0001 6b 09 0000000000000001") << 0;
        QTest::newRow("empty key") << framed("00000001 0000 0001  0000 01 0000000000000001") << 0;
        QTest::newRow("same key twice")
            << framed("00000001 0000 0002  0001 6b 01 0000000000000001  0001 6b 01 0000000000000002") << 0;
        QTest::newRow("string longer than the frame") << framed("00000001 0000 0001  0001 6b 02 00000064 616263") << 0;
        QTest::newRow("NUL inside a string") << framed("00000001 0000 0001  0001 6b 02 00000003 610062") << 0;
        QTest::newRow("array count larger than its elements")
            << framed("00000001 0000 0001  0001 6b 03 ffffffff 00000001 78") << 0;
        QTest::newRow("more entries announced than present") << framed("00000001 0000 0002  0001 6b 01 0000000000000001")
                                                             << 0;
        QTest::newRow("bytes after the last entry") << framed("00000001 0000 0001  0001 6b 01 0000000000000001 00") << 0;
        QTest::newRow("descriptors announced but not received") << framed("00000001 0001 0001  0002 6664 04 0000") << 0;
        QTest::newRow("descriptor index beyond the frame's") << framed("00000001 0001 0001  0002 6664 04 0001") << 2;
        // Such a message could not be carried by a frame again (five entries
        // sharing one overflowed the encoder's limit).
        QTest::newRow("one descriptor named by two entries")
            << framed("00000001 0001 0002  0001 61 04 0000  0001 62 04 0000") << 1;
        QTest::newRow("more descriptors than a frame may carry") << framed("00000001 0005 0000") << 5;
    }

    // Each of these must end the connection rather than be read as
    // something else, wait forever, or read past the buffer.
    void malformedFrames()
    {
        QFETCH(QByteArray, frame);
        QFETCH(int, descriptorsAvailable);
        Descriptors received;
        for (int i = 0; i < descriptorsAvailable; ++i)
            received.append(std::make_shared<const DlrdDescriptor>(::open("/dev/null", O_RDONLY | O_CLOEXEC)));
        quint32 id = 0;
        DlrdMessage decoded;
        int length = 0;
        QString why;
        QCOMPARE(DlrdDecodeFrame(frame, received, id, decoded, length, &why), DlrdDecodeResult::Malformed);
        QVERIFY(!why.isEmpty());
        QCOMPARE(received.size(), descriptorsAvailable); // nothing taken by a frame we refused
    }

    void run_data()
    {
        QTest::addColumn<QStringList>("argv"); // "@" stands for the work folder
        QTest::addColumn<Events>("events");
        const QByteArray end = "finished:0:" + QByteArray::number(int(QProcess::NormalExit));
        const Events refused{"error:" + QByteArray::number(int(QProcess::FailedToStart))};
        const auto run = [](const char* package) {
            return QStringList{"@/installer"} + DlrPlatform::PackageInstallerArguments(QLatin1String(package));
        };
        // The page may drop its process object at any time: the worker must
        // read on to the end without reaching the destroyed object, and the
        // helper and its client serve the rows after it.
        QTest::newRow("dropped while reading") << run("@/slow.pkg") << Events{"started", "out:first\n"};
        QTest::newRow("a, line feed, b") << run("@/ab.pkg") << Events{"started", "out:a\n", "out:b", end};
        QTest::newRow("no output") << run("@/silent.pkg") << Events{"started", end};
        QTest::newRow("exit status 1 still reads as 0") << run("@/fails.pkg") << Events{"started", "out:x\n", end};
        QTest::newRow("standard error arrives as output")
            << run("@/stderr.pkg") << Events{"started", "out:oops\n", end};
        QTest::newRow("environment not passed on") << run("@/env.pkg") << Events{"started", "out:mark=\n", end};
        QTest::newRow("the installer through a link") << (QStringList{"@/installer-link"} + run("@/x.pkg").mid(1))
                                                      << Events{"started", "out:installing @/x.pkg\n", end};
        // Anything but the installer run is refused with a reason, never run.
        QTest::newRow("a shell") << QStringList{"/bin/sh", "-c", "id"} << refused;
        QTest::newRow("a shell in the installer's shape") << (QStringList{"/bin/sh"} + run("@/x.pkg").mid(1)) << refused;
        QTest::newRow("extra argument") << (run("@/x.pkg") << "-dumplog") << refused;
        QTest::newRow("another target")
            << QStringList{"@/installer", "-verboseR", "-target", "/tmp", "-package", "@/x.pkg"} << refused;
        QTest::newRow("not a package") << run("/etc/shadow") << refused;
        QTest::newRow("an option for a package") << run("-file.pkg") << refused;
    }

    // Through the process object, as the download page runs the installer:
    // lines one by one and complete, each read once, then one finished; or,
    // refused, FailedToStart and nothing else.
    void run()
    {
        QFETCH(QStringList, argv);
        QFETCH(Events, events);
        argv.replaceInStrings(QStringLiteral("@"), work.path());
        for (QByteArray& event : events)
            event.replace('@', QFile::encodeName(work.path()));
        const bool refused = events.first().startsWith("error");
        StderrCapture log;
        // Everything the page would see, in order, output read in the slot as
        // the page reads it.
        Events seen;
        auto process = std::make_unique<DlrOSXProcess>();
        DlrOSXProcess* p = process.get();
        connect(p, &DlrOSXProcess::started, this, [&] { seen << "started"; });
        connect(p, &DlrOSXProcess::readyReadStandardOutput, this, [&, p] {
            seen << "out:" + p->readAllStandardOutput();
            // Each byte is read once, and none comes as standard error.
            const QByteArray again = p->readAllStandardOutput() + p->readAllStandardError();
            if (!again.isEmpty())
                seen << "read again:" + again;
        });
        connect(p, &DlrOSXProcess::readyReadStandardError, this, [&] { seen << "stderr signal"; });
        connect(p, &DlrOSXProcess::stateChanged, this, [&] { seen << "state signal"; });
        connect(p, &DlrOSXProcess::finished, this, [&](int code, QProcess::ExitStatus status) {
            seen << "finished:" + QByteArray::number(code) + ":" + QByteArray::number(int(status));
        });
        connect(p, &DlrOSXProcess::error, this,
                [&](QProcess::ProcessError error) { seen << "error:" + QByteArray::number(int(error)); });
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("VLUM_TEST_MARK"), QStringLiteral("set"));
        QTest::ignoreMessage(QtDebugMsg, "No environment processing on OS X");
        process->setProcessEnvironment(environment);
        if (refused)
            QTest::ignoreMessage(QtDebugMsg, QRegularExpression(QStringLiteral("^Failed to launch ")));
        process->start(argv.first(), argv.mid(1), QIODevice::ReadOnly);
        if (argv.last().endsWith(QLatin1String("slow.pkg"))) {
            QTRY_VERIFY(seen.contains("out:first\n"));
            process.reset();
            QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(argv.last() + QStringLiteral(".done")), 5000);
        } else {
            QTRY_COMPARE_WITH_TIMEOUT(seen, events, 5000);
        }
        QTest::qWait(300); // nothing may follow the end, nor reach a dropped object
        QCOMPARE(seen, events);
        QVERIFY2(log.Text().contains(QLatin1String("ExecuteCommand failed: ")) == refused, qPrintable(log.Text()));
        QVERIFY(!log.Text().contains(QLatin1String("no error returned")));
        QCOMPARE(DlrdClient::s_client->transport->GetState(), int(DlrdClientXPC::Ready));
    }

    void openFile_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<int>("flags");
        QTest::addColumn<bool>("opens");
        QTest::newRow("file in an allowed folder") << "allowed/readable" << O_RDONLY << true;
        QTest::newRow("new file below an allowed folder") << "allowed/sub/new" << (O_WRONLY | O_CREAT | O_EXCL) << true;
        QTest::newRow("outside the allowed folders") << "secret/file" << O_RDONLY << false;
        QTest::newRow("'..' out of the folder") << "allowed/../secret/file" << O_RDONLY << false;
        QTest::newRow("link to a file outside") << "allowed/link" << O_RDONLY << false;
        QTest::newRow("through a link to a folder outside") << "allowed/up/secret/file" << O_RDONLY << false;
        QTest::newRow("relative path") << "../../allowed/readable" << O_RDONLY << false;
    }

    void openFile()
    {
        QFETCH(QString, path);
        QFETCH(int, flags);
        QFETCH(bool, opens);
        const QByteArray full = QFile::encodeName(path.startsWith(QLatin1String("..")) ? path : work.filePath(path));
        const int fd = client->OpenFile(full.constData(), flags, 0640);
        QCOMPARE(fd >= 0, opens);
        struct stat info;
        if (opens && (flags & O_CREAT)) // the mode was carried, not defaulted
            QVERIFY(::fstat(fd, &info) == 0 && (info.st_mode & 0777) == 0640 && ::close(fd) == 0);
        else if (opens)
            QCOMPARE(readToEnd(fd), QByteArray("readable"));
    }

    void badFrames_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("logged");
        DlrdMessage textCode;
        textCode.SetString("message", "66001");
        DlrdMessage argvAsText = request(66003);
        argvAsText.SetString("argv", "/bin/sh");
        DlrdMessage openWithoutMode = request(66002);
        openWithoutMode.SetString("filepath", "/etc/passwd");
        openWithoutMode.SetInt64("fileoflag", 0);
        QTest::newRow("oversized") << QByteArray("\x7f\xff\xff\xff", 4) << "bad frame length";
        QTest::newRow("code as a string") << frame(textCode) << "no integer";
        QTest::newRow("unknown request") << frame(request(1)) << "unknown request 1";
        QTest::newRow("argv as a string") << frame(argvAsText) << "without argument vector";
        QTest::newRow("open without a mode") << frame(openWithoutMode) << "without path, flags or mode";
        QTest::newRow("truncated, then hang-up") << frame(request(66001)).left(9) << "truncated frame";
    }

    // A bad frame costs its sender the connection, and nobody else anything.
    void badFrames()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, logged);
        const int fd = connectTo(QFile::encodeName(daemon.SocketPath()).constData());
        QCOMPARE(::write(fd, bytes.constData(), size_t(bytes.size())), ssize_t(bytes.size()));
        if (logged == QLatin1String("truncated frame"))
            ::shutdown(fd, SHUT_WR);
        QVERIFY(hungUp(fd, 2000));
        ::close(fd);
        QTRY_VERIFY2(daemon.Log().contains(QLatin1String("dropped connection")) && daemon.Log().contains(logged),
                     qPrintable(daemon.Log()));
        int api = 0;
        const char* build = nullptr;
        QCOMPARE(client->QueryVersion(api, build), 0);
    }

    // A client that leaves mid-request, stalls mid-frame, or leaves with its
    // reply unread (its connection is reset) must not stop the helper
    // serving the others.
    void clientsThatMisbehave()
    {
        const QByteArray socket = QFile::encodeName(daemon.SocketPath());
        const int leaving = connectTo(socket.constData());
        DlrdMessage run = request(66003);
        run.SetStringArray("argv", {installer.toLocal8Bit(), "-verboseR", "-target", "/", "-package", pkg("slow")});
        QVERIFY(DlrdSendMessage(leaving, 5, run));
        ::close(leaving);
        const int stalling = connectTo(socket.constData());
        const int unread = connectTo(socket.constData());
        const QByteArray ask = frame(request(66001));
        QCOMPARE(::write(stalling, ask.constData(), 6), ssize_t(6));
        QCOMPARE(::write(unread, ask.constData(), size_t(ask.size())), ssize_t(ask.size()));
        int api = 0;
        const char* build = nullptr;
        QCOMPARE(client->QueryVersion(api, build), 0);
        pollfd replied{unread, POLLIN, 0};
        QCOMPARE(::poll(&replied, 1, 5000), 1);
        ::close(unread);
        ::close(stalling);
        QTRY_VERIFY(daemon.Log().contains(QLatin1String("receive failed")));
        QTest::qWait(1000); // the slow child ends; its reply had nowhere to go
        QCOMPARE(client->QueryVersion(api, build), 0);
    }

    void scriptedReplies_data()
    {
        QTest::addColumn<QString>("how"); // the scripted server's, or "no helper" (and no way to ask for rights)
        QTest::addColumn<QString>("call");
        QTest::addColumn<int>("result");
        QTest::addColumn<QString>("logged");
        QTest::addColumn<int>("state");
        const int ready = DlrdClientXPC::Ready;
        const int dropped = DlrdClientXPC::Dropped;
        QTest::newRow("version reply after 1500 ms") << "late" << "init" << -1 << "" << ready;
        QTest::newRow("childpid 0") << "pid0" << "execute" << -1 << "" << ready;
        QTest::newRow("childpid -1 without a reason")
            << "fail-silent" << "execute" << -1 << "ExecuteCommand failed: no error returned" << ready;
        QTest::newRow("childpid -1 with a reason")
            << "fail" << "execute" << -1 << "ExecuteCommand failed: scripted failure" << ready;
        QTest::newRow("open reply without a descriptor") << "no-fd" << "open" << -1 << "" << ready;
        QTest::newRow("execute reply dropped") << "drop-exec" << "execute" << -1 << "" << ready;
        QTest::newRow("helper terminating")
            << "terminate-exec" << "execute" << -1 << "ExecuteCommand: Connection terminated" << dropped;
        QTest::newRow("helper dies mid-request")
            << "die" << "version" << -1 << "Invalid connection. key=XPCErrorDescription" << dropped;
        QTest::newRow("helper gone before the first request")
            << "gone" << "init" << -1 << "QueryVersion: Invalid connection" << dropped;
        QTest::newRow("version without build text") << "no-build" << "version" << 0 << "" << ready;
        QTest::newRow("message nobody asked for")
            << "unsolicited" << "init" << 0 << "" << int(DlrdClientXPC::UnexpectedEvent);
        // Fails at once, never prompts or hangs.
        QTest::newRow("no helper, no way to ask for rights") << "no helper" << "init" << -1 << ""
                                                             << int(DlrdClientXPC::NotAuthorised);
    }

    void scriptedReplies()
    {
        QFETCH(QString, how);
        QFETCH(QString, call);
        QFETCH(int, result);
        QFETCH(QString, logged);
        QFETCH(int, state);
        HelperProcess server;
        const QByteArray path = qgetenv("PATH");
        QTemporaryDir empty;
        if (how == QLatin1String("no helper"))
            qputenv("PATH", empty.path().toLocal8Bit());
        else
            QVERIFY(server.Start(QStringLiteral(VLUM_HELPERCLIENT), {QStringLiteral("serve"), how}));
        StderrCapture log;
        std::unique_ptr<DlrdClient> own = clientOn(server.SocketPath());
        qputenv("PATH", path);
        if (how == QLatin1String("gone"))
            server.Stop(SIGKILL);
        if (result != 0 && call == QLatin1String("init"))
            QTest::ignoreMessage(QtDebugMsg, "Could not get a response from helper after install");
        QCOMPARE(own->Init(), call == QLatin1String("init") ? result : 0);
        QCOMPARE(own->initialized, call != QLatin1String("init") || result == 0);
        int fd = -1;
        int pid = 0;
        int api = 0;
        const char* build = nullptr;
        if (call == QLatin1String("execute"))
            QCOMPARE(own->ExecuteCommand({"/x/installer"}, fd, pid), result);
        if (call == QLatin1String("open"))
            QCOMPARE(own->OpenFile("/tmp/x", O_RDONLY, 0), result);
        if (call == QLatin1String("version"))
            QCOMPARE(own->QueryVersion(api, build), result);
        if (call == QLatin1String("version") && result == 0) // a missing build text reads as empty, not as a crash
            QVERIFY(api == 7 && build != nullptr);
        QTRY_COMPARE(own->transport->GetState(), state);
        const QString text = log.Text();
        QVERIFY2(logged.isEmpty() ? !text.contains(QLatin1String("ExecuteCommand failed")) : text.contains(logged),
                 qPrintable(text));
        QVERIFY2(!text.contains(QLatin1String("Installed helper")), qPrintable(text)); // nothing was installed
        // A lost or odd reply leaves the connection usable; once it is
        // dropped, requests are refused before anything is sent.
        if (state == DlrdClientXPC::Ready && call != QLatin1String("init"))
            QCOMPARE(own->QueryVersion(api, build), 0);
        if (state == DlrdClientXPC::Dropped)
            QCOMPARE(own->ExecuteCommand({"/x/installer"}, fd, pid), -1);
    }

    void installScript_data()
    {
        // programFolder "": the build's own; "open" to all; "theirs", another user's; else root's, named in
        // Latin-1 (reached through a link by its name in UTF-8)
        QTest::addColumn<QString>("programFolder");
        QTest::addColumn<int>("keysMode"); // of <programFolder>/../Resources/keys; 0: none made
        QTest::addColumn<QString>("socketName");
        QTest::addColumn<QString>("expected"); // the ExecStart line, or the reason it failed
        const QString cannotStart = "systemd cannot start a program whose path holds $, quotes or a backslash: @FOLDER@/"
                                    "velluma-installer-helper";
        QTest::newRow("quotes, specifiers and variables escaped")
            << "" << 0 << "a \"b\" %n $HOME \\c.sock"
            << "ExecStart=\"@HELPER@\" --socket \"@WORK@/a \\\"b\\\" %%n $$HOME \\\\c.sock\" --installer \"@WORK@/installer\"";
        QTest::newRow("a blank and a specifier in the program's path escaped")
            << "a %n" << 0 << "s.sock"
            << "ExecStart=\"@WORK@/a %%n/velluma-installer-helper\" --socket \"@WORK@/s.sock\" --installer \"@WORK@/installer\"";
        QTest::newRow("a line break in a path") << "" << 0 << "a\nb.sock" << "a control character in a path";
        QTest::newRow("a $ in the program's path") << "a$b" << 0 << "s.sock" << cannotStart;
        QTest::newRow("a quote in the program's path") << "a\"b" << 0 << "s.sock" << cannotStart;
        QTest::newRow("a backslash in the program's path") << "a\\b" << 0 << "s.sock" << cannotStart;
        QTest::newRow("a program path not in UTF-8") << "caf\u00e9" << 0 << "s.sock" << "a path that is not UTF-8";
        QTest::newRow("a program in a folder others can write")
            << "open" << 0 << "s.sock" << "writable by others than root: @FOLDER@";
        QTest::newRow("a program in another user's folder")
            << "theirs" << 0 << "s.sock" << "not owned by root: @FOLDER@";
        QTest::newRow("keys in a folder others can write")
            << "bundle/bin" << 0777 << "s.sock" << "writable by others than root: @WORK@/bundle/Resources/keys";
        QTest::newRow("no service manager") << "" << 0 << "s.sock" << "no service manager: systemd is not running";
    }

    // The service unit names only what root alone can change, and a path
    // cannot smuggle anything into it; where no service manager runs, the
    // script fails with its reason on the last line and writes no service.
    void installScript()
    {
        QFETCH(QString, programFolder);
        QFETCH(int, keysMode);
        QFETCH(QString, socketName);
        QFETCH(QString, expected);
        const bool printUnit = !expected.startsWith(QLatin1String("no service manager")); // else it installs
        if (!printUnit && QFileInfo::exists(QStringLiteral("/run/systemd/system")))
            QSKIP("systemd runs here; installing would change the machine");
        QString helper = QStringLiteral(VLUM_HELPER);
        const QString folder = work.filePath(programFolder);
        // A name not in UTF-8 is the folder's while the script runs, its name
        // in UTF-8 a link to it; then it gets that name back (Qt removes no other).
        const QByteArray named = QFile::encodeName(folder);
        const QByteArray latin1 = QFile::encodeName(work.path()) + '/' + programFolder.toLatin1();
        const bool inLatin1 = !programFolder.isEmpty() && programFolder.toLatin1() != programFolder.toUtf8();
        const auto renamed = qScopeGuard([&] {
            if (inLatin1 && ::unlink(named.constData()) == 0)
                ::rename(latin1.constData(), named.constData());
        });
        if (!programFolder.isEmpty()) {
            helper = folder + QStringLiteral("/velluma-installer-helper");
            QVERIFY(QDir().mkpath(folder) && (QFile::exists(helper) || QFile::copy(QStringLiteral(VLUM_HELPER), helper)));
            QVERIFY(setOwner(folder, programFolder == QLatin1String("theirs") ? kOther : 0,
                             programFolder == QLatin1String("open") ? 0777 : 0755));
            if (inLatin1)
                QVERIFY(::rename(named.constData(), latin1.constData()) == 0
                        && ::symlink(latin1.constData(), named.constData()) == 0);
        }
        if (keysMode != 0) {
            const QString keys = QFileInfo(folder).path() + QStringLiteral("/Resources/keys");
            QVERIFY(QDir().mkpath(keys) && setOwner(keys, 0, keysMode));
        }
        const QString label = QStringLiteral("com.oktavo.velluma.test.InstallerHelper");
        QProcess script;
        script.start(QStringLiteral(VLUM_LIBEXEC_DIR "/install-helper"),
                     (printUnit ? QStringList{QStringLiteral("--print-unit")} : QStringList())
                         + QStringList{helper, installer, work.filePath(socketName), label});
        QVERIFY(script.waitForFinished(10000));
        expected.replace(QLatin1String("@HELPER@"), QFileInfo(helper).canonicalFilePath())
            .replace(QLatin1String("@WORK@"), QFileInfo(work.path()).canonicalFilePath())
            .replace(QLatin1String("@FOLDER@"), QFileInfo(folder).canonicalFilePath());
        const bool runs = expected.startsWith(QLatin1String("ExecStart="));
        QCOMPARE(script.exitCode(), runs ? 0 : 1);
        if (runs)
            QCOMPARE(QString::fromUtf8(script.readAllStandardOutput()).split(QLatin1Char('\n')).filter("ExecStart="),
                     QStringList{expected});
        else
            QCOMPARE(QString::fromUtf8(script.readAllStandardError().trimmed().split('\n').last()), expected);
        QVERIFY(!QFileInfo::exists(QStringLiteral("/etc/systemd/system/%1.service").arg(label)));
    }

    void packageOwnership_data()
    {
        QTest::addColumn<uint>("folderOwner");
        QTest::addColumn<int>("folderMode");
        QTest::addColumn<uint>("fileOwner");
        QTest::addColumn<int>("fileMode");
        QTest::addColumn<QString>("via"); // "", "link" (the user's), "their link", "hard link", "fifo"
        QTest::addColumn<bool>("runs");
        const uint me = kUser;
        const uint other = kOther;
        QTest::newRow("the user's own package") << me << 0755 << me << 0644 << "" << true;
        QTest::newRow("root's package") << 0u << 0755 << 0u << 0644 << "" << true;
        QTest::newRow("the user's link to another disk") << me << 0755 << me << 0644 << "link" << true;
        QTest::newRow("the user's package in a shared sticky folder") << 0u << 01777 << me << 0644 << "" << true;
        QTest::newRow("planted by another user in a shared folder") << 0u << 01777 << other << 0644 << "" << false;
        QTest::newRow("in another user's folder") << other << 0755 << me << 0644 << "" << false;
        QTest::newRow("in a folder others can write") << me << 0777 << me << 0644 << "" << false;
        QTest::newRow("a package others can write") << me << 0755 << me << 0666 << "" << false;
        QTest::newRow("a package with a second name") << me << 0755 << me << 0644 << "hard link" << false;
        QTest::newRow("another user's link on the way") << me << 0755 << me << 0644 << "their link" << false;
        QTest::newRow("a FIFO for a package") << me << 0755 << me << 0644 << "fifo" << false;
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
        QFETCH(bool, runs);
        QTemporaryDir arena(QStringLiteral("/tmp/vlum-arena-XXXXXX"));
        QVERIFY(QFile::setPermissions(arena.path(), QFile::permissions(arena.path()) | QFileDevice::ExeOther));
        const QString folder = arena.filePath(QStringLiteral("folder"));
        const QString package = folder + QStringLiteral("/p.pkg");
        QVERIFY(QDir().mkpath(folder));
        if (via == QLatin1String("fifo"))
            QCOMPARE(::mkfifo(QFile::encodeName(package).constData(), 0644), 0);
        else
            QVERIFY(writeFile(package, "the package\n"));
        QVERIFY(setOwner(package, fileOwner, fileMode) && setOwner(folder, folderOwner, folderMode));
        const bool linked = via == QLatin1String("link") || via == QLatin1String("their link");
        const QString asked = linked ? arena.filePath(QStringLiteral("Downloads/p.pkg")) : package;
        if (linked)
            QVERIFY(QFile::link(folder, arena.filePath(QStringLiteral("Downloads")))
                    && setOwner(arena.filePath(QStringLiteral("Downloads")), via == QLatin1String("link") ? kUser : kOther));
        if (via == QLatin1String("hard link"))
            QCOMPARE(::link(QFile::encodeName(package).constData(), QFile::encodeName(package + ".2").constData()), 0);
        QByteArray output;
        const int status = runAs(kUser, {QStringLiteral("exec"), installer, asked}, &output);
        QCOMPARE(status, runs ? 0 : 1);
        if (runs)
            QCOMPARE(output, "installing " + QFile::encodeName(asked) + "\nthe package\n");
        else
            tally.Add(1, status == 0 ? 1 : 0);
    }

    void attacks_data()
    {
        QTest::addColumn<uint>("uid");
        QTest::addColumn<QStringList>("command"); // the test client's; "@" stands for the work folder
        QTest::addColumn<int>("tries");
        QTest::addColumn<QString>("held"); // the client's first line when the helper held
        const uint other = kOther;
        QTest::newRow("folder swapped for a link (reads, files made)")
            << other << QStringList{"race", "@/allowed/mine", "10000"} << 10000
            << "swaps=10000 reads=[1-9][0-9]* secrets=0"; // some reads got through: the race tested something
        QTest::newRow("FIFO opened for reading through the helper")
            << other << QStringList{"open", "@/allowed/mine/fifo", QString::number(O_RDONLY)} << 1 << "refused";
        QTest::newRow("FIFO opened for writing through the helper")
            << other << QStringList{"open", "@/allowed/mine/fifo", QString::number(O_WRONLY)} << 1 << "refused";
        QTest::newRow("connection flood (64 idle, others locked out)")
            << other << QStringList{"hold", "64", "20"} << 64 << "answered=[1-9][0-9]* refused=[1-9][0-9]*";
        QTest::newRow("connection that never asks (request deadline)")
            << other << QStringList{"silent", "10"} << 1 << "dropped";
        QTest::newRow("a user the helper does not serve")
            << uint(kStranger) << QStringList{"hold", "1", "0"} << 1 << "answered=0 refused=1";
        // Each installer counts until the helper collects it, though its
        // client left at once: one per user, four in all.
        QTest::newRow("installations piled up (users 4343 twice, 0, 4245, 4246, 4242)")
            << 0u << QStringList{"crowd", "@/installer", "@/held.pkg", "4343", "4343", "0", "4245", "4246", "4242"} << 7
            << "ran, refused: an installation for this user is already running, ran, ran, ran, refused: too many "
               "installations are running; zombies=0; again: ran";
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
        QProcess attack;
        attack.start(QStringLiteral("setpriv"), asUser(uid, command.replaceInStrings(QStringLiteral("@"), work.path())));
        QVERIFY(attack.waitForReadyRead(120000));
        const QString line = QString::fromLatin1(attack.readLine()).trimmed();
        const bool userServed = runAs(kUser, {QStringLiteral("exec"), installer, QString::fromLocal8Bit(pkg("x"))}) == 0;
        const bool rootServed = clientOn(daemon.SocketPath())->Init() == 0;
        attack.kill();
        attack.waitForFinished();
        const bool refused = QRegularExpression(QStringLiteral("^(?:%1)$").arg(held)).match(line).hasMatch();
        const int made = QDir(at("secret")).entryList({QStringLiteral("made-*")}).size();
        tally.Add(tries, (refused ? 0 : 1) + made + (userServed ? 0 : 1) + (rootServed ? 0 : 1));
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
