#include "Signature.h"

#include "Refused.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace {

constexpr char kMagic[] = "VLUMSIG2";
constexpr size_t kMagicBytes = 8;
constexpr size_t kKeyIdBytes = 32;
constexpr size_t kSignatureBytes = 64;

} // namespace

const TrustedKey& signingKey(const std::string& member, const TrustedKeys& keys)
{
    if (member.size() != kMagicBytes + kKeyIdBytes + kSignatureBytes
        || std::memcmp(member.data(), kMagic, kMagicBytes) != 0)
        throw Refused("malformed signature: not the layout this installer reads");
    KeyId id;
    std::copy_n(member.begin() + kMagicBytes, kKeyIdBytes, id.begin());
    const TrustedKey* key = keys.find(id);
    if (!key)
        throw Refused("the package is signed by an untrusted key");
    return *key;
}

void checkSignature(const TrustedKey& key, const std::string& member, std::string_view index)
{
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    const auto* signature = reinterpret_cast<const unsigned char*>(member.data() + kMagicBytes + kKeyIdBytes);
    if (!context || EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.key.get()) != 1
        || EVP_DigestVerify(context.get(), signature, kSignatureBytes,
                            reinterpret_cast<const unsigned char*>(index.data()), index.size())
               != 1)
        throw Refused("the signature does not match the package: it was changed after signing");
}
