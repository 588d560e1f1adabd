#include "PackageFile.h"

#include "Refused.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>

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

bool regularFile(int fd)
{
    struct stat info;
    return ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
}

} // namespace

Descriptor openPackage(const std::string& path)
{
    if (const char* inherited = std::getenv("VLUM_PACKAGE_FD")) {
        Descriptor source(descriptorFromEnvironment(inherited));
        if (!regularFile(source.get()))
            throw Refused("VLUM_PACKAGE_FD is not open on a regular file: " + path);
        return source;
    }
    Descriptor source(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!source.valid())
        refuse(errno, "cannot open the package ", path);
    if (!regularFile(source.get()))
        throw Refused("not a package archive: " + path + " (not a regular file)");
    return source;
}
