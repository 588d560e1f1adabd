#pragma once

// Writes a checked package's payload into the staging folder. It reads the
// archive a second time, from the same private copy, and holds every entry
// to what the checks saw: the same entries in the same order, and in the
// end the same digest, so what is moved into place is exactly what was
// checked (and signed).

#include "PackageReader.h"
#include "Progress.h"

#include <string>
#include <string_view>

class Unpacker
{
public:
    Unpacker(int staging, const Progress& progress) : staging(staging), progress(progress) {}

    // Progress from 10 to 90 %, one step per file. Throws Refused.
    void unpack(std::string_view bytes, const PackageContents& contents, const std::string& packageName);

private:
    void write(const ArchiveEntry& entry, const std::string& path);

    int staging;
    const Progress& progress;
};
