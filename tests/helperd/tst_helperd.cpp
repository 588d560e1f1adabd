// The helper client against real helpers: the daemon itself on a temporary
// socket, and the scripted server for replies the daemon never sends.

#include "../support/HelperProcess.h"
#include "../support/StderrCapture.h"

#include "DlrdClient.h"
#include "DlrdClientXPC.h"
#include "DlrdWire.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr char kLabel[] = "com.oktavo.velluma.InstallerHelper";

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

} // namespace

class TestHelperd : public QObject
{
    Q_OBJECT

    QTemporaryDir work;
    QString installer;
    HelperProcess daemon;
    std::unique_ptr<DlrdClient> client;

    QList<QByteArray> installerRun(const QByteArray& package) const
    {
        return {installer.toLocal8Bit(), "-verboseR", "-target", "/", "-package", package};
    }

private slots:
    void initTestCase()
    {
        // The client's lines go to the system log; LOG_PERROR copies them
        // to standard error, where the tests read them.
        openlog("tst_helperd", LOG_PERROR, LOG_USER);
        QVERIFY(work.isValid());
        QVERIFY(QDir(work.path()).mkpath(QStringLiteral("allowed/sub")));
        installer = work.filePath(QStringLiteral("installer"));
        QFile script(installer);
        QVERIFY(script.open(QIODevice::WriteOnly));
        script.write("#!/bin/sh\ncase \"$5\" in *slow.pkg) sleep 1 ;; esac\necho \"installing $5\"\n");
        script.close();
        QVERIFY(script.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner));
        QFile secret(work.filePath(QStringLiteral("secret")));
        QVERIFY(secret.open(QIODevice::WriteOnly));
        secret.write("secret");
        QFile open(work.filePath(QStringLiteral("allowed/readable")));
        QVERIFY(open.open(QIODevice::WriteOnly));
        open.write("readable");
        QVERIFY(QFile::link(work.filePath(QStringLiteral("secret")), work.filePath(QStringLiteral("allowed/link"))));
        QVERIFY(QFile::link(work.path(), work.filePath(QStringLiteral("allowed/up"))));
        QVERIFY(QFile::link(installer, work.filePath(QStringLiteral("installer-link"))));

