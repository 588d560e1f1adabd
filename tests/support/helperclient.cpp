// A client of the helper for tests that act as another user (run through
// `setpriv --reuid`): one request, a connection flood, a connection that
// never asks, or an open request raced against a folder swapped for a link.
//
//   helperclient <socket> exec <installer> <package>   output, or "refused: <why>" and exit 1
//   helperclient <socket> open <path> <flags>          the file's bytes, or "refused" and exit 1
//   helperclient <socket> hold <n> <seconds>           opens n connections, says how many
//                                                      were answered, holds them
//   helperclient <socket> silent <seconds>             "dropped" when the helper hangs up
//                                                      on a connection that never asks
//   helperclient <socket> race <dir> <count>           swaps <dir>/sub with <dir>/evil
//                                                      while opening below it

#include "DlrdWire.h"

#include <QByteArray>
#include <QList>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const char* socketPath = nullptr;

int connectHelper()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath, sizeof address.sun_path - 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        return -1;
    return fd;
}

// The reply to one request, within five seconds; false when none came.
bool ask(int fd, const DlrdMessage& request, DlrdMessage& reply)
{
    if (!DlrdSendMessage(fd, 1, request))
        return false;
    DlrdFrameReader frames;
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 5000) != 1 || frames.ReadAvailable(fd) != DlrdFrameReader::Ok)
            return false;
        quint32 id = 0;
        const DlrdDecodeResult result = frames.Next(id, reply);
        if (result == DlrdDecodeResult::Complete)
            return true;
        if (result == DlrdDecodeResult::Malformed)
            return false;
    }
}

QByteArray readAll(int fd)
{
    QByteArray bytes;
    char buffer[4096];
    ssize_t n;
    while ((n = ::read(fd, buffer, sizeof buffer)) > 0)
        bytes.append(buffer, int(n));
    ::close(fd);
    return bytes;
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
    if (!ask(connection, request, reply))
        return QByteArray();
    const int fd = reply.DupDescriptor("fd");
    if (fd < 0)
        return QByteArray();
    return (flags & O_ACCMODE) == O_WRONLY ? QByteArray("") : readAll(fd);
}

int exec(const char* installer, const char* package)
{
    const int connection = connectHelper();
    DlrdMessage request;
    request.SetInt64("message", 66003);
    request.SetStringArray("argv", {installer, "-verboseR", "-target", "/", "-package", package});
    DlrdMessage reply;
    if (connection < 0 || !ask(connection, request, reply) || reply.Int64("childpid") < 1) {
        const QByteArray* why = reply.String("execerror");
        std::printf("refused: %s\n", why ? why->constData() : "no reply");
        return 1;
    }
    std::fputs(readAll(reply.DupDescriptor("fd")).constData(), stdout);
    return 0;
}

int open(const char* path, const char* flags)
{
    const int connection = connectHelper();
    const QByteArray bytes = connection < 0 ? QByteArray() : openThroughHelper(connection, path, std::atoi(flags));
    if (bytes.isNull()) {
        std::puts("refused");
        return 1;
    }
    std::fputs(bytes.constData(), stdout);
    return 0;
}

// Each connection asks for the version once, then stays open and idle.
int hold(int count, int seconds)
{
    int answered = 0;
    DlrdMessage request;
    request.SetInt64("message", 66001);
    for (int i = 0; i < count; ++i) {
        const int fd = connectHelper();
        DlrdMessage reply;
        if (fd >= 0 && ask(fd, request, reply))
            ++answered;
    }
    std::printf("answered=%d refused=%d\n", answered, count - answered);
    std::fflush(stdout);
    ::sleep(unsigned(seconds));
    return 0;
}

int silent(int seconds)
{
    const int fd = connectHelper();
    pollfd p{fd, POLLIN, 0};
    char byte;
    const bool dropped = fd >= 0 && ::poll(&p, 1, seconds * 1000) == 1 && ::read(fd, &byte, 1) == 0;
    std::puts(dropped ? "dropped" : "kept");
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
    const int connection = connectHelper();
    int reads = 0;
    int secrets = 0;
    int attempts = 0;
    for (;;) {
        int status = 0;
        const bool done = ::waitpid(swapper, &status, WNOHANG) == swapper;
        const QByteArray file = sub + "/file";
        const QByteArray got = openThroughHelper(connection, file, O_RDONLY);
        if (!got.isNull())
            ++reads;
        if (got.contains("secret"))
            ++secrets;
        openThroughHelper(connection, sub + "/made-" + QByteArray::number(attempts++), O_WRONLY | O_CREAT | O_EXCL);
        if (done) {
            std::printf("swaps=%d reads=%d secrets=%d\n", WIFEXITED(status) && WEXITSTATUS(status) == 0 ? count : -1,
                        reads, secrets);
            return 0;
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3)
        return 2;
    socketPath = argv[1];
    const QByteArray command = argv[2];
    if (command == "exec" && argc == 5)
        return exec(argv[3], argv[4]);
    if (command == "open" && argc == 5)
        return open(argv[3], argv[4]);
    if (command == "hold" && argc == 5)
        return hold(std::atoi(argv[3]), std::atoi(argv[4]));
    if (command == "silent" && argc == 4)
        return silent(std::atoi(argv[3]));
    if (command == "race" && argc == 5)
        return race(argv[3], std::atoi(argv[4]));
    return 2;
}
