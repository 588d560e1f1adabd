#include "Mover.h"

#include "Beneath.h"
#include "Refused.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>

void Mover::walk(int stagedFolder, int targetFolder, const std::string& relative, bool apply) const
{
    struct stat folderInfo;
    struct stat stagingInfo;
    if (::fstat(targetFolder, &folderInfo) != 0 || ::fstat(staging, &stagingInfo) != 0)
        throw Refused(withSystemError("cannot look at " + targetPath, errno));
    const std::string shownFolder = (targetPath == "/" ? std::string() : targetPath) + '/' + relative
        + (relative.empty() ? "" : "/");
    // A rename cannot cross into another file system.
    if (folderInfo.st_dev != stagingInfo.st_dev)
        throw Refused("cannot install into " + shownFolder + ": another file system than " + targetPath);

    bool moved = false;
    for (const std::string& name : listFolder(stagedFolder)) {
        const std::string shown = shownFolder + name;
        struct stat staged;
        struct stat there;
        if (::fstatat(stagedFolder, name.c_str(), &staged, AT_SYMLINK_NOFOLLOW) != 0)
            throw Refused(withSystemError("cannot look at the staged " + shown, errno));
        if (::fstatat(targetFolder, name.c_str(), &there, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno != ENOENT)
                throw Refused(withSystemError("cannot look at " + shown, errno));
            if (apply && ::renameat2(stagedFolder, name.c_str(), targetFolder, name.c_str(), RENAME_NOREPLACE) != 0)
                throw Refused(withSystemError("cannot move " + shown + " into place", errno));
            moved = apply;
            continue;
        }
        const bool folder = S_ISDIR(staged.st_mode);
        if (folder && S_ISLNK(there.st_mode))
            throw Refused("would write through the link " + shown + " already in the target");
        if (folder != S_ISDIR(there.st_mode))
            throw Refused("would replace a folder by a file or the reverse: " + shown);
        if (!folder) {
            if (apply && ::renameat(stagedFolder, name.c_str(), targetFolder, name.c_str()) != 0)
                throw Refused(withSystemError("cannot move " + shown + " into place", errno));
            moved = apply;
            continue;
        }
        const Descriptor stagedInside = openFolderBeneath(stagedFolder, name, false);
        const Descriptor targetInside = openFolderBeneath(targetFolder, name, false);
        if (!stagedInside.valid() || !targetInside.valid())
            throw Refused(withSystemError("cannot open " + shown, errno));
        walk(stagedInside.get(), targetInside.get(), relative.empty() ? name : relative + '/' + name, apply);
    }
    // The new names on the disk too.
    if (moved && ::fsync(targetFolder) != 0)
        throw Refused(withSystemError("cannot write " + shownFolder + " to disk", errno));
}
