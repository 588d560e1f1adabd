#pragma once

// Moves the staged payload into the target. A staged entry the target
// lacks is moved whole (a folder with all it holds, in one rename); into a
// folder the target has, entries are moved one by one, a file or link
// replacing a file or link of the same name. Nothing already in the target
// is ever followed: a link where the package has a folder is refused, as
// is a folder where the package has a file or the reverse, so a link left
// by an earlier package cannot lead a later one out of the target.

#include <string>
#include <sys/types.h>

class Mover
{
public:
    // `targetPath` only goes into messages.
    Mover(int staging, int target, const std::string& targetPath)
        : staging(staging), target(target), targetPath(targetPath)
    {
    }

    // Throws Refused for the first entry that cannot be moved; moves nothing.
    void check() const { walk(staging, target, std::string(), false); }
    // Throws Refused when the target changed since check() in a way it
    // would have refused.
    void move() const { walk(staging, target, std::string(), true); }

private:
    void walk(int stagedFolder, int targetFolder, const std::string& relative, bool apply) const;

    int staging;
    int target;
    std::string targetPath;
};
