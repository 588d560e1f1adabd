#pragma once

// Reads the head of a package, its signature and index, and checks it
// before any payload byte is decompressed: the index's bounds, the
// signature when keys are trusted (an unsigned or untrusted package is
// refused before its index is even read), PackageInfo, and every row's
// name and type and where its links lead. The payload is held to the
// result as it streams (PayloadCheck).
//
// It takes nothing but an archive and keys, so it can be run on any input
// alone.

#include "ArchiveReader.h"
#include "PackageIndex.h"
#include "TrustedKeys.h"

#include <string>
#include <utility>
#include <vector>

struct PackageContents
{
    PackageIndex index;
    // Every folder of the payload with the mode it gets, deeper ones first.
    std::vector<std::pair<std::string, unsigned>> folders;
    // The trusted key that signed it; empty when no key is trusted.
    std::string signer;
};

// Reads `archive` up to the first payload entry. Throws Refused, saying
// why; `packageName` only goes into messages.
PackageContents readPackageHead(ArchiveReader& archive, const TrustedKeys& keys, const std::string& packageName);
