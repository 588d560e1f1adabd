// The root-side package reader on any bytes: the archive, the signature,
// the index and its bounds, every row's name, type and links, then the
// payload held to the index as it streams. It may refuse anything, but
// must not crash, leak or hang, and what it accepts must keep its promises.

#include "FuzzSupport.h"

#include "PackageReader.h"
#include "PayloadCheck.h"
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
            ArchiveReader archive(bytes, "fuzz.pkg");
            const PackageContents contents = readPackageHead(archive, *keys, "fuzz.pkg");
            VLUM_FUZZ_CHECK(keys->empty());
            VLUM_FUZZ_CHECK(!contents.index.identifier.empty() && !contents.index.version.empty());
            PayloadCheck check(contents.index);
            std::uint64_t streamed = 0;
            char buffer[4096];
            ArchiveEntry entry;
            while (archive.next(entry)) {
                const IndexRow& row = check.begin(entry);
                VLUM_FUZZ_CHECK(entry.path.size() == 8 + row.path.size() && entry.path.rfind("Payload/", 0) == 0);
                while (const size_t n = archive.read(buffer, sizeof buffer)) {
                    check.content(buffer, n);
                    streamed += n;
                }
                check.end();
            }
            check.finish();
            VLUM_FUZZ_CHECK(streamed == contents.index.fileBytes);
        } catch (const Refused&) {
            // Refusing is always allowed.
        }
    }
    return 0;
}
