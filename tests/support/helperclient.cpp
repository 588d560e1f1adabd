// The helper's other ends for the tests, on the real wire format: a client
// run as another user (through `setpriv --reuid`), or a scripted server that
// misbehaves in the ways the real helper never does on purpose.
//
//   helperclient exec <installer> <package> --socket <path>  output, or "refused: <why>" and exit 1
//   helperclient open <path> <flags> --socket <path>         the file's bytes, or "refused" and exit 1
//   helperclient hold <n> <seconds> --socket <path>          opens n connections, says how many were
//                                                            answered, holds them
//   helperclient silent <seconds> --socket <path>            "dropped" when the helper hangs up on a
//                                                            connection that never asks
//   helperclient race <dir> <count> --socket <path>          swaps <dir>/sub with <dir>/evil while
//                                                            opening below it
//   helperclient crowd <installer> <package> <uid>... --socket <path>
//                                                            as root: the installer run for each user in
//                                                            turn, see crowd()
//   helperclient serve <how> --socket <path>                 serves one connection at a time until
//                                                            killed, misbehaving as serveOne says

#include "DlrdWire.h"
#include "HelperSocket.h"

#include <QVector>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace {

const char* socketPath = nullptr;

// The reply to one request, within five seconds; false when none came.
bool ask(int fd, const DlrdMessage& request, DlrdMessage& reply)
{
    if (fd < 0 || !DlrdSendMessage(fd, 1, request))
        return false;
    DlrdFrameReader frames;
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 5000) != 1 || frames.ReadAvailable(fd) != DlrdFrameReader::Ok)
            return false;
        quint32 id = 0;
        const DlrdDecodeResult result = frames.Next(id, reply);
        if (result != DlrdDecodeResult::NeedMore)
            return result == DlrdDecodeResult::Complete;
    }
}

// The bytes of the file the helper opened, or null when it refused.
QByteArray openThroughHelper(int connection, const QByteArray& path, int flags)
{
    DlrdMessage request;
    request.SetInt64("message", 66002);
    request.SetString("filepath", path);
    request.SetInt64("fileoflag", flags);
    request.SetInt64("filemode", 0644);
    DlrdMessage reply;
    const int fd = ask(connection, request, reply) ? reply.DupDescriptor("fd") : -1;
    if (fd < 0)
        return QByteArray();
    return (flags & O_ACCMODE) == O_WRONLY ? QByteArray("") : readToEnd(fd);
}

// The installer's output, and its `pid`; -1 and the helper's reason when refused.
int runInstaller(int connection, const char* installer, const char* package, QByteArray& why, qint64& pid)
{
    DlrdMessage request;
    request.SetInt64("message", 66003);
    request.SetStringArray("argv", {installer, "-verboseR", "-target", "/", "-package", package});
    DlrdMessage reply;
    const bool answered = ask(connection, request, reply);
    pid = reply.Int64("childpid");
    if (answered && pid > 0)
        return reply.DupDescriptor("fd");
    const QByteArray* text = reply.String("execerror");
    why = text ? *text : "no reply";
    return -1;
}

int exec(const char* installer, const char* package)
{
    QByteArray why;
    qint64 pid = 0;
    const int output = runInstaller(connectTo(socketPath), installer, package, why, pid);
    if (output < 0) {
        std::printf("refused: %s\n", why.constData());
        return 1;
    }
    std::fputs(readToEnd(output).constData(), stdout);
    return 0;
}

// As root, for each of `uids` in turn: a connection made as that user asks
// for the installer and is closed at the reply; the installer's output stays
// open. Then each installer that ran is killed and waited for until the
// helper collected it, and the first user asks once more. Prints what each
// request got on one line, then holds until killed.
int crowd(const char* installer, const char* package, char** uids, int count)
{
    QVector<pid_t> running;
    const auto askAs = [&](const char* uid) -> QByteArray {
        // The helper knows a peer by the effective ids it connected with
        // (the group too: root's group may not reach the socket).
        const int id = std::atoi(uid);
        if (::setegid(gid_t(id)) != 0 || ::seteuid(uid_t(id)) != 0)
            return "no such ids";
        const int connection = connectTo(socketPath);
        if (::seteuid(0) != 0 || ::setegid(0) != 0)
            ::_exit(3);
        QByteArray why;
        qint64 pid = 0;
        const int output = runInstaller(connection, installer, package, why, pid);
        ::close(connection);
        if (output < 0)
            return "refused: " + why;
        running.append(pid_t(pid));
        return "ran";
    };
    QByteArrayList got;
    for (int i = 0; i < count; ++i)
        got << askAs(uids[i]);
    int zombies = 0;
    for (const pid_t pid : qAsConst(running)) {
        ::kill(pid, SIGKILL);
        int waited = 0;
        while (::kill(pid, 0) == 0 && ++waited < 100) // a zombie still takes signals
            ::usleep(100000);
        zombies += waited == 100 ? 1 : 0;
    }
    const QByteArray again = askAs(uids[0]);
    std::printf("%s; zombies=%d; again: %s\n", got.join(", ").constData(), zombies, again.constData());
    std::fflush(stdout);
    ::pause();
    return 0;
}

