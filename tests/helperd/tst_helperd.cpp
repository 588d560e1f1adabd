// The helper client against real helpers: the daemon itself on a temporary
// socket, and the scripted server for replies the daemon never sends.

#include "../support/HelperProcess.h"
#include "../support/StderrCapture.h"

#include "DlrdClient.h"
#include "DlrdClientXPC.h"
#include "DlrdWire.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
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

// The user the helper serves, and another user who attacks it.
constexpr uid_t kUser = 4242;
constexpr uid_t kOther = 4343;

// What one attack tried and how often it got through; printed at the end.
struct AttackTally {
    QString attack;
    int tries;
    int escapes;
};
QList<AttackTally> tallies;

// Runs the test client as `uid` (a real process of that user).
int runAs(uid_t uid, const QStringList& arguments, QByteArray* output = nullptr, int timeoutMs = 120000)
{
    QProcess process;
    process.start(QStringLiteral("setpriv"), QStringList{QStringLiteral("--reuid=%1").arg(uid),
                                                         QStringLiteral("--regid=%1").arg(uid),
                                                         QStringLiteral("--clear-groups"), QStringLiteral("--")}
                                                 + arguments);
    if (!process.waitForFinished(timeoutMs))
        return -1;
    if (output)
        *output = process.readAllStandardOutput();
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

bool chownPath(const QString& path, uid_t uid)
{
    return ::lchown(QFile::encodeName(path).constData(), uid, uid) == 0;
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

} // namespace

class TestHelperd : public QObject
{
    Q_OBJECT

    QTemporaryDir work;
    QString installer;
    HelperProcess daemon;
    // Where other users can reach: the attacked helper's folder and the
    // test client they run.
    QTemporaryDir shared{QStringLiteral("/tmp/vlum-shared-XXXXXX")};
    QString attackedFolder;
    std::unique_ptr<HelperProcess> attacked;

    QString attackClient() const { return shared.filePath(QStringLiteral("helperclient")); }
    std::unique_ptr<DlrdClient> client;

    // A package file the helper can open for root: in a folder of root's.
    QByteArray pkg(const char* name) const { return work.filePath(QLatin1String(name) + QStringLiteral(".pkg")).toLocal8Bit(); }

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
        // It shows what it was handed to install: the package the helper opened.
        script.write("#!/bin/sh\ncase \"$5\" in *slow.pkg) sleep 1 ;; esac\necho \"installing $5\"\n"
                     "[ \"$VLUM_PACKAGE_FD\" = 3 ] && cat <&3\n");
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
        for (const char* name : {"x", "a", "slow"})
            QVERIFY(QFile(QString::fromLocal8Bit(pkg(name))).open(QIODevice::WriteOnly));

        QVERIFY(daemon.Start(QStringLiteral(VLUM_HELPER),
                             {"--installer", installer, "--allow-folder", work.filePath(QStringLiteral("allowed"))}));

        // A second helper, reachable by two other users, for the attacks.
        QVERIFY(shared.isValid());
        QVERIFY(QFile::setPermissions(shared.path(), QFile::permissions(shared.path()) | QFileDevice::ExeOther));
        attackedFolder = shared.filePath(QStringLiteral("allowed"));
        QVERIFY(QDir().mkpath(attackedFolder));
        QVERIFY(QFile::setPermissions(attackedFolder, QFile::permissions(attackedFolder) | QFileDevice::ExeOther));
        QVERIFY(QFile::copy(QStringLiteral(VLUM_HELPERCLIENT), attackClient()));
        QVERIFY(QFile::setPermissions(attackClient(), QFile::permissions(attackClient()) | QFileDevice::ExeOther));
        attacked.reset(new HelperProcess);
        QVERIFY(attacked->Start(QStringLiteral(VLUM_HELPER),
                                {"--installer", installer, "--allow-folder", attackedFolder, "--allow-uid",
                                 QString::number(kUser), "--allow-uid", QString::number(kOther)}));
        QVERIFY(QFile::setPermissions(QFileInfo(attacked->SocketPath()).path(),
                                      QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner
                                          | QFileDevice::ExeOther));
        StderrCapture log;
        client = clientOn(daemon.SocketPath());
        QCOMPARE(client->Init(), 0);
        // Already answering: used without asking for any rights, and nothing
        // was installed, so nothing says so.
        QVERIFY2(!log.Text().contains(QLatin1String("Installed helper")), qPrintable(log.Text()));
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
        QCOMPARE(client->ExecuteCommand(installerRun(pkg("a")), fd, pid), 0);
        QVERIFY(pid > 0);
        QCOMPARE(readToEnd(fd), "installing " + pkg("a") + "\n");
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
        if (via == QLatin1String("fifo")) {
            QCOMPARE(::mkfifo(QFile::encodeName(package).constData(), 0644), 0);
        } else {
            QFile file(package);
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write("the package\n");
        }
        QCOMPARE(::chmod(QFile::encodeName(package).constData(), mode_t(fileMode)), 0);
        QVERIFY(chownPath(package, fileOwner));
        QCOMPARE(::chmod(QFile::encodeName(folder).constData(), mode_t(folderMode)), 0);
        QVERIFY(chownPath(folder, folderOwner));
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
            runAs(kUser, {attackClient(), attacked->SocketPath(), QStringLiteral("exec"), installer, asked}, &output);
        QCOMPARE(status, runs ? 0 : 1);
        if (runs)
            QCOMPARE(output, "installing " + QFile::encodeName(asked) + "\nthe package\n");
        else
            tallies << AttackTally{QString::fromLatin1(QTest::currentDataTag()), 1, status == 0 ? 1 : 0};
    }

    // Races and floods from an allowed user: never a file read or made
    // outside the allowed folder, never everybody else locked out.
    void attacks()
    {
        if (::geteuid() != 0)
            QSKIP("needs root to act as other users");
        QTemporaryDir arena(QStringLiteral("/tmp/vlum-arena-XXXXXX"));
        QVERIFY(QFile::setPermissions(arena.path(), QFile::permissions(arena.path()) | QFileDevice::ExeOther));
        const QString allowed = attackedFolder;
        const QString mine = allowed + QStringLiteral("/mine");
        const QString secret = arena.filePath(QStringLiteral("secret"));
        QVERIFY(QDir().mkpath(mine + QStringLiteral("/sub")) && QDir().mkpath(secret));
        {
            QFile hidden(secret + QStringLiteral("/file"));
            QVERIFY(hidden.open(QIODevice::WriteOnly));
            hidden.write("secret\n");
            QFile open(mine + QStringLiteral("/sub/file"));
            QVERIFY(open.open(QIODevice::WriteOnly));
            open.write("public\n");
        }
        QCOMPARE(::chmod(QFile::encodeName(secret).constData(), 0700), 0);
        QVERIFY(QFile::link(secret, mine + QStringLiteral("/evil")));
        for (const QString& path : {mine, mine + QStringLiteral("/sub"), mine + QStringLiteral("/sub/file"),
                                    mine + QStringLiteral("/evil")})
            QVERIFY(chownPath(path, kOther));

        // The folder below the allowed one swapped for a link, 10,000 times.
        QByteArray output;
        QCOMPARE(runAs(kOther, {attackClient(), attacked->SocketPath(), QStringLiteral("race"), mine,
                                QStringLiteral("10000")},
                       &output),
                 0);
        const QRegularExpressionMatch race =
            QRegularExpression(QStringLiteral("swaps=(\\d+) reads=(\\d+) secrets=(\\d+)")).match(QString::fromLatin1(output));
        QVERIFY2(race.hasMatch() && race.captured(1) == QLatin1String("10000"), output.constData());
        const int made = QDir(secret).entryList({QStringLiteral("made-*")}).size();
        tallies << AttackTally{QStringLiteral("folder swapped for a link (reads, files made)"), 10000,
                               race.captured(3).toInt() + made};
        QCOMPARE(race.captured(3).toInt() + made, 0);
        QVERIFY2(race.captured(2).toInt() > 0, "no read ever got through: the race tested nothing");

        // A FIFO in the allowed folder: refused at once, for reading and
        // for writing, and the helper still answers and still stops.
        const QString fifo = mine + QStringLiteral("/fifo");
        QCOMPARE(::mkfifo(QFile::encodeName(fifo).constData(), 0666), 0);
        QVERIFY(chownPath(fifo, kOther));
        QElapsedTimer clock;
        clock.start();
        const QString readOnly = QString::number(O_RDONLY);
        const QString writeOnly = QString::number(O_WRONLY);
        const int opened = (runAs(kOther, {attackClient(), attacked->SocketPath(), "open", fifo, readOnly}) == 0)
            + (runAs(kOther, {attackClient(), attacked->SocketPath(), "open", fifo, writeOnly}) == 0);
        tallies << AttackTally{QStringLiteral("FIFO opened through the helper"), 2, opened};
        QCOMPARE(opened, 0);
        QVERIFY2(clock.elapsed() < 5000, "the helper waited on the FIFO");

        // 64 idle connections of one user: the user gets its share only,
        // and the others and root are still served.
        QProcess flood;
        flood.start(QStringLiteral("setpriv"), {QStringLiteral("--reuid=%1").arg(kOther),
                                                QStringLiteral("--regid=%1").arg(kOther), QStringLiteral("--clear-groups"),
                                                QStringLiteral("--"), attackClient(), attacked->SocketPath(),
                                                QStringLiteral("hold"), QStringLiteral("64"), QStringLiteral("20")});
        QVERIFY(flood.waitForReadyRead(60000));
        const int held = flood.readAllStandardOutput().trimmed().toInt();
        QByteArray served;
        const bool userServed = runAs(kUser, {attackClient(), attacked->SocketPath(), QStringLiteral("exec"), installer,
                                              pkg("x")},
                                      &served)
            == 0;
        std::unique_ptr<DlrdClient> root = clientOn(attacked->SocketPath());
        const bool rootServed = root->Init() == 0;
        flood.kill();
        flood.waitForFinished(5000);
        tallies << AttackTally{QStringLiteral("connection flood (64 idle, others locked out)"), 64,
                               (userServed ? 0 : 1) + (rootServed ? 0 : 1)};
        QVERIFY2(held > 0 && held < 64, qPrintable(QString::number(held)));
        QVERIFY(userServed);
        QVERIFY(rootServed);

        // A connection that never completes a request is dropped.
        const int silent = connectTo(attacked->SocketPath());
        QVERIFY(silent >= 0);
        pollfd p{silent, POLLIN, 0};
        QCOMPARE(::poll(&p, 1, 10000), 1);
        char byte;
        QCOMPARE(::read(silent, &byte, 1), ssize_t(0));
        ::close(silent);

        // Asked to stop, it stops within a second.
        clock.restart();
        attacked->Stop(SIGTERM);
        QVERIFY2(clock.elapsed() < 1000, qPrintable(QString::number(clock.elapsed())));
        QVERIFY(!attacked->IsRunning());
    }

    void cleanupTestCase()
    {
        if (tallies.isEmpty())
            return;
        qInfo("%-50s %6s %8s", "attack", "tries", "escapes");
        for (const AttackTally& tally : qAsConst(tallies))
            qInfo("%-50s %6d %8d", qPrintable(tally.attack), tally.tries, tally.escapes);
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
        QCOMPARE(own->ExecuteCommand(installerRun(pkg("x")), fd, pid), -1);
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
    void installScript_data()
    {
        QTest::addColumn<QString>("programFolder"); // "": the build's own; else made with folderOwner/folderMode
        QTest::addColumn<uint>("folderOwner");
        QTest::addColumn<int>("folderMode");
        QTest::addColumn<QString>("socketName");
        QTest::addColumn<QString>("expected"); // the ExecStart line, or the reason it failed

        QTest::newRow("quotes, specifiers and variables escaped")
            << "" << 0u << 0 << "a \"b\" %n $HOME \\c.sock"
            << "ExecStart=\"@HELPER@\" --socket \"@WORK@/a \\\"b\\\" %%n $$HOME \\\\c.sock\" --installer \"@INSTALLER@\"";
        QTest::newRow("a line break in a path") << "" << 0u << 0 << "a\nb.sock" << "a control character in a path";
        QTest::newRow("a program in a folder others can write")
            << "open" << 0u << 0777 << "s.sock" << "writable by others than root: @FOLDER@";
        QTest::newRow("a program in another user's folder")
            << "theirs" << uint(kOther) << 0755 << "s.sock" << "not owned by root: @FOLDER@";
    }

    // The service unit names only what root alone can change, and a path
    // cannot smuggle anything into it.
    void installScript()
    {
        QFETCH(QString, programFolder);
        QFETCH(uint, folderOwner);
        QFETCH(int, folderMode);
        QFETCH(QString, socketName);
        QFETCH(QString, expected);
        if (::geteuid() != 0)
            QSKIP("the script refuses to run without administrator rights");
        QString helper = QStringLiteral(VLUM_HELPER);
        const QString folder = work.filePath(programFolder);
        if (!programFolder.isEmpty()) {
            QVERIFY(QDir().mkpath(folder));
            helper = folder + QStringLiteral("/velluma-installer-helper");
            QFile::remove(helper);
            QVERIFY(QFile::copy(QStringLiteral(VLUM_HELPER), helper));
            QCOMPARE(::chmod(QFile::encodeName(folder).constData(), mode_t(folderMode)), 0);
            QVERIFY(chownPath(folder, folderOwner));
        }
        QProcess script;
        script.start(QStringLiteral(VLUM_LIBEXEC_DIR "/install-helper"),
                     {QStringLiteral("--print-unit"), helper, installer, work.filePath(socketName),
                      QStringLiteral("com.oktavo.velluma.test.InstallerHelper")});
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
    }

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
