#pragma once

// Moves the staged payload into the target. A staged entry the target
// lacks is moved whole (a folder with all it holds, in one rename); into a
// folder the target has, entries are moved one by one, a file or link
// replacing a file or link of the same name. Nothing already in the target
// is ever followed: a link where the package has a folder is refused, as
// is a folder where the package has a file or the reverse, so a link left
// by an earlier package cannot lead a later one out of the target.

#include "PackageReader.h"

#include <string>

class Mover
{
public:
    // `targetPath` only goes into messages.
    Mover(int target, const std::string& targetPath) : target(target), targetPath(targetPath) {}

    // Before anything is written: throws Refused for the first entry of
    // the package that could not be moved into the target as it is now.
    void check(const PackageContents& contents) const;
    // Moves the staged tree into place. Throws Refused, and stops, where
    // the target has changed since check() in a way it would have refused.
    void move(int staging) const { walk(staging, target, std::string()); }

private:
    void walk(int stagedFolder, int targetFolder, const std::string& relative) const;
    // Throws Refused when `there`, in the target at `relative`, cannot take
    // the package's entry (a folder or not).
    void fits(bool folder, const struct stat& there, const std::string& relative) const;
    std::string shown(const std::string& relative) const;

    int target;
    std::string targetPath;
};
