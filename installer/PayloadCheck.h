#pragma once

// Holds the payload, as it streams, to the package's index: the same
// entries in the same order, each with its row's type, mode, link and
// size, and a file's content with its row's SHA-256. It refuses at the
// first difference, before the next byte is read: an entry not in the
// index, out of order or there twice, one longer or shorter than its row
// or with other content, and rows the archive ends without. What it was
// given is what was checked: callers write the very bytes they pass it.

#include "ArchiveReader.h"
#include "PackageIndex.h"
#include "Sha256.h"

#include <cstdint>
#include <vector>

class PayloadCheck
{
public:
    explicit PayloadCheck(const PackageIndex& index);

    // The archive's next entry: throws Refused unless it is the next row,
    // which it returns.
    const IndexRow& begin(const ArchiveEntry& entry);
    // The entry's content, piece by piece.
    void content(const char* data, size_t size);
    // The end of the entry's content.
    void end();
    // The end of the archive.
    void finish() const;

private:
    // Where `path`, below Payload/, is in the index; rows.size() if nowhere.
    size_t find(std::string_view path) const;

    const std::vector<IndexRow>& rows;
    std::vector<std::uint32_t> byPath; // row numbers, sorted by path
    size_t next = 0;
    std::uint64_t got = 0;
    std::string shown;
    Sha256 sha;
};
