#include "Signature.h"

#include "Refused.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace {

constexpr char kMagic[] = "VLUMSIG1";
constexpr size_t kMagicBytes = 8;
constexpr size_t kKeyIdBytes = 32;
constexpr size_t kSignatureBytes = 64;

} // namespace

const TrustedKey& checkSignature(const Digest& digest, const std::optional<std::string>& member,
                                 const TrustedKeys& keys)
{
    if (!member)
        throw Refused("the package is unsigned, and this machine installs only packages signed by a trusted key");
    if (member->size() != kMagicBytes + kKeyIdBytes + kSignatureBytes
        || std::memcmp(member->data(), kMagic, kMagicBytes) != 0)
        throw Refused("malformed signature: not the layout this installer reads");
    KeyId id;
    std::copy_n(member->begin() + kMagicBytes, kKeyIdBytes, id.begin());
    const TrustedKey* key = keys.find(id);
    if (!key)
        throw Refused("the package is signed by an untrusted key");

    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    const auto* signature = reinterpret_cast<const unsigned char*>(member->data() + kMagicBytes + kKeyIdBytes);
    if (!context || EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key->key.get()) != 1
        || EVP_DigestVerify(context.get(), signature, kSignatureBytes, digest.data(), digest.size()) != 1)
        throw Refused("the signature does not match the package: it was changed after signing");
    return *key;
}
