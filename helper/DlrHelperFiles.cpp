#include "DlrHelperFiles.h"

#include <QList>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// The most links a package path may pass through, as the kernel allows.
constexpr int kMaxLinks = 40;

class Fd
{
public:
    explicit Fd(int fd = -1) : fd(fd) {}
    ~Fd() { reset(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd; }
    void reset(int other = -1)
    {
        if (fd >= 0)
            ::close(fd);
        fd = other;
    }
    int release()
    {
        const int kept = fd;
        fd = -1;
        return kept;
    }

private:
    int fd;
};

QString errnoText()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

bool ownedByUs(const struct stat& info, uid_t uid)
{
    return info.st_uid == 0 || info.st_uid == uid;
}

// A folder another user could change under us (add, remove or rename
// entries) unless it is sticky.
bool folderIsSafe(const struct stat& info, uid_t uid)
{
    return ownedByUs(info, uid) && ((info.st_mode & (S_IWGRP | S_IWOTH)) == 0 || (info.st_mode & S_ISVTX));
}

QList<QByteArray> componentsOf(const QByteArray& path)
{
    QList<QByteArray> parts;
    for (const QByteArray& part : path.split('/'))
        if (!part.isEmpty() && part != ".")
            parts << part;
    return parts;
}

} // namespace

int DlrHelperFiles::OpenPackage(const QByteArray& path, uid_t uid, QString& why)
{
    if (!path.startsWith('/') || path.contains('\0')) {
        why = QStringLiteral("not an absolute path");
        return -1;
    }
    Fd folder(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat info {};
    if (folder.get() < 0 || ::fstat(folder.get(), &info) != 0 || !folderIsSafe(info, uid)) {
        why = QStringLiteral("the root folder is not safe");
        return -1;
    }
    QList<QByteArray> pending = componentsOf(path);
    int links = 0;
    while (!pending.isEmpty()) {
        const QByteArray name = pending.takeFirst();
        Fd entry(::openat(folder.get(), name.constData(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        if (entry.get() < 0 || ::fstat(entry.get(), &info) != 0) {
            why = QStringLiteral("%1: %2").arg(QString::fromLocal8Bit(name), errnoText());
            return -1;
        }
        if (S_ISLNK(info.st_mode)) {
            // Read the very link we looked at, not whatever has its name now.
            char target[4096];
            const ssize_t length = ::readlinkat(entry.get(), "", target, sizeof target);
            if (!ownedByUs(info, uid) || length <= 0 || size_t(length) >= sizeof target || ++links > kMaxLinks) {
                why = QStringLiteral("%1: a link that is not yours or root's").arg(QString::fromLocal8Bit(name));
                return -1;
            }
            const QByteArray to(target, int(length));
            pending = componentsOf(to) + pending;
            if (to.startsWith('/'))
                folder.reset(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
            continue;
        }
        if (!pending.isEmpty()) {
            if (!S_ISDIR(info.st_mode) || !folderIsSafe(info, uid)) {
                why = QStringLiteral("%1: a folder others can change").arg(QString::fromLocal8Bit(name));
                return -1;
            }
            folder.reset(entry.release());
            continue;
        }
        // The package itself, opened from the folder we checked: without
        // following a link and without waiting on a FIFO.
        Fd file(::openat(folder.get(), name.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
        struct stat opened {};
        if (file.get() < 0 || ::fstat(file.get(), &opened) != 0) {
            why = QStringLiteral("%1: %2").arg(QString::fromLocal8Bit(name), errnoText());
            return -1;
        }
        if (opened.st_dev != info.st_dev || opened.st_ino != info.st_ino || !S_ISREG(opened.st_mode)) {
            why = QStringLiteral("not a regular file");
            return -1;
        }
        if (!ownedByUs(opened, uid) || (opened.st_mode & (S_IWGRP | S_IWOTH)) || opened.st_nlink != 1) {
            why = QStringLiteral("a file others own, can write or have linked");
            return -1;
        }
        const int flags = ::fcntl(file.get(), F_GETFL);
        ::fcntl(file.get(), F_SETFL, flags & ~O_NONBLOCK);
        return file.release();
    }
    why = QStringLiteral("not a file name");
    return -1;
}

int DlrHelperFiles::OpenBeneath(int folder, const QByteArray& relative, int flags, mode_t mode, QString& why)
{
    open_how how{};
    // Never blocking on a FIFO or a device: what is not a regular file is
    // refused below anyway.
    how.flags = quint64(unsigned(flags) | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    how.mode = (flags & (O_CREAT | O_TMPFILE)) ? (mode & 0777) : 0;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    long fd;
    do
        fd = ::syscall(SYS_openat2, folder, relative.constData(), &how, sizeof how);
    while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        why = errno == EXDEV || errno == ELOOP ? QStringLiteral("leads outside the allowed folder") : errnoText();
        return -1;
    }
    Fd file{int(fd)};
    struct stat info {};
    if (::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
        why = QStringLiteral("not a regular file");
        return -1;
    }
    if (!(flags & O_NONBLOCK))
        ::fcntl(file.get(), F_SETFL, ::fcntl(file.get(), F_GETFL) & ~O_NONBLOCK);
    return file.release();
}
