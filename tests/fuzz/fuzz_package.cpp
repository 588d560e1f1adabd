// The root-side package reader on any bytes: the archive, every entry's
// name, type and links, the limits, the signature and PackageInfo. It may
// refuse anything, but must not crash, leak or hang, and what it accepts
// must keep its promises.

#include "FuzzSupport.h"

#include "PackageReader.h"
#include "Refused.h"
#include "TrustedKeys.h"

#include <openssl/evp.h>
#include <openssl/pem.h>

#include <cstdint>
#include <string>

namespace {

// A key made afresh at start: a package the fuzzer makes can never carry
// its signature, so with it every package must be refused.
TrustedKeys someKey()
{
    TrustedKeys keys;
    EVP_PKEY* key = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519");
    BIO* pem = BIO_new(BIO_s_mem());
    if (!key || !pem || PEM_write_bio_PUBKEY(pem, key) != 1)
        std::abort();
    char* text = nullptr;
    const long length = BIO_get_mem_data(pem, &text);
    keys.add("fuzz.pem", std::string(text, size_t(length)));
    BIO_free(pem);
    EVP_PKEY_free(key);
    return keys;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const TrustedKeys none;
    static const TrustedKeys trusted = someKey();
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    for (const TrustedKeys* keys : {&none, &trusted}) {
        try {
            const PackageContents contents = readPackage(bytes, *keys, "fuzz.pkg");
            VLUM_FUZZ_CHECK(keys->empty());
            VLUM_FUZZ_CHECK(!contents.identifier.empty() && !contents.version.empty());
            for (const ArchiveEntry& entry : contents.payload) {
                VLUM_FUZZ_CHECK(entry.path.rfind("Payload/", 0) == 0);
                VLUM_FUZZ_CHECK(entry.path.find("/../") == std::string::npos);
            }
        } catch (const Refused&) {
            // Refusing is always allowed.
        }
    }
    return 0;
}
