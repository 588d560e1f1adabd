#include "PayloadCheck.h"

#include "Refused.h"

#include <algorithm>
#include <cstring>
#include <numeric>

namespace {

// The part of an archive name below Payload/, or nothing.
std::string_view belowPayload(std::string_view path)
{
    return inPayload(path) ? path.substr(kPayloadFolder.size()) : std::string_view();
}

} // namespace

PayloadCheck::PayloadCheck(const PackageIndex& index) : rows(index.rows), byPath(index.rows.size())
{
    std::iota(byPath.begin(), byPath.end(), 0);
    std::sort(byPath.begin(), byPath.end(), [this](std::uint32_t a, std::uint32_t b) { return rows[a].path < rows[b].path; });
}

size_t PayloadCheck::find(std::string_view path) const
{
    const auto found = std::lower_bound(byPath.begin(), byPath.end(), path,
                                        [this](std::uint32_t row, std::string_view key) { return rows[row].path < key; });
    return found != byPath.end() && rows[*found].path == path ? *found : rows.size();
}

const IndexRow& PayloadCheck::begin(const ArchiveEntry& entry)
{
    shown = entry.name;
    const std::string_view path = belowPayload(entry.path);
    if (next >= rows.size() || path != rows[next].path) {
        const size_t at = path.empty() ? rows.size() : find(path);
        if (at == rows.size())
            throw Refused("entry " + shown + " is not in the package's index");
        if (at < next)
            throw Refused("entry " + shown + " is in the package twice");
        throw Refused("entry " + shown + " is out of the index's order: the package's entry "
                      + std::string(rows[next].path) + " should come first");
    }
    const IndexRow& row = rows[next++];
    const char* differs = entry.type != row.type ? "type"
        : entry.mode != row.mode                 ? "mode"
        : entry.size != row.size                 ? "size"
        : entry.type == EntryType::Hardlink ? (belowPayload(entry.link) != row.link ? "link" : nullptr)
        : entry.link != row.link            ? "link"
                                            : nullptr;
    if (differs)
        throw Refused("entry " + shown + " has another " + differs + " than the package's index says");
    got = 0;
    return row;
}

void PayloadCheck::content(const char* data, size_t size)
{
    got += size;
    if (got > rows[next - 1].size)
        throw Refused("entry " + shown + " is longer than the package's index says");
    sha.add(data, size);
}

void PayloadCheck::end()
{
    const IndexRow& row = rows[next - 1];
    if (got != row.size)
        throw Refused("entry " + shown + " is shorter than the package's index says");
    const Digest digest = sha.finish();
    if (row.type == EntryType::File && std::memcmp(digest.data(), row.sha256, digest.size()) != 0)
        throw Refused("entry " + shown + " is not the content the package's index says (another SHA-256)");
}

void PayloadCheck::finish() const
{
    if (next < rows.size())
        throw Refused("the package ends without its entry " + std::string(rows[next].path));
}
