#pragma once

// The helper's socket as the tests and the test client use it, below the
// product's client: raw connections, descriptors read to their end.

#include <QByteArray>

#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

inline sockaddr_un helperAddress(const char* path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    return address;
}

// A connected socket, or -1.
inline int connectTo(const char* path)
{
    const sockaddr_un address = helperAddress(path);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return fd;
    ::close(fd);
    return -1;
}

// All `fd` gives until end-of-file; closes it.
inline QByteArray readToEnd(int fd)
{
    QByteArray all;
    char buffer[4096];
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;)
        all.append(buffer, int(n));
    ::close(fd);
    return all;
}

// True when the peer hung up within `ms` without sending anything.
inline bool hungUp(int fd, int ms)
{
    pollfd p{fd, POLLIN, 0};
    char byte;
    return ::poll(&p, 1, ms) == 1 && ::read(fd, &byte, 1) == 0;
}
