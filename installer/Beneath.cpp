#include "Beneath.h"

#include <linux/openat2.h>

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

int openOneFolder(int base, const std::string& name)
{
    open_how how{};
    how.flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    const long fd = ::syscall(SYS_openat2, base, name.c_str(), &how, sizeof how);
    // Without openat2 (an old kernel, a sandbox filtering it) O_NOFOLLOW on
    // a single name, never "..", holds just the same.
    if (fd < 0 && errno == ENOSYS)
        return ::openat(base, name.c_str(), int(how.flags));
    return int(fd);
}

} // namespace

Descriptor openFolderBeneath(int base, const std::string& path, bool create, mode_t mode)
{
    Descriptor current(::fcntl(base, F_DUPFD_CLOEXEC, 0));
    size_t start = 0;
    while (current.valid() && start < path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string::npos)
            end = path.size();
        const std::string name = path.substr(start, end - start);
        start = end + 1;
        int next = openOneFolder(current.get(), name);
        if (next < 0 && errno == ENOENT && create
            && (::mkdirat(current.get(), name.c_str(), mode) == 0 || errno == EEXIST))
            next = openOneFolder(current.get(), name);
        current = Descriptor(next);
    }
    return current;
}

std::vector<std::string> listFolder(int folder)
{
    std::vector<std::string> names;
    DIR* listing = ::fdopendir(::fcntl(folder, F_DUPFD_CLOEXEC, 0));
    if (!listing)
        return names;
    // A duplicate shares the offset: start from the beginning.
    ::rewinddir(listing);
    while (const dirent* entry = ::readdir(listing)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            names.push_back(name);
    }
    ::closedir(listing);
    std::sort(names.begin(), names.end());
    return names;
}

void removeTree(int parent, const std::string& name)
{
    Descriptor folder(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder.valid()) {
        ::unlinkat(parent, name.c_str(), 0);
        return;
    }
    // The package's modes may have closed it to its owner too.
    ::fchmod(folder.get(), 0700);
    for (const std::string& inside : listFolder(folder.get())) {
        struct stat info;
        if (::fstatat(folder.get(), inside.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(info.st_mode))
            removeTree(folder.get(), inside);
        else
            ::unlinkat(folder.get(), inside.c_str(), 0);
    }
    ::unlinkat(parent, name.c_str(), AT_REMOVEDIR);
}

std::string folderOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::string nameOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string inTarget(const std::string& target, std::string_view relative)
{
    return (target == "/" ? std::string() : target) + '/' + std::string(relative);
}
