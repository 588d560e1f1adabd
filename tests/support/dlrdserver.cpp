// A second, scripted helper for the client's tests: a real server on the
// helper's socket, speaking the real wire format, that misbehaves in the
// ways the real daemon never does on purpose. Serves one connection at a
// time until killed.
//
//   dlrdserver --socket <path> [--delay-ms N] [--childpid N] [--no-execerror]
//              [--no-fd] [--drop <code>] [--terminate-on <code>]
//              [--no-build] [--unsolicited] [--die-after <n>]

#include "DlrdWire.h"

#include <QByteArray>
#include <QList>

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

struct Script {
    int delayMs = 0;
    qint64 childPid = -2; // -2: run nothing, but reply with a real pid
    bool execError = true;
    bool fd = true;
    qint64 drop = 0;
    qint64 terminateOn = 0;
    int dieAfter = 0; // ends the process on the n-th request, as a helper that crashes
    bool build = true;
    bool unsolicited = false;
};

DlrdMessage replyTo(const DlrdMessage& request, const Script& script, int devnull)
{
    DlrdMessage reply;
    switch (request.Int64("message")) {
    case 66001:
        reply.SetInt64("apiversion", 7);
        if (script.build)
            reply.SetString("buildversion", "scripted");
        break;
    case 66002:
        if (script.fd)
            reply.SetDescriptor("fd", devnull);
        break;
    case 66003:
        reply.SetInt64("childpid", script.childPid == -2 ? qint64(getpid()) : script.childPid);
        if (script.execError)
            reply.SetString("execerror", "scripted failure");
        if (script.fd)
            reply.SetDescriptor("fd", devnull);
        break;
    }
    return reply;
}

void serve(int fd, const Script& script, int devnull)
{
    DlrdFrameReader frames;
    while (frames.ReadAvailable(fd) == DlrdFrameReader::Ok) {
        quint32 id;
        DlrdMessage request;
        while (frames.Next(id, request) == DlrdDecodeResult::Complete) {
            const qint64 code = request.Int64("message");
            static int requests = 0;
            if (++requests == script.dieAfter)
                ::_exit(3);
            if (code == script.drop)
                continue;
            if (code == script.terminateOn) {
                DlrdMessage announcement;
                announcement.SetString("event", "terminating");
                DlrdSendMessage(fd, 0, announcement);
                return;
            }
            if (script.delayMs)
                ::usleep(useconds_t(script.delayMs) * 1000);
            DlrdSendMessage(fd, id, replyTo(request, script, devnull));
            if (script.unsolicited) {
                DlrdMessage event;
                event.SetString("event", "surprise");
                DlrdSendMessage(fd, 0, event);
            }
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    Script script;
    QByteArray path;
    for (int i = 1; i < argc; ++i) {
        const QByteArray arg = argv[i];
        const QByteArray value = i + 1 < argc ? QByteArray(argv[i + 1]) : QByteArray();
        if (arg == "--socket")
            path = value, ++i;
        else if (arg == "--delay-ms")
            script.delayMs = value.toInt(), ++i;
        else if (arg == "--childpid")
            script.childPid = value.toLongLong(), ++i;
        else if (arg == "--drop")
            script.drop = value.toLongLong(), ++i;
        else if (arg == "--terminate-on")
            script.terminateOn = value.toLongLong(), ++i;
        else if (arg == "--die-after")
            script.dieAfter = value.toInt(), ++i;
        else if (arg == "--no-execerror")
            script.execError = false;
        else if (arg == "--no-fd")
            script.fd = false;
        else if (arg == "--no-build")
            script.build = false;
        else if (arg == "--unsolicited")
            script.unsolicited = true;
        else {
            std::fprintf(stderr, "dlrdserver: unknown option %s\n", argv[i]);
            return 2;
        }
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.constData(), sizeof address.sun_path - 1);
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ::unlink(address.sun_path);
    if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(listener, 8) != 0) {
        std::perror("dlrdserver");
        return 1;
    }
    const int devnull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    for (;;) {
        const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        serve(fd, script, devnull);
        ::close(fd);
    }
}