        QVERIFY(daemon.Start(QStringLiteral(VLUM_HELPER),
                             {"--installer", installer, "--allow-folder", work.filePath(QStringLiteral("allowed"))}));
        StderrCapture log;
        client = clientOn(daemon.SocketPath());
        QCOMPARE(client->Init(), 0);
        // Already answering: installed without asking for any rights.
        QVERIFY(log.Text().contains(QStringLiteral("Installed helper: %1").arg(kLabel)));
    }

    void versionAndExecute()
    {
        int api = 0;
        const char* build = nullptr;
        QCOMPARE(client->QueryVersion(api, build), 0);
        QCOMPARE(api, 1);
        QVERIFY(QByteArray(build).startsWith("velluma-installer-helper "));

        int fd = -1;
        int pid = 0;
        QCOMPARE(client->ExecuteCommand(installerRun("/tmp/a.pkg"), fd, pid), 0);
        QVERIFY(pid > 0);
        QCOMPARE(readToEnd(fd), QByteArray("installing /tmp/a.pkg\n"));
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
        QTest::newRow("the installer run") << installerRun("/tmp/x.pkg") << true;
        QTest::newRow("the installer through a link")
            << (QList<QByteArray>{work.filePath(QStringLiteral("installer-link")).toLocal8Bit()} + installerRun("/tmp/x.pkg").mid(1))
            << true;
        QTest::newRow("a shell") << QList<QByteArray>{"/bin/sh", "-c", "id"} << false;
        QTest::newRow("a shell in the installer's shape") << (QList<QByteArray>{"/bin/sh"} + installerRun("/tmp/x.pkg").mid(1))
                                                          << false;
        QTest::newRow("extra argument") << (installerRun("/tmp/x.pkg") << "-dumplog") << false;
        QTest::newRow("another target")
            << QList<QByteArray>{program, "-verboseR", "-target", "/tmp", "-package", "/tmp/x.pkg"} << false;
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
            QCOMPARE(readToEnd(fd), QByteArray("installing /tmp/x.pkg\n"));
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
        run.SetStringArray("argv", installerRun("/tmp/slow.pkg"));
        QVERIFY(DlrdSendMessage(leaving, 5, run));
        ::close(leaving);

        const int stalling = connectTo(daemon.SocketPath());
        const QByteArray half = frame(request(66001)).left(6);
        QCOMPARE(::write(stalling, half.constData(), size_t(half.size())), ssize_t(half.size()));

        int api = 0;
        const char* build = nullptr;
        QCOMPARE(client->QueryVersion(api, build), 0);
        ::close(stalling);
        QTest::qWait(1200); // the slow child ends; its reply had nowhere to go
        QCOMPARE(client->QueryVersion(api, build), 0);
        QVERIFY(daemon.IsRunning());
    }

    void peerCredentials_data()
    {
        QTest::addColumn<bool>("allowed");
        QTest::newRow("uid not configured") << false;
        QTest::newRow("uid configured") << true;
    }

    // Only root and the configured users are served, whoever can reach the
    // socket.
    void peerCredentials()
    {
        QFETCH(bool, allowed);
        if (::geteuid() != 0)
            QSKIP("needs root to connect as another user");
        constexpr uid_t kNobody = 65534;
        HelperProcess other;
        QStringList options{"--installer", installer};
        if (allowed)
            options << "--allow-uid" << QString::number(kNobody);
        QVERIFY(other.Start(QStringLiteral(VLUM_HELPER), options));
        QVERIFY(QFile::setPermissions(QFileInfo(other.SocketPath()).path(),
                                      QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner
                                          | QFileDevice::ExeOther | QFileDevice::ReadOther));

        const QByteArray bytes = frame(request(66001));
        const QByteArray path = other.SocketPath().toLocal8Bit();
        const pid_t child = ::fork();
        if (child == 0) {
            // Only calls that are safe after fork in a threaded process.
            if (::setgid(kNobody) != 0 || ::setuid(kNobody) != 0)
                ::_exit(3);
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            std::memcpy(address.sun_path, path.constData(), size_t(path.size()));
            const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
            if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
                ::_exit(4);
            // A refused peer may be closed before it writes.
            (void)!::send(fd, bytes.constData(), size_t(bytes.size()), MSG_NOSIGNAL);
            char reply[64];
            ::_exit(::read(fd, reply, sizeof reply) > 0 ? 0 : 1);
        }
        int status = 0;
        QCOMPARE(::waitpid(child, &status, 0), child);
        QVERIFY(WIFEXITED(status));
        QCOMPARE(WEXITSTATUS(status), allowed ? 0 : 1);
        QCOMPARE(other.Log().contains(QLatin1String("refused peer uid 65534")), !allowed);
    }

    // A helper that dies takes the client to "dropped" for good.
    void killedDaemon()
    {
        HelperProcess doomed;
        QVERIFY(doomed.Start(QStringLiteral(VLUM_HELPER), {"--installer", installer}));
        StderrCapture log;
        std::unique_ptr<DlrdClient> own = clientOn(doomed.SocketPath());
        QCOMPARE(own->Init(), 0);
        doomed.Stop(SIGKILL);

        int api = 0;
        const char* build = nullptr;
        QCOMPARE(own->QueryVersion(api, build), -1);
        QTRY_COMPARE(own->transport->GetState(), int(DlrdClientXPC::Dropped));
        QTRY_VERIFY(log.Text().contains(QLatin1String("Invalid connection. key=XPCErrorDescription")));
        QVERIFY(log.Text().contains(QLatin1String("error description=")));
        // Later requests are refused before anything is sent.
        QCOMPARE(own->transport->QueryVersion(), -1);
        int fd = -1;
        int pid = 0;
        QCOMPARE(own->ExecuteCommand(installerRun("/tmp/x.pkg"), fd, pid), -1);
    }

    void scriptedReplies_data()
    {
        QTest::addColumn<QStringList>("serverOptions");
        QTest::addColumn<QString>("call");
        QTest::addColumn<int>("result");
        QTest::addColumn<QString>("logged");
        QTest::addColumn<int>("state");
        const int ready = DlrdClientXPC::Ready;
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
                                            << "ExecuteCommand: Connection terminated" << int(DlrdClientXPC::Dropped);
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

        if (call == QLatin1String("init")) {
            if (result != 0)
                QTest::ignoreMessage(QtDebugMsg, "Could not get a response from helper after install");
            QCOMPARE(own->Init(), result);
            QCOMPARE(own->initialized, result == 0);
        } else {
            QCOMPARE(own->Init(), 0);
        }
        int fd = -1;
        int pid = 0;
        if (call == QLatin1String("execute"))
            QCOMPARE(own->ExecuteCommand({"/x/installer"}, fd, pid), result);
        if (call == QLatin1String("open"))
            QCOMPARE(own->OpenFile("/tmp/x", O_RDONLY, 0), result);
        if (call == QLatin1String("version")) {
            int api = 0;
            const char* build = nullptr;
            QCOMPARE(own->QueryVersion(api, build), result);
            QCOMPARE(api, 7);
            QVERIFY(build != nullptr); // a missing build text reads as empty, not as a crash
        }
        QTRY_COMPARE(own->transport->GetState(), state);
        if (logged.isEmpty())
            QVERIFY2(!log.Text().contains(QLatin1String("ExecuteCommand failed")), qPrintable(log.Text()));
        else
            QVERIFY2(log.Text().contains(logged), qPrintable(log.Text()));
        if (state == DlrdClientXPC::Ready && call != QLatin1String("init")) {
            // A lost or odd reply leaves the connection usable.
            int api = 0;
            const char* build = nullptr;
            QCOMPARE(own->QueryVersion(api, build), 0);
        }
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

    // Where no service manager runs, the install script fails with its
    // reason on the last line and writes no service.
    void installScriptWithoutServiceManager()
    {
        if (QFileInfo::exists(QStringLiteral("/run/systemd/system")))
            QSKIP("systemd runs here; installing would change the machine");
        if (::geteuid() != 0)
            QSKIP("the script refuses to run without administrator rights");
        const QString label = QStringLiteral("com.oktavo.velluma.test.InstallerHelper");
        QProcess script;
        script.start(QStringLiteral(VLUM_LIBEXEC_DIR "/install-helper"),
                     {QStringLiteral(VLUM_HELPER), QStringLiteral(VLUM_LIBEXEC_DIR "/installer"),
                      work.filePath(QStringLiteral("s.sock")), label});
        QVERIFY(script.waitForFinished(10000));
        QCOMPARE(script.exitCode(), 1);
        QCOMPARE(script.readAllStandardError().trimmed().split('\n').last(),
                 QByteArray("no service manager: systemd is not running"));
        QVERIFY(!QFileInfo::exists(QStringLiteral("/etc/systemd/system/%1.service").arg(label)));
    }
};

QTEST_GUILESS_MAIN(TestHelperd)
#include "tst_helperd.moc"
