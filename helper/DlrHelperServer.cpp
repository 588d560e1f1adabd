#include "DlrHelperServer.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

namespace {

// Connections of users other than root, in all and per user: one user
// cannot take every place, and root always finds one of its own.
constexpr int kMaxClients = 64;
constexpr int kMaxClientsPerUser = 8;
constexpr int kRootClients = 16;
// A connection owes a complete request this long after it opened or began
// one; a silent or trickling one is dropped.
constexpr qint64 kRequestTimeMs = 5000;

qint64 nowMs()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return qint64(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Written by the signal handlers, read by the poll loop.
int stopPipe[2] = {-1, -1};
int childPipe[2] = {-1, -1};

void onStop(int)
{
    const int saved = errno;
    (void)!::write(stopPipe[1], "x", 1);
    errno = saved;
}

// The poll loop collects the child: the count of running installers is
// kept there, not in a signal handler.
void onChild(int)
{
    const int saved = errno;
    (void)!::write(childPipe[1], "x", 1);
    errno = saved;
}

void installSignals()
{
    ::pipe2(stopPipe, O_CLOEXEC | O_NONBLOCK);
    ::pipe2(childPipe, O_CLOEXEC | O_NONBLOCK);
    struct sigaction action {};
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    action.sa_handler = onStop;
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGINT, &action, nullptr);
    action.sa_handler = onChild;
    action.sa_flags = SA_RESTART | SA_NOCLDSTOP;
    ::sigaction(SIGCHLD, &action, nullptr);
    // A client that vanishes mid-reply must not end the helper.
    ::signal(SIGPIPE, SIG_IGN);
}

} // namespace

DlrHelperServer::DlrHelperServer(const DlrHelperOptions& options) : options(options), requests(options) {}

DlrHelperServer::~DlrHelperServer()
{
    for (const Client& client : clients)
        ::close(client.fd);
    if (listener >= 0) {
        ::close(listener);
        ::unlink(options.socketPath.constData());
    }
}

bool DlrHelperServer::listen()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (size_t(options.socketPath.size()) >= sizeof address.sun_path) {
        syslog(LOG_ERR, "socket path too long: %s", options.socketPath.constData());
        return false;
    }
    std::memcpy(address.sun_path, options.socketPath.constData(), size_t(options.socketPath.size()));

    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    // A socket left behind by a helper that died is replaced; one that
    // still answers belongs to a running helper, and anything else is not
    // ours to remove.
    struct stat existing;
    if (::lstat(address.sun_path, &existing) == 0) {
        const bool answers =
            ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 || errno == EAGAIN;
        if (answers || !S_ISSOCK(existing.st_mode)) {
            syslog(LOG_ERR, "%s: %s", address.sun_path, answers ? "another helper is listening" : "not a socket");
            ::close(fd);
            return false;
        }
        ::close(fd);
        ::unlink(address.sun_path);
        return listen();
    }
    // The socket is made with its mode (0666) at once: changing it later by
    // name could be turned, by whoever can rename in its folder, on
    // another file.
    const mode_t saved = ::umask(0111);
    const bool bound = ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::umask(saved);
    if (!bound || ::listen(fd, SOMAXCONN) != 0) {
        syslog(LOG_ERR, "cannot listen on %s: %s", address.sun_path, std::strerror(errno));
        ::close(fd);
        return false;
    }
    // Anyone may connect: who is served is decided by the peer's credentials.
    listener = fd;
    syslog(LOG_NOTICE, "listening on %s", address.sun_path);
    return true;
}

void DlrHelperServer::accept()
{
    const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0)
        return;
    ucred peer{};
    socklen_t size = sizeof peer;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        ::close(fd);
        return;
    }
    if (peer.uid != 0 && !options.allowedUids.contains(peer.uid)) {
        syslog(LOG_NOTICE, "refused peer uid %u pid %d", unsigned(peer.uid), int(peer.pid));
        ::close(fd);
        return;
    }
    int mine = 0;
    int others = 0;
    for (const Client& client : clients)
        (client.uid == peer.uid ? mine : others) += 1;
    const bool full = peer.uid == 0 ? mine >= kRootClients
                                    : mine >= kMaxClientsPerUser || mine + others - rootClients() >= kMaxClients;
    if (full) {
        syslog(LOG_NOTICE, "refused peer uid %u pid %d: too many connections", unsigned(peer.uid), int(peer.pid));
        ::close(fd);
        return;
    }
    // A client that stops reading costs us a second per reply, not forever.
    const timeval limit{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    clients.push_back(Client{fd, peer.uid, peer.pid, {}, nowMs() + kRequestTimeMs});
}

