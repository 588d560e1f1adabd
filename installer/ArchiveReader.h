#pragma once

// The package archive as a list of entries, read from memory with
// libarchive: a gzip-compressed tar archive and nothing else. Names come
// out checked and normalised the same way for every reader of the package,
// so the checks, the digest and the unpacking all see the same paths.

#include <cstdint>
#include <string>
#include <string_view>

struct archive;

enum class EntryType { File, Folder, Symlink, Hardlink, Other };

struct ArchiveEntry
{
    std::string name;  // as stored, for messages
    std::string path;  // normalizedName(name)
    EntryType type = EntryType::Other;
    unsigned mode = 0; // permission bits with set-id and sticky, mode & 07777
    std::string link;  // a symbolic link's target as stored; a hard link's, normalised
    std::uint64_t size = 0;

    bool operator==(const ArchiveEntry& other) const
    {
        return path == other.path && type == other.type && mode == other.mode && link == other.link
            && size == other.size;
    }
};

// Entries below this folder of the archive are installed under the target.
constexpr std::string_view kPayloadFolder = "Payload/";

inline bool inPayload(std::string_view path)
{
    return path.substr(0, kPayloadFolder.size()) == kPayloadFolder;
}

// `name` split at '/' with empty and "." components dropped. Throws Refused for
// an absolute name (or one with a backslash) and for one with "..".
std::string normalizedName(std::string_view name);

class ArchiveReader
{
public:
    // `packageName` only goes into messages. Throws Refused when the bytes
    // are not a gzip-compressed archive.
    ArchiveReader(std::string_view bytes, const std::string& packageName);
    ~ArchiveReader();
    ArchiveReader(const ArchiveReader&) = delete;
    ArchiveReader& operator=(const ArchiveReader&) = delete;

    // The next entry; false at the end of the archive. Throws Refused.
    bool next(ArchiveEntry& entry);
    // Up to `size` bytes of the current entry's content, 0 at its end.
    size_t read(char* buffer, size_t size);

private:
    [[noreturn]] void fail() const;

    archive* reader;
    std::string packageName;
    bool first = true;
};
