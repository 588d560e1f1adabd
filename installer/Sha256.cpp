#include "Sha256.h"

#include "Refused.h"

#include <openssl/evp.h>

Sha256::Sha256() : context(EVP_MD_CTX_new(), EVP_MD_CTX_free)
{
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1)
        throw Refused("cannot compute SHA-256");
}

void Sha256::add(const void* data, size_t size)
{
    if (size > 0 && EVP_DigestUpdate(context.get(), data, size) != 1)
        throw Refused("cannot compute SHA-256");
}

Digest Sha256::finish()
{
    Digest digest{};
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(context.get(), digest.data(), &length) != 1 || length != digest.size()
        || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1)
        throw Refused("cannot compute SHA-256");
    return digest;
}