bool DlrHelperServer::serve(Client& client)
{
    QString why;
    switch (client.frames.ReadAvailable(client.fd, &why)) {
    case DlrdFrameReader::Ok:
        break;
    case DlrdFrameReader::Closed:
        if (client.frames.HasPartialFrame())
            syslog(LOG_NOTICE, "dropped connection of pid %d: truncated frame", int(client.pid));
        return false;
    case DlrdFrameReader::Failed:
        syslog(LOG_NOTICE, "dropped connection of pid %d: %s", int(client.pid), why.toLocal8Bit().constData());
        return false;
    }
    for (;;) {
        quint32 id = 0;
        DlrdMessage request;
        switch (client.frames.Next(id, request, &why)) {
        case DlrdDecodeResult::NeedMore:
            return true;
        case DlrdDecodeResult::Malformed:
            syslog(LOG_NOTICE, "dropped connection of pid %d: %s", int(client.pid), why.toLocal8Bit().constData());
            return false;
        case DlrdDecodeResult::Complete:
            break;
        }
        DlrdMessage reply;
        if (!requests.Answer(request, client.uid, reply, why)) {
            syslog(LOG_NOTICE, "dropped connection of pid %d: %s", int(client.pid), why.toLocal8Bit().constData());
            return false;
        }
        if (!DlrdSendMessage(client.fd, id, reply))
            return false; // gone, or not reading: nothing to tell it
        client.deadline = 0;
    }
}

int DlrHelperServer::rootClients() const
{
    int n = 0;
    for (const Client& client : clients)
        n += client.uid == 0 ? 1 : 0;
    return n;
}

int DlrHelperServer::dropLateClients()
{
    const qint64 now = nowMs();
    qint64 next = -1;
    for (auto it = clients.begin(); it != clients.end();) {
        if (it->deadline == 0 && it->frames.HasPartialFrame())
            it->deadline = now + kRequestTimeMs;
        if (it->deadline != 0 && it->deadline <= now) {
            syslog(LOG_NOTICE, "dropped connection of pid %d: no complete request in time", int(it->pid));
            ::close(it->fd);
            it = clients.erase(it);
            continue;
        }
        if (it->deadline != 0 && (next < 0 || it->deadline < next))
            next = it->deadline;
        ++it;
    }
    return next < 0 ? -1 : int(next - now);
}

void DlrHelperServer::announceTermination()
{
    DlrdMessage announcement;
    announcement.SetString("event", "terminating");
    // Never wait on a client that stopped reading: we are asked to go now.
    for (const Client& client : clients) {
        ::fcntl(client.fd, F_SETFL, ::fcntl(client.fd, F_GETFL) | O_NONBLOCK);
        DlrdSendMessage(client.fd, 0, announcement);
    }
}

int DlrHelperServer::Run()
{
    installSignals();
    if (!listen())
        return 1;
    std::vector<pollfd> watched;
    for (;;) {
        const int wait = dropLateClients();
        watched.clear();
        watched.push_back({stopPipe[0], POLLIN, 0});
        watched.push_back({listener, POLLIN, 0});
        watched.push_back({childPipe[0], POLLIN, 0});
        for (const Client& client : clients)
            watched.push_back({client.fd, POLLIN, 0});
        if (::poll(watched.data(), watched.size(), wait) < 0) {
            if (errno == EINTR)
                continue;
            syslog(LOG_ERR, "poll: %s", std::strerror(errno));
            return 1;
        }
        if (watched[0].revents) {
            syslog(LOG_NOTICE, "stopping");
            announceTermination();
            return 0;
        }
        // Ended installers first, so that their places are free for the
        // requests read now.
        char drained[64];
        while (::read(childPipe[0], drained, sizeof drained) > 0) {
        }
        requests.Reap();
        // Clients next: the list may grow in accept().
        auto it = clients.begin();
        for (size_t i = 3; i < watched.size(); ++i) {
            auto current = it++;
            if (watched[i].revents && !serve(*current)) {
                ::close(current->fd);
                clients.erase(current);
            }
        }
        if (watched[1].revents)
            accept();
    }
}
