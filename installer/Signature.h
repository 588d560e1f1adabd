#pragma once

// The signature member of a package: a regular file named "Signature" at
// the top of the archive, written by tools/make-pkg --sign. 104 bytes:
//
//   bytes 0-7     "VLUMSIG1"
//   bytes 8-39    which key signed: SHA-256 of its public key in DER
//                 (SubjectPublicKeyInfo), as TrustedKeys computes it
//   bytes 40-103  the Ed25519 signature of the package's 32-byte digest
//                 (PackageDigest.h)
//
// The member itself is left out of the digest; anything else in the
// archive is covered.

#include "PackageDigest.h"
#include "TrustedKeys.h"

#include <optional>
#include <string>

constexpr char kSignatureMember[] = "Signature";

// The trusted key that signed `digest`. Throws Refused when `member` is
// missing, malformed, made with a key not in `keys`, or does not match.
const TrustedKey& checkSignature(const Digest& digest, const std::optional<std::string>& member,
                                 const TrustedKeys& keys);
