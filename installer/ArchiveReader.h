#pragma once

// The package archive as a stream of entries, read with libarchive from a
// descriptor (or from memory: the fuzzers): a gzip-compressed tar archive
// and nothing else. Names come
// out checked and normalised the same way for every reader of the package,
// so the checks, the digest and the unpacking all see the same paths.

#include <cstdint>
#include <memory>
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
    // are not a gzip-compressed archive. The bytes must outlive the reader.
    ArchiveReader(std::string_view bytes, const std::string& packageName);
    // From the start of the file open on `fd`, whatever its offset, read
    // once, a block at a time.
    ArchiveReader(int fd, const std::string& packageName);
    ~ArchiveReader();
    ArchiveReader(const ArchiveReader&) = delete;
    ArchiveReader& operator=(const ArchiveReader&) = delete;

    // The next entry; false at the end of the archive. Throws Refused.
    bool next(ArchiveEntry& entry);
    // Up to `size` bytes of the current entry's content, 0 at its end.
    size_t read(char* buffer, size_t size);

    // Where the bytes come from, when not from memory.
    struct Source;

private:
    void open(bool gzip, int status);
    [[noreturn]] void fail() const;

    std::unique_ptr<Source> source;
    archive* reader;
    std::string packageName;
    bool first = true;
};