// Each connection asks for the version once, then stays open and idle.
int hold(int count, int seconds)
{
    int answered = 0;
    DlrdMessage request;
    request.SetInt64("message", 66001);
    for (int i = 0; i < count; ++i) {
        DlrdMessage reply;
        answered += ask(connectTo(socketPath), request, reply) ? 1 : 0;
    }
    std::printf("answered=%d refused=%d\n", answered, count - answered);
    std::fflush(stdout);
    ::sleep(unsigned(seconds));
    return 0;
}

// <dir>/sub (a folder of ours holding "file") trades places with <dir>/evil
// (a link to a folder we may not read) <count> times, while we ask the
// helper to read <dir>/sub/file and create <dir>/sub/made-<n>. Prints the
// swaps, the reads that came back, and those that showed the secret.
int race(const char* dir, int count)
{
    const QByteArray sub = QByteArray(dir) + "/sub";
    const QByteArray evil = QByteArray(dir) + "/evil";
    const pid_t swapper = ::fork();
    if (swapper == 0) {
        for (int i = 0; i < count; ++i)
            if (::syscall(SYS_renameat2, AT_FDCWD, sub.constData(), AT_FDCWD, evil.constData(), RENAME_EXCHANGE) != 0)
                ::_exit(2);
        ::_exit(0);
    }
    const int connection = connectTo(socketPath);
    int reads = 0;
    int secrets = 0;
    for (int attempt = 0;; ++attempt) {
        int status = 0;
        const bool done = ::waitpid(swapper, &status, WNOHANG) == swapper;
        const QByteArray got = openThroughHelper(connection, sub + "/file", O_RDONLY);
        reads += got.isNull() ? 0 : 1;
        secrets += got.contains("secret") ? 1 : 0;
        openThroughHelper(connection, sub + "/made-" + QByteArray::number(attempt), O_WRONLY | O_CREAT | O_EXCL);
        if (done) {
            std::printf("swaps=%d reads=%d secrets=%d\n", WIFEXITED(status) && WEXITSTATUS(status) == 0 ? count : -1,
                        reads, secrets);
            return 0;
        }
    }
}

// One connection of the scripted server. <how>: "late" (replies after 1.5
// s), "pid0", "fail" or "fail-silent" (child pid -1, with or without a
// reason), "no-fd", "drop-exec" (no reply to an execute request),
// "terminate-exec" (announces its end instead), "die" (ends the process at
// the second request), "no-build", "unsolicited" (a message after each
// reply); anything else replies as the helper would.
void serveOne(int fd, const QByteArray& how, int devnull)
{
    static int requests = 0;
    DlrdFrameReader frames;
    quint32 id;
    DlrdMessage request;
    while (frames.ReadAvailable(fd) == DlrdFrameReader::Ok) {
        while (frames.Next(id, request) == DlrdDecodeResult::Complete) {
            const qint64 code = request.Int64("message");
            if (++requests == 2 && how == "die")
                ::_exit(3);
            if (code == 66003 && how == "drop-exec")
                continue;
            DlrdMessage reply;
            if (code == 66003 && how == "terminate-exec") {
                reply.SetString("event", "terminating");
                DlrdSendMessage(fd, 0, reply);
                return;
            }
            if (how == "late")
                ::usleep(1500 * 1000);
            if (code == 66001)
                reply.SetInt64("apiversion", 7);
            if (code == 66001 && how != "no-build")
                reply.SetString("buildversion", "scripted");
            if (code == 66003)
                reply.SetInt64("childpid", how == "pid0" ? 0 : how.startsWith("fail") ? -1 : ::getpid());
            if (code == 66003 && how != "fail-silent")
                reply.SetString("execerror", "scripted failure");
            if ((code == 66002 || code == 66003) && how != "no-fd")
                reply.SetDescriptor("fd", devnull);
            DlrdSendMessage(fd, id, reply);
            if (how == "unsolicited") {
                DlrdMessage event;
                event.SetString("event", "surprise");
                DlrdSendMessage(fd, 0, event);
            }
        }
    }
}

int serve(const QByteArray& how)
{
    const sockaddr_un address = helperAddress(socketPath);
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || ::listen(listener, 8) != 0)
        return 1;
    const int devnull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    for (;;) {
        const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        serveOne(fd, how, devnull);
        ::close(fd);
    }
}

} // namespace

int main(int argc, char** argv)
{
    // Every command ends with the socket, given as the helper takes it.
    if (argc < 5 || std::strcmp(argv[argc - 2], "--socket") != 0)
        return 2;
    socketPath = argv[argc - 1];
    const QByteArray command = argv[1];
    const bool two = argc == 6; // arguments between the command and the socket
    if (command == "exec" && two)
        return exec(argv[2], argv[3]);
    if (command == "open" && two) {
        const QByteArray bytes = openThroughHelper(connectTo(socketPath), argv[2], std::atoi(argv[3]));
        std::fputs(bytes.isNull() ? "refused\n" : bytes.constData(), stdout);
        return bytes.isNull() ? 1 : 0;
    }
    if (command == "crowd" && argc > 6)
        return crowd(argv[2], argv[3], argv + 4, argc - 6);
    if (command == "hold" && two)
        return hold(std::atoi(argv[2]), std::atoi(argv[3]));
    if (command == "race" && two)
        return race(argv[2], std::atoi(argv[3]));
    if (command == "silent")
        return std::puts(hungUp(connectTo(socketPath), std::atoi(argv[2]) * 1000) ? "dropped" : "kept") < 0;
    return command == "serve" ? serve(argv[2]) : 2;
}
