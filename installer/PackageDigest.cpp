#include "PackageDigest.h"

#include "Refused.h"

#include <openssl/evp.h>

namespace {

constexpr char kTag[] = "velluma-pkg-digest-1\n";

} // namespace

PackageDigest::PackageDigest() : context(EVP_MD_CTX_new(), EVP_MD_CTX_free)
{
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1)
        throw Refused("cannot compute SHA-256");
    add(kTag, sizeof kTag - 1);
}

void PackageDigest::entry(const ArchiveEntry& entry)
{
    static const char types[] = {'f', 'd', 'l', 'h'};
    if (entry.type == EntryType::Other)
        throw Refused("unsupported entry type: " + entry.name);
    add(&types[int(entry.type)], 1);
    addNumber(entry.path.size(), 8);
    add(entry.path.data(), entry.path.size());
    addNumber(entry.mode & 07777, 4);
    addNumber(entry.link.size(), 8);
    add(entry.link.data(), entry.link.size());
    addNumber(entry.type == EntryType::File ? entry.size : 0, 8);
}

void PackageDigest::content(const void* data, size_t size)
{
    add(data, size);
}

Digest PackageDigest::finish()
{
    Digest digest{};
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(context.get(), digest.data(), &length) != 1 || length != digest.size())
        throw Refused("cannot compute SHA-256");
    return digest;
}

void PackageDigest::add(const void* data, size_t size)
{
    if (size > 0 && EVP_DigestUpdate(context.get(), data, size) != 1)
        throw Refused("cannot compute SHA-256");
}

void PackageDigest::addNumber(std::uint64_t value, int bytes)
{
    unsigned char encoded[8];
    for (int i = 0; i < bytes; ++i)
        encoded[i] = static_cast<unsigned char>(value >> (8 * (bytes - 1 - i)));
    add(encoded, size_t(bytes));
}
