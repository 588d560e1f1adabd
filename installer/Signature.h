#pragma once

// The signature member of a package: a regular file named "Signature",
// the first member of the archive, written by tools/make-pkg --sign.
// 104 bytes:
//
//   bytes 0-7     "VLUMSIG2"
//   bytes 8-39    which key signed: SHA-256 of its public key in DER
//                 (SubjectPublicKeyInfo), as TrustedKeys computes it
//   bytes 40-103  the Ed25519 signature of the index's bytes
//                 (PackageIndex.h)
//
// The index names every payload entry with its SHA-256, so the signature
// covers the whole package, and it is checked before the payload is read.

#include "TrustedKeys.h"

#include <string>
#include <string_view>

constexpr char kSignatureMember[] = "Signature";

// The trusted key that made `member`. Throws Refused when it is malformed
// or made with a key not in `keys`.
const TrustedKey& signingKey(const std::string& member, const TrustedKeys& keys);

// Throws Refused unless `member`, made by `key`, signs `index`.
void checkSignature(const TrustedKey& key, const std::string& member, std::string_view index);
