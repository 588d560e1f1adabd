#include "PackageReader.h"

#include "Limits.h"
#include "PayloadTree.h"
#include "Refused.h"
#include "Signature.h"

#include <optional>

namespace {

// A head member's content, whole; it was checked to be a file of at most
// the size its reader keeps.
std::vector<char> content(ArchiveReader& archive, const ArchiveEntry& entry)
{
    std::vector<char> bytes(entry.size);
    size_t got = 0;
    while (got < bytes.size()) {
        const size_t n = archive.read(bytes.data() + got, bytes.size() - got);
        if (n == 0)
            break;
        got += n;
    }
    char more;
    if (got != bytes.size() || archive.read(&more, 1) != 0)
        throw Refused("entry " + entry.name + " does not hold the size it claims");
    return bytes;
}

} // namespace

PackageContents readPackageHead(ArchiveReader& archive, const TrustedKeys& keys, const std::string& packageName)
{
    ArchiveEntry entry;
    bool more = archive.next(entry);
    std::optional<std::string> signature;
    const TrustedKey* key = nullptr;
    if (more && entry.path == kSignatureMember) {
        if (entry.type != EntryType::File || entry.size > limits::kSignatureBytes)
            throw Refused("malformed signature: the member is not one small file");
        const std::vector<char> bytes = content(archive, entry);
        signature.emplace(bytes.begin(), bytes.end());
        more = archive.next(entry);
    }
    if (!keys.empty()) {
        if (!signature)
            throw Refused("the package is unsigned, and this machine installs only packages signed by a trusted key");
        key = &signingKey(*signature, keys);
    }
    if (!more || entry.path != kIndexMember || entry.type != EntryType::File)
        throw Refused("no index at the start of " + packageName);
    if (entry.size > limits::kIndexBytes)
        throw Refused("the package's index is larger than 64 MiB");
    std::vector<char> bytes = content(archive, entry);
    if (key)
        checkSignature(*key, *signature, std::string_view(bytes.data(), bytes.size()));

    PackageContents contents{PackageIndex::parse(std::move(bytes)), {}, key ? key->file : std::string()};
    PayloadTree tree;
    for (const IndexRow& row : contents.index.rows)
        tree.add(row);
    tree.checkLinks();
    contents.folders = tree.folders();
    return contents;
}
