#include "Mover.h"

#include "Beneath.h"
#include "Refused.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <map>
#include <sys/stat.h>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace {

constexpr char kRecords[] = "var/lib/velluma/";

// The staged entry at `path` as a step that moves it into place.
Step placing(int staging, const std::string& path, bool folder)
{
    const Descriptor parent = openFolderBeneath(staging, folderOf(path), false);
    struct stat info;
    if (!parent.valid() || ::fstatat(parent.get(), nameOf(path).c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
        refuse(errno, "cannot look at the staged ", path);
    return Step{Step::Place, folder, std::uint64_t(info.st_dev), std::uint64_t(info.st_ino), path};
}

bool under(const std::string& path, const std::unordered_set<std::string>& folders)
{
    for (size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', slash + 1))
        if (folders.count(path.substr(0, slash)))
            return true;
    return false;
}

} // namespace

std::string Mover::shown(const std::string& relative) const
{
    return inTarget(targetPath, relative);
}

void Mover::fits(bool folder, const struct stat& there, const std::string& relative) const
{
    if (folder && S_ISLNK(there.st_mode))
        throw Refused("would write through the link " + shown(relative) + " already in the target");
    if (folder != S_ISDIR(there.st_mode))
        throw Refused("would replace a folder by a file or the reverse: " + shown(relative));
}

void Mover::check(const PackageContents& contents, const Owners& others) const
{
    struct stat targetInfo;
    if (::fstat(target, &targetInfo) != 0)
        refuse(errno, "cannot look at ", targetPath);
    // Every path of the payload, a folder before what it holds.
    std::vector<std::pair<std::string, bool>> paths;
    for (const auto& [path, mode] : contents.folders)
        paths.emplace_back(path, true);
    for (const IndexRow& row : contents.index.rows)
        if (row.type != EntryType::Folder)
            paths.emplace_back(row.path, false);
    std::sort(paths.begin(), paths.end());

    for (const auto& [path, folder] : paths) {
        if ((path + '/').compare(0, sizeof kRecords - 1, kRecords) == 0)
            throw Refused("would write into the installer's records: " + shown(path));
        const auto owner = others.find(path);
        if (owner != others.end() && !(folder && owner->second.folder))
            throw Refused("would overwrite " + shown(path) + ", which belongs to " + owner->second.identifier);
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


std::vector<Step> Mover::plan(int staging, const PackageContents& contents, const PackageIndex* old,
                              const Owners& others) const
{
    std::unordered_map<std::string, bool> fresh; // the new version's paths: folder or not
    for (const auto& [path, mode] : contents.folders)
        fresh[path] = true;
    for (const IndexRow& row : contents.index.rows)
        if (row.type != EntryType::Folder)
            fresh[std::string(row.path)] = false;
    std::unordered_map<std::string, bool> earlier;
    if (old)
        for (const IndexRow& row : old->rows)
            earlier[std::string(row.path)] = row.type == EntryType::Folder;

    // The folders of either version the target has, and those of them
    // that hold nothing but either version's paths.
    std::unordered_set<std::string> present;
    std::unordered_set<std::string> whole;
    const std::function<bool(int, const std::string&)> holdsOnlyOurs = [&](int folder, const std::string& path) {
        bool ours = true;
        for (const std::string& name : listFolder(folder)) {
            const std::string inside = path.empty() ? name : path + '/' + name;
            const bool known = fresh.count(inside) || earlier.count(inside);
            ours = ours && known && !others.count(inside);
            struct stat info;
            if (!known || ::fstatat(folder, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(info.st_mode))
                continue;
            const Descriptor below = openFolderBeneath(folder, name, false);
            present.insert(inside);
            if (!below.valid() || !holdsOnlyOurs(below.get(), inside))
                ours = false;
        }
        if (ours)
            whole.insert(path);
        return ours;
    };
    holdsOnlyOurs(target, std::string());

    std::map<std::string, std::vector<std::pair<std::string, bool>>> children;
    for (const auto& [path, folder] : fresh)
        children[folderOf(path)].emplace_back(path, folder);
    std::vector<Step> steps;
    std::unordered_set<std::string> swapped;
    const std::function<void(const std::string&)> placeInto = [&](const std::string& folder) {
        std::vector<std::pair<std::string, bool>>& inside = children[folder];
        std::sort(inside.begin(), inside.end());
        for (const auto& [path, isFolder] : inside) {
            if (isFolder && present.count(path) && !whole.count(path)) {
                placeInto(path);
                continue;
            }
            steps.push_back(placing(staging, path, isFolder));
            if (isFolder)
                swapped.insert(path);
        }
    };
    placeInto(std::string());

    // What only the old version had, deepest first; what a swapped folder
    // held went with it.
    std::vector<std::pair<std::string, bool>> gone;
    for (const auto& [path, folder] : earlier)
        if (!fresh.count(path) && !others.count(path) && !swapped.count(path) && !under(path, swapped))
            gone.emplace_back(path, folder);
    std::sort(gone.rbegin(), gone.rend());
    for (const auto& [path, folder] : gone)
        steps.push_back(Step{Step::Remove, folder, 0, 0, path});
    return steps;
}
