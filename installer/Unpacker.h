#pragma once

// Writes a package's payload into the staging folder as it streams from
// the archive, each entry held to the package's index (PayloadCheck) as
// it comes: what is written is exactly what was checked, and a difference
// ends the installation with nothing moved into place.

#include "PackageReader.h"
#include "Progress.h"

#include <string>

class Unpacker
{
public:
    Unpacker(int staging, const Progress& progress) : staging(staging), progress(progress) {}

    // Reads the rest of `archive`, whose head gave `contents`. Progress
    // from 10 to 90 %, with the bytes written. Throws Refused.
    void unpack(ArchiveReader& archive, const PackageContents& contents);

private:
    void write(const IndexRow& row);

    int staging;
    const Progress& progress;
};
