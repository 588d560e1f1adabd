#include "PackageCopy.h"

#include "Descriptor.h"
#include "Limits.h"
#include "Refused.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

int descriptorFromEnvironment(const char* value)
{
    char* end = nullptr;
    errno = 0;
    const long fd = std::strtol(value, &end, 10);
    if (!*value || *end || errno || fd < 0 || fd > 1 << 20)
        throw Refused("VLUM_PACKAGE_FD is not a descriptor: " + std::string(value));
    return int(fd);
}

void writeAll(int fd, const char* data, size_t size)
{
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            throw Refused(withSystemError("cannot copy the package", n < 0 ? errno : ENOSPC));
        data += n;
        size -= size_t(n);
    }
}

} // namespace

PackageCopy PackageCopy::take(const std::string& path)
{
    if (const char* inherited = std::getenv("VLUM_PACKAGE_FD")) {
        const Descriptor source(descriptorFromEnvironment(inherited));
        struct stat info;
        if (::fstat(source.get(), &info) != 0 || !S_ISREG(info.st_mode))
            throw Refused("VLUM_PACKAGE_FD is not open on a regular file: " + path);
        return copyFrom(source.get(), path);
    }
    const Descriptor source(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (source.get() < 0)
        throw Refused(withSystemError("cannot open the package " + path, errno));
    struct stat info;
    if (::fstat(source.get(), &info) != 0 || !S_ISREG(info.st_mode))
        throw Refused("not a package archive: " + path + " (not a regular file)");
    return copyFrom(source.get(), path);
}

PackageCopy PackageCopy::copyFrom(int source, const std::string& path)
{
    const int memory = ::memfd_create("vlum-package", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (memory < 0)
        throw Refused(withSystemError("cannot make a private copy of the package", errno));
    PackageCopy copy(memory, nullptr, 0);

    // From the start, whatever the descriptor's offset: pread.
    std::vector<char> buffer(1 << 20);
    std::uint64_t offset = 0;
    for (;;) {
        const ssize_t n = ::pread(source, buffer.data(), buffer.size(), off_t(offset));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            throw Refused(withSystemError("cannot read the package " + path, errno));
        if (n == 0)
            break;
        offset += std::uint64_t(n);
        if (offset > limits::kPackageBytes)
            throw Refused("the package is larger than 4 GiB: " + path);
        writeAll(memory, buffer.data(), size_t(n));
    }
    if (::fcntl(memory, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL) != 0)
        throw Refused(withSystemError("cannot seal the copy of the package", errno));
    copy.size = size_t(offset);
    if (copy.size > 0) {
        void* map = ::mmap(nullptr, copy.size, PROT_READ, MAP_PRIVATE, memory, 0);
        if (map == MAP_FAILED)
            throw Refused(withSystemError("cannot map the copy of the package", errno));
        copy.map = map;
    }
    return copy;
}

PackageCopy::PackageCopy(PackageCopy&& other) noexcept : memory(other.memory), map(other.map), size(other.size)
{
    other.memory = -1;
    other.map = nullptr;
    other.size = 0;
}

PackageCopy::~PackageCopy()
{
    if (map)
        ::munmap(map, size);
    if (memory >= 0)
        ::close(memory);
}
