#pragma once

// Disks that run out: a small tmpfs mounted on a folder (root only), or a
// file-size limit on this process, under which writing fails the way a
// full disk makes it fail.

#include <QProcess>
#include <QString>

#include <sys/resource.h>

class TmpfsMount
{
public:
    // `size` as mount takes it: "1m", "4m".
    TmpfsMount(const QString& folder, const QString& size)
        : folder(folder)
        , mounted(QProcess::execute(QStringLiteral("mount"), {"-t", "tmpfs", "-o", "size=" + size, "tmpfs", folder}) == 0)
    {
    }
    ~TmpfsMount()
    {
        if (mounted)
            QProcess::execute(QStringLiteral("umount"), {folder});
    }
    TmpfsMount(const TmpfsMount&) = delete;
    TmpfsMount& operator=(const TmpfsMount&) = delete;

    const QString folder;
    const bool mounted;
};

// SIGXFSZ must be ignored meanwhile, or the write that crosses the limit
// ends the process instead of failing.
class FileSizeLimit
{
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        getrlimit(RLIMIT_FSIZE, &saved);
        rlimit lowered = saved;
        lowered.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &lowered);
    }
    ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &saved); }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit saved{};
};
