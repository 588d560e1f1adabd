#include "Mover.h"

#include "Beneath.h"
#include "Refused.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <utility>
#include <vector>

std::string Mover::shown(const std::string& relative) const
{
    return (targetPath == "/" ? std::string() : targetPath) + '/' + relative;
}

void Mover::fits(bool folder, const struct stat& there, const std::string& relative) const
{
    if (folder && S_ISLNK(there.st_mode))
        throw Refused("would write through the link " + shown(relative) + " already in the target");
    if (folder != S_ISDIR(there.st_mode))
        throw Refused("would replace a folder by a file or the reverse: " + shown(relative));
}

void Mover::check(const PackageContents& contents) const
{
    struct stat targetInfo;
    if (::fstat(target, &targetInfo) != 0)
        throw Refused(withSystemError("cannot look at " + targetPath, errno));
    // Every path of the payload, a folder before what it holds.
    std::vector<std::pair<std::string, bool>> paths;
    for (const auto& [path, mode] : contents.folders)
        paths.emplace_back(path, true);
    for (const IndexRow& row : contents.index.rows)
        if (row.type != EntryType::Folder)
            paths.emplace_back(row.path, false);
    std::sort(paths.begin(), paths.end());

    for (const auto& [path, folder] : paths) {
        // A folder the target lacks is moved whole: what it holds needs
        // no look.
        const Descriptor parent = openFolderBeneath(target, folderOf(path), false);
        if (!parent.valid() && errno == ENOENT)
            continue;
        struct stat there;
        if (!parent.valid() || ::fstatat(parent.get(), nameOf(path).c_str(), &there, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT)
                continue;
            throw Refused(withSystemError("cannot look at " + shown(path), errno));
        }
        fits(folder, there, path);
        // A rename cannot cross into another file system.
        if (folder && there.st_dev != targetInfo.st_dev)
            throw Refused("cannot install into " + shown(path) + ": another file system than " + targetPath);
    }
}

void Mover::walk(int stagedFolder, int targetFolder, const std::string& relative) const
{
    bool moved = false;
    for (const std::string& name : listFolder(stagedFolder)) {
        const std::string path = relative.empty() ? name : relative + '/' + name;
        struct stat staged;
        struct stat there;
        if (::fstatat(stagedFolder, name.c_str(), &staged, AT_SYMLINK_NOFOLLOW) != 0)
            throw Refused(withSystemError("cannot look at the staged " + path, errno));
        if (::fstatat(targetFolder, name.c_str(), &there, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno != ENOENT)
                throw Refused(withSystemError("cannot look at " + shown(path), errno));
            if (::renameat2(stagedFolder, name.c_str(), targetFolder, name.c_str(), RENAME_NOREPLACE) != 0)
                throw Refused(withSystemError("cannot move " + shown(path) + " into place", errno));
            moved = true;
            continue;
        }
        const bool folder = S_ISDIR(staged.st_mode);
        fits(folder, there, path);
        if (!folder) {
            if (::renameat(stagedFolder, name.c_str(), targetFolder, name.c_str()) != 0)
                throw Refused(withSystemError("cannot move " + shown(path) + " into place", errno));
            moved = true;
            continue;
        }
        const Descriptor stagedInside = openFolderBeneath(stagedFolder, name, false);
        const Descriptor targetInside = openFolderBeneath(targetFolder, name, false);
        if (!stagedInside.valid() || !targetInside.valid())
            throw Refused(withSystemError("cannot open " + shown(path), errno));
        walk(stagedInside.get(), targetInside.get(), path);
    }
    // The new names on the disk too.
    if (moved && ::fsync(targetFolder) != 0)
        throw Refused(withSystemError("cannot write " + shown(relative) + " to disk", errno));
}
