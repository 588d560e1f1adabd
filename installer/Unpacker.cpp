#include "Unpacker.h"

#include "Beneath.h"
#include "PayloadCheck.h"
#include "Refused.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

Descriptor parentFolder(int staging, const std::string& path)
{
    Descriptor parent = openFolderBeneath(staging, folderOf(path), true);
    if (!parent.valid())
        refuse(errno, "cannot make the folder of ", path);
    return parent;
}

constexpr std::uint64_t kBytesPerLine = 64 << 20;

} // namespace

void Unpacker::unpack(ArchiveReader& archive, const PackageContents& contents)
{
    PayloadCheck check(contents.index);
    std::vector<char> buffer(1 << 20);
    const double total = contents.index.fileBytes > 0 ? double(contents.index.fileBytes) : 1.0;
    std::uint64_t done = 0;
    std::uint64_t shownAt = 0;
    int shown = 10;

    ArchiveEntry entry;
    while (archive.next(entry)) {
        const IndexRow& row = check.begin(entry);
        const std::string path(row.path);
        if (row.type != EntryType::File) {
            check.end();
            write(row);
            continue;
        }
        progress.status("Writing " + path + kEllipsis);
        const Descriptor parent = parentFolder(staging, path);
        const Descriptor file(::openat(parent.get(), nameOf(path).c_str(),
                                       O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!file.valid())
            refuse(errno, "cannot write ", path);
        while (const size_t n = archive.read(buffer.data(), buffer.size())) {
            check.content(buffer.data(), n);
            if (!writeExactly(file.get(), buffer.data(), n))
                refuse(errno, "cannot write ", path);
            done += n;
            // Inside a large file too, but at most a line per whole percent
            // and per 64 MiB: each line may cost a pause (the demo's pace).
            const int now = int(10 + 80.0 * double(done) / total);
            if (now > shown && done - shownAt >= kBytesPerLine && double(done) < total) {
                shown = now;
                shownAt = done;
                progress.percent(now);
            }
        }
        check.end();
        // Set-id bits never come from a package. On the disk before it is
        // moved into place.
        if (::fchmod(file.get(), row.mode & 0777) != 0 || ::fsync(file.get()) != 0)
            refuse(errno, "cannot write ", path);
        const double now = 10 + 80.0 * double(done) / total;
        progress.percent(now);
        shown = int(now);
        shownAt = done;
    }
    check.finish();

    // Folder modes last, deepest first: a folder closed by its mode is
    // already full.
    for (const auto& [path, mode] : contents.folders) {
        const Descriptor folder = openFolderBeneath(staging, path, false);
        if (!folder.valid() || ::fchmod(folder.get(), mode) != 0)
            refuse(errno, "cannot set the mode of ", path);
    }
}

void Unpacker::write(const IndexRow& row)
{
    const std::string path(row.path);
    if (row.type == EntryType::Folder) {
        if (!openFolderBeneath(staging, path, true).valid())
            refuse(errno, "cannot make the folder ", path);
        return;
    }
    const Descriptor parent = parentFolder(staging, path);
    const std::string name = nameOf(path);
    if (row.type == EntryType::Symlink) {
        if (::symlinkat(std::string(row.link).c_str(), parent.get(), name.c_str()) != 0)
            refuse(errno, "cannot make the link ", path);
        return;
    }
    // A hard link, to a file of this package written before it.
    const std::string source(row.link);
    const Descriptor sourceFolder = openFolderBeneath(staging, folderOf(source), false);
    if (!sourceFolder.valid()
        || ::linkat(sourceFolder.get(), nameOf(source).c_str(), parent.get(), name.c_str(), 0) != 0)
        refuse(errno, "cannot make the hard link ", path);
}
