#include "Unpacker.h"

#include "ArchiveReader.h"
#include "Beneath.h"
#include "Refused.h"
#include "Signature.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

[[noreturn]] void changed()
{
    throw Refused("the package read differently the second time; nothing was installed");
}

Descriptor parentFolder(int staging, const std::string& path)
{
    Descriptor parent = openFolderBeneath(staging, folderOf(path), true);
    if (!parent.valid())
        throw Refused(withSystemError("cannot make the folder of " + path, errno));
    return parent;
}

} // namespace

void Unpacker::unpack(std::string_view bytes, const PackageContents& contents, const std::string& packageName)
{
    ArchiveReader archive(bytes, packageName);
    PackageDigest digest;
    std::vector<char> buffer(1 << 16);
    const double total = contents.fileBytes > 0 ? double(contents.fileBytes) : 1.0;
    std::uint64_t done = 0;
    size_t index = 0;

    ArchiveEntry entry;
    while (archive.next(entry)) {
        const bool signature = entry.path == kSignatureMember;
        if (!signature)
            digest.entry(entry);
        const bool payload = inPayload(entry.path);
        if (payload && (index >= contents.payload.size() || !(entry == contents.payload[index++])))
            changed();
        const std::string path = payload ? entry.path.substr(kPayloadFolder.size()) : std::string();

        Descriptor file;
        if (payload && entry.type == EntryType::File) {
            progress.status("Writing " + path + kEllipsis);
            const Descriptor parent = parentFolder(staging, path);
            file = Descriptor(::openat(parent.get(), nameOf(path).c_str(),
                                       O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
            if (!file.valid())
                throw Refused(withSystemError("cannot write " + path, errno));
        }
        std::uint64_t got = 0;
        while (const size_t n = archive.read(buffer.data(), buffer.size())) {
            got += n;
            if (got > entry.size)
                changed();
            if (!signature)
                digest.content(buffer.data(), n);
            for (size_t written = 0; file.valid() && written < n;) {
                const ssize_t w = ::write(file.get(), buffer.data() + written, n - written);
                if (w < 0 && errno == EINTR)
                    continue;
                if (w <= 0)
                    throw Refused(withSystemError("cannot write " + path, w < 0 ? errno : ENOSPC));
                written += size_t(w);
            }
        }
        if (got != entry.size)
            changed();

        if (file.valid()) {
            // Set-id bits never come from a package. On the disk before it
            // is moved into place.
            if (::fchmod(file.get(), entry.mode & 0777) != 0 || ::fsync(file.get()) != 0)
                throw Refused(withSystemError("cannot write " + path, errno));
            done += entry.size;
            progress.percent(10 + 80.0 * double(done) / total);
        } else if (payload)
            write(entry, path);
    }
    if (index != contents.payload.size() || digest.finish() != contents.digest)
        changed();

    // Folder modes last, deepest first: a folder closed by its mode is
    // already full.
    for (const auto& [path, mode] : contents.folders) {
        const Descriptor folder = openFolderBeneath(staging, path, false);
        if (!folder.valid() || ::fchmod(folder.get(), mode) != 0)
            throw Refused(withSystemError("cannot set the mode of " + path, errno));
    }
}

void Unpacker::write(const ArchiveEntry& entry, const std::string& path)
{
    if (entry.type == EntryType::Folder) {
        if (!openFolderBeneath(staging, path, true).valid())
            throw Refused(withSystemError("cannot make the folder " + path, errno));
        return;
    }
    const Descriptor parent = parentFolder(staging, path);
    const std::string name = nameOf(path);
    if (entry.type == EntryType::Symlink) {
        if (::symlinkat(entry.link.c_str(), parent.get(), name.c_str()) != 0)
            throw Refused(withSystemError("cannot make the link " + path, errno));
        return;
    }
    // A hard link, to a file of this package written before it.
    const std::string source = entry.link.substr(kPayloadFolder.size());
    const Descriptor sourceFolder = openFolderBeneath(staging, folderOf(source), false);
    if (!sourceFolder.valid()
        || ::linkat(sourceFolder.get(), nameOf(source).c_str(), parent.get(), name.c_str(), 0) != 0)
        throw Refused(withSystemError("cannot make the hard link " + path, errno));
}
