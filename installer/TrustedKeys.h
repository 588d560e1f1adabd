#pragma once

// The vendor's public keys that this machine trusts: the Ed25519 keys in
// PEM files (*.pem) of one folder, VLUM_TRUSTED_KEYS or else
// /etc/velluma/trusted-keys. Whoever can add a key there can install
// anything as root, so the folder and every key file must belong to root
// (or to the user running the installer) and be writable by nobody else.
// A missing or empty folder means no key: packages are then installed
// unverified, with a warning.

#include <array>
#include <memory>
#include <string>
#include <vector>

typedef struct evp_pkey_st EVP_PKEY;

using KeyId = std::array<unsigned char, 32>;

struct TrustedKey
{
    std::string file;                          // name in the folder, for messages
    KeyId id;                                  // SHA-256 of the DER SubjectPublicKeyInfo
    std::shared_ptr<EVP_PKEY> key;
};

class TrustedKeys
{
public:
    static std::string folderFromEnvironment();

    // Throws Refused when the folder or a key file cannot be trusted or read.
    static TrustedKeys load(const std::string& folder);

    bool empty() const { return keys.empty(); }
    const TrustedKey* find(const KeyId& id) const;

    // Adds one key from its PEM text (tests and fuzzing; load() uses it too).
    void add(const std::string& file, const std::string& pem);

private:
    std::vector<TrustedKey> keys;
};
