#pragma once

// Reads a whole package from its bytes and checks it before anything is
// written: the archive, every entry's name and type, where its links lead,
// the limits, the signature when keys are trusted, and PackageInfo. The
// content is only hashed here, never kept; the unpacking reads the same
// bytes again (and hashes them again: see Unpacker).
//
// It takes nothing but bytes and keys, so it can be run on any input
// alone.

#include "ArchiveReader.h"
#include "PackageDigest.h"
#include "TrustedKeys.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct PackageContents
{
    std::string identifier;
    std::string version;
    // The entries below Payload/, in archive order (paths still start with
    // "Payload/").
    std::vector<ArchiveEntry> payload;
    // Every folder below Payload/ with the mode it gets, deeper ones first.
    std::vector<std::pair<std::string, unsigned>> folders;
    std::uint64_t fileBytes = 0;
    Digest digest{};
    // The trusted key that signed it; empty when no key is trusted.
    std::string signer;
};

// Throws Refused, saying why; `packageName` only goes into messages.
PackageContents readPackage(std::string_view bytes, const TrustedKeys& keys, const std::string& packageName);
