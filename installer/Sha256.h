#pragma once

// SHA-256 by OpenSSL, fed piece by piece.

#include <array>
#include <cstddef>
#include <memory>

typedef struct evp_md_ctx_st EVP_MD_CTX;

using Digest = std::array<unsigned char, 32>;

class Sha256
{
public:
    Sha256();

    void add(const void* data, size_t size);
    // The digest of everything added; the object starts again afterwards.
    Digest finish();

private:
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context;
};
