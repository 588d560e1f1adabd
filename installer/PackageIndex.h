#pragma once

// The index that opens every package: what the package is and every entry
// of its payload, in archive order. It is the part a signature covers
// (Signature.h), small, and checked whole before any payload byte is
// decompressed; the payload is then held to it entry by entry
// (PayloadCheck). tools/make-pkg writes it; keep the two in step.
//
// The archive, a gzip-compressed tar, holds in this order: the member
// "Signature" (only when signed), the member "Index", then one member per
// row, named "Payload/" and the row's path, and nothing else.
//
// The index's bytes, numbers big-endian:
//
//   "velluma-pkg-index-1\n"
//   info     4-byte length, then PackageInfo's text:
//            <pkg-info identifier=".." version=".."/>
//   count    4-byte number of rows
//   then each row:
//     type   1 byte: 'f' file, 'd' folder, 'l' symbolic link, 'h' hard link
//     mode   2 bytes: the permission bits, set-id and sticky included
//     size   8 bytes: a file's length, else 0
//     sha256 32 bytes: the SHA-256 of a file's content, else zeros
//     path   2-byte length, then the bytes: where it goes below the
//            target, in plain form (no empty, "." or ".." component, not
//            absolute)
//     link   2-byte length, then the bytes: a symbolic link's target as
//            it is made; a hard link's, the path of a file row before it;
//            else empty
//
// Nothing follows the last row. Every field has one encoding, so one
// package has one index; owners and times are not in it, since the
// installer does not install them.

#include "ArchiveReader.h"
#include "Sha256.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

constexpr char kIndexMember[] = "Index";

struct IndexRow
{
    EntryType type = EntryType::Other;
    unsigned mode = 0;
    std::uint64_t size = 0;
    const unsigned char* sha256 = nullptr; // 32 bytes in the index
    std::string_view path;
    std::string_view link;
};

class PackageIndex
{
public:
    // Throws Refused, saying what is wrong.
    static PackageIndex parse(std::vector<char> bytes);

    PackageIndex(PackageIndex&&) = default;
    PackageIndex& operator=(PackageIndex&&) = default;
    PackageIndex(const PackageIndex&) = delete;
    PackageIndex& operator=(const PackageIndex&) = delete;

    // The layout above for `rows` (sha256 may be null for non-files).
    static std::vector<char> compose(std::string_view info, const std::vector<IndexRow>& rows);

    std::string_view text() const { return {bytes.data(), bytes.size()}; }

    std::string_view info; // PackageInfo's text

    std::string identifier;
    std::string version;
    std::vector<IndexRow> rows; // views into the bytes below
    std::uint64_t fileBytes = 0;

private:
    PackageIndex() = default;

    std::vector<char> bytes;
};
