#pragma once

// Puts a staged payload in place, as steps of the target's journal. A
// package folder whose whole content in the target is the old version's
// or the new one's (or that the target lacks) is swapped in as one piece,
// so it is always wholly old or wholly new; into other folders, entries
// are placed one by one, a file or link replacing a file or link of the
// same name. The old version's paths the new one lacks are removed, and
// its folders left empty.
//
// Nothing already in the target is ever followed: a link where the package
// has a folder is refused, as is a folder where the package has a file or
// the reverse, so a link left by an earlier package cannot lead a later one
// out of the target. A path another package's receipt lists is never
// written.

#include "Journal.h"
#include "PackageReader.h"

#include <string>
#include <vector>

class Mover
{
public:
    // `targetPath` only goes into messages.
    Mover(int target, const std::string& targetPath) : target(target), targetPath(targetPath) {}

    // Before anything is written: throws Refused for the first entry of
    // the package that could not be moved into the target as it is now,
    // or that belongs to another package.
    void check(const PackageContents& contents, const Owners& others) const;
    // The steps that put what `staging` holds in place of the old version
    // (`old`, when there is one).
    std::vector<Step> plan(int staging, const PackageContents& contents, const PackageIndex* old,
                           const Owners& others) const;

private:
    // Throws Refused when `there`, in the target at `relative`, cannot take
    // the package's entry (a folder or not).
    void fits(bool folder, const struct stat& there, const std::string& relative) const;
    std::string shown(const std::string& relative) const;

    int target;
    std::string targetPath;
};
