#include "ArchiveReader.h"

#include "Limits.h"
#include "Refused.h"

#include <archive.h>
#include <archive_entry.h>

#include <cerrno>
#include <cstring>
#include <unistd.h>
#include <vector>

std::string normalizedName(std::string_view name)
{
    if ((!name.empty() && name.front() == '/') || name.find('\\') != std::string_view::npos)
        throw Refused("absolute entry name: " + std::string(name));
    if (name.size() > limits::kPathBytes)
        throw Refused("entry name longer than 4096 bytes: " + std::string(name.substr(0, 200)));
    std::string path;
    std::uint64_t depth = 0;
    size_t start = 0;
    while (start <= name.size()) {
        size_t end = name.find('/', start);
        if (end == std::string_view::npos)
            end = name.size();
        const std::string_view component = name.substr(start, end - start);
        start = end + 1;
        if (component.empty() || component == ".")
            continue;
        if (component == "..")
            throw Refused("entry name with '..': " + std::string(name));
        if (component.size() > limits::kComponentBytes || ++depth > limits::kPathDepth)
            throw Refused("entry name too long or too deep: " + std::string(name));
        if (!path.empty())
            path += '/';
        path += component;
    }
    return path;
}

struct ArchiveReader::Source
{
    int fd;
    std::uint64_t offset = 0;
    std::vector<char> buffer = std::vector<char>(1 << 20);
};

namespace {

la_ssize_t readBlock(archive* reader, void* data, const void** block)
{
    auto* source = static_cast<ArchiveReader::Source*>(data);
    for (;;) {
        const ssize_t n = ::pread(source->fd, source->buffer.data(), source->buffer.size(), off_t(source->offset));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            archive_set_error(reader, errno, "cannot read it: %s", std::strerror(errno));
            return -1;
        }
        source->offset += std::uint64_t(n);
        *block = source->buffer.data();
        return n;
    }
}

// Only gzip-compressed tar: libarchive would read a bare tar as well.
archive* newReader()
{
    archive* reader = archive_read_new();
    if (reader && (archive_read_support_filter_gzip(reader) != ARCHIVE_OK
                   || archive_read_support_format_tar(reader) != ARCHIVE_OK)) {
        archive_read_free(reader);
        return nullptr;
    }
    return reader;
}

} // namespace

ArchiveReader::ArchiveReader(std::string_view bytes, const std::string& packageName)
    : reader(newReader()), packageName(packageName)
{
    const bool gzip = bytes.size() >= 2 && bytes[0] == '\x1f' && bytes[1] == '\x8b';
    open(gzip, reader && gzip ? archive_read_open_memory(reader, bytes.data(), bytes.size()) : ARCHIVE_FATAL);
}

ArchiveReader::ArchiveReader(int fd, const std::string& packageName)
    : source(new Source{fd}), reader(newReader()), packageName(packageName)
{
    unsigned char magic[2] = {};
    const bool gzip = ::pread(fd, magic, sizeof magic, 0) == 2 && magic[0] == 0x1f && magic[1] == 0x8b;
    open(gzip, reader && gzip ? archive_read_open(reader, source.get(), nullptr, readBlock, nullptr) : ARCHIVE_FATAL);
}

void ArchiveReader::open(bool gzip, int status)
{
    if (!reader)
        throw Refused("cannot read archives: out of memory");
    if (!gzip || status != ARCHIVE_OK) {
        archive_read_free(reader);
        throw Refused("not a package archive: " + packageName);
    }
}

ArchiveReader::~ArchiveReader()
{
    archive_read_free(reader);
}

void ArchiveReader::fail() const
{
    const char* why = archive_error_string(reader);
    throw Refused("not a package archive: " + packageName + " (" + (why ? why : "unreadable") + ")");
}

bool ArchiveReader::next(ArchiveEntry& entry)
{
    archive_entry* header = nullptr;
    const int status = archive_read_next_header(reader, &header);
    // A warning means libarchive guessed (a name it could not convert, say):
    // nothing here is installed on a guess.
    if (status != ARCHIVE_OK && status != ARCHIVE_EOF)
        fail();
    if (first && (archive_filter_code(reader, 0) != ARCHIVE_FILTER_GZIP
                  || (archive_format(reader) & ARCHIVE_FORMAT_BASE_MASK) != ARCHIVE_FORMAT_TAR))
        throw Refused("not a package archive: " + packageName);
    first = false;
    if (status == ARCHIVE_EOF)
        return false;

    const char* name = archive_entry_pathname(header);
    if (!name)
        fail();
    entry.name = name;
    entry.path = normalizedName(entry.name);
    entry.mode = unsigned(archive_entry_mode(header)) & 07777;
    entry.link.clear();
    const la_int64_t size = archive_entry_size_is_set(header) ? archive_entry_size(header) : 0;
    if (size < 0)
        fail();
    entry.size = std::uint64_t(size);

    if (const char* target = archive_entry_hardlink(header)) {
        entry.type = EntryType::Hardlink;
        entry.link = normalizedName(target);
        return true;
    }
    switch (archive_entry_filetype(header)) {
    case AE_IFREG:
        entry.type = EntryType::File;
        break;
    case AE_IFDIR:
        entry.type = EntryType::Folder;
        break;
    case AE_IFLNK: {
        entry.type = EntryType::Symlink;
        const char* target = archive_entry_symlink(header);
        if (!target)
            fail();
        entry.link = target;
        if (entry.link.size() > limits::kPathBytes)
            throw Refused("link target longer than 4096 bytes: " + entry.name);
        break;
    }
    default:
        entry.type = EntryType::Other;
    }
    return true;
}

size_t ArchiveReader::read(char* buffer, size_t size)
{
    const la_ssize_t n = archive_read_data(reader, buffer, size);
    if (n < 0)
        fail();
    return size_t(n);
}
