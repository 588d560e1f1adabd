#pragma once

// Closes a file descriptor when it goes out of scope.

#include <cerrno>
#include <unistd.h>
#include <utility>

class Descriptor
{
public:
    explicit Descriptor(int fd = -1) : fd(fd) {}
    Descriptor(Descriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        std::swap(fd, other.fd);
        return *this;
    }
    ~Descriptor()
    {
        if (fd >= 0)
            ::close(fd);
    }

    int get() const { return fd; }
    bool valid() const { return fd >= 0; }
    int release() { return std::exchange(fd, -1); }

private:
    int fd;
};

// Reads `size` bytes of `fd` from its start into `into`. False, with errno
// set (EIO when the file ends sooner), when it cannot.
inline bool readExactly(int fd, char* into, size_t size)
{
    for (size_t got = 0; got < size;) {
        const ssize_t n = ::pread(fd, into + got, size - got, off_t(got));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            errno = n < 0 ? errno : EIO;
            return false;
        }
        got += size_t(n);
    }
    return true;
}

// Writes all of `data` to `fd`. False, with errno set (ENOSPC when nothing
// more goes in), when it cannot.
inline bool writeExactly(int fd, const char* data, size_t size)
{
    for (size_t written = 0; written < size;) {
        const ssize_t n = ::write(fd, data + written, size - written);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            errno = n < 0 ? errno : ENOSPC;
            return false;
        }
        written += size_t(n);
    }
    return true;
}
