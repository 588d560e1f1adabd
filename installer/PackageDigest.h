#pragma once

// The digest a package's signature covers: SHA-256 over every entry of
// the archive but the signature member, in archive order. tools/make-pkg
// computes the same; keep the two in step.
//
//   "velluma-pkg-digest-1\n"
//   then for each entry:
//     type     1 byte: 'f' file, 'd' folder, 'l' symbolic link, 'h' hard link
//     path     8-byte big-endian length, then the bytes; the entry's name
//              split at '/' with empty and "." components dropped, as installed
//     mode     4-byte big-endian: the permission bits, set-id and sticky
//              included (mode & 07777)
//     link     8-byte length, then the bytes: a symbolic link's target as
//              stored, a hard link's target as a path above, else empty
//     content  8-byte length, then the bytes: a file's content, else empty
//
// Every field is length-prefixed, so two different lists of entries never
// give the same bytes; what is hashed is what the installer acts on
// (owners and times are not: it does not install them).

#include "ArchiveReader.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string_view>

typedef struct evp_md_ctx_st EVP_MD_CTX;

using Digest = std::array<unsigned char, 32>;

class PackageDigest
{
public:
    PackageDigest();

    // The entry's fields; its content follows through content().
    void entry(const ArchiveEntry& entry);
    void content(const void* data, size_t size);
    Digest finish();

private:
    void add(const void* data, size_t size);
    void addNumber(std::uint64_t value, int bytes);

    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context;
};
