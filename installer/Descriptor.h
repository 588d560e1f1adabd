#pragma once

// Closes a file descriptor when it goes out of scope.

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
