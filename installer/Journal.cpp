#include "Journal.h"

#include "ArchiveReader.h"
#include "Beneath.h"
#include "Limits.h"
#include "Record.h"
#include "Refused.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <optional>
#include <unistd.h>

namespace {

constexpr std::string_view kTag = "velluma-journal-1\n";
constexpr char kJournal[] = "journal";
constexpr std::string_view kStagingPrefix = ".vlum-install-";

std::string stagingFolderName()
{
    unsigned char random[6];
    if (::getrandom(random, sizeof random, 0) != sizeof random)
        refuse(errno, "cannot name a staging folder");
    char text[32];
    std::snprintf(text, sizeof text, "%s%02x%02x%02x%02x%02x%02x", kStagingPrefix.data(), random[0], random[1],
                  random[2], random[3], random[4], random[5]);
    return text;
}

} // namespace

Journal::~Journal()
{
    if (begun)
        try {
            finish();
        } catch (const Refused&) {
            // The next run undoes it.
        }
}

bool Journal::recover()
{
    const std::optional<std::vector<char>> bytes =
        readWhole(books.folder(), kJournal, limits::kIndexBytes * 4, shown + " (the journal)");
    std::vector<Step> steps;
    if (bytes) {
        RecordReader cursor(*bytes, "journal in " + shown);
        if (cursor.take(std::min(cursor.left(), kTag.size())) != kTag)
            cursor.malformed("not the layout this installer reads");
        stagingName = std::string(cursor.text(2));
        if (!stagingName.empty() && (stagingName.compare(0, kStagingPrefix.size(), kStagingPrefix) != 0
                                     || stagingName.find('/') != std::string::npos))
            cursor.malformed("a staging folder that is not the installer's: " + stagingName);
        for (std::uint64_t count = cursor.number(4); count > 0; --count) {
            Step step;
            step.kind = Step::Kind(cursor.take(1).front());
            step.folder = cursor.number(1) != 0;
            step.device = cursor.number(8);
            step.inode = cursor.number(8);
            step.path = std::string(cursor.text(2));
            if (normalizedName(step.path) != step.path || step.path.empty())
                cursor.malformed("a path not in plain form: " + step.path);
            steps.push_back(std::move(step));
        }
        if (!stagingName.empty())
            staging = openFolderBeneath(target, stagingName, false);
        run(steps);
    }
    begun = true;
    finish();
    // Staging folders no journal names: from runs before there was one.
    for (const std::string& name : listFolder(target))
        if (name.compare(0, kStagingPrefix.size(), kStagingPrefix) == 0)
            removeTree(target, name);
    return bytes.has_value();
}

int Journal::begin()
{
    stagingName = stagingFolderName();
    begun = true;
    write({});
    if (::mkdirat(target, stagingName.c_str(), 0700) != 0)
        refuse(errno, "cannot make a staging folder in ", shown);
    staging = openFolderBeneath(target, stagingName, false);
    if (!staging.valid())
        refuse(errno, "cannot open the staging folder");
    return staging.get();
}

void Journal::commit(const std::vector<Step>& steps)
{
    write(steps);
    // From here on the next run completes it, should this one stop.
    begun = false;
    run(steps);
    begun = true;
    finish();
}

void Journal::write(const std::vector<Step>& steps) const
{
    RecordWriter out;
    out.bytes(kTag);
    out.text(stagingName, 2);
    out.number(steps.size(), 4);
    for (const Step& step : steps) {
        out.bytes(std::string_view(reinterpret_cast<const char*>(&step.kind), 1));
        out.number(step.folder ? 1 : 0, 1);
        out.number(step.device, 8);
        out.number(step.inode, 8);
        out.text(step.path, 2);
    }
    writeWhole(books.folder(), kJournal, out.out, shown + " (the journal)");
}

void Journal::run(const std::vector<Step>& steps) const
{
    for (const Step& step : steps) {
        switch (step.kind) {
        case Step::Place:
            place(step);
            break;
        case Step::Remove:
            remove(step);
            break;
        case Step::Commit:
            Books::checkIdentifier(step.path);
            books.commit(step.path);
            break;
        case Step::Forget:
            Books::checkIdentifier(step.path);
            books.forget(step.path);
            break;
        default:
            throw Refused("malformed journal in " + shown + ": a step of an unknown kind");
        }
    }
}

void Journal::place(const Step& step) const
{
    const std::string shownPath = inTarget(shown, step.path);
    const std::string name = nameOf(step.path);
    const Descriptor parent = openFolderBeneath(target, folderOf(step.path), false);
    if (!parent.valid())
        refuse(errno, "cannot open the folder of ", shownPath);
    struct stat there;
    const bool exists = ::fstatat(parent.get(), name.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0;
    if (!exists && errno != ENOENT)
        refuse(errno, "cannot look at ", shownPath);
    if (exists && there.st_dev == step.device && there.st_ino == step.inode)
        return;
    const Descriptor from = staging.valid() ? openFolderBeneath(staging.get(), folderOf(step.path), false) : Descriptor();
    struct stat staged;
    if (!from.valid() || ::fstatat(from.get(), name.c_str(), &staged, AT_SYMLINK_NOFOLLOW) != 0
        || staged.st_dev != step.device || staged.st_ino != step.inode)
        throw Refused("the staged " + step.path + " is gone, and " + shownPath + " is not it");
    const unsigned how = !exists ? RENAME_NOREPLACE : S_ISDIR(there.st_mode) && S_ISDIR(staged.st_mode) ? RENAME_EXCHANGE : 0;
    if (exists && S_ISDIR(there.st_mode) != S_ISDIR(staged.st_mode))
        throw Refused("would replace a folder by a file or the reverse: " + shownPath);
    if (::renameat2(from.get(), name.c_str(), parent.get(), name.c_str(), how) != 0)
        refuse(errno, "cannot move into place: ", shownPath);
    if (::fsync(parent.get()) != 0)
        refuse(errno, "cannot write to disk: ", shownPath);
}

void Journal::remove(const Step& step) const
{
    const Descriptor parent = openFolderBeneath(target, folderOf(step.path), false);
    struct stat there;
    if (!parent.valid() || ::fstatat(parent.get(), nameOf(step.path).c_str(), &there, AT_SYMLINK_NOFOLLOW) != 0)
        return; // gone already
    if (step.folder != S_ISDIR(there.st_mode))
        return; // not what was installed: someone else's now
    if (::unlinkat(parent.get(), nameOf(step.path).c_str(), step.folder ? AT_REMOVEDIR : 0) != 0) {
        if (step.folder && (errno == ENOTEMPTY || errno == EEXIST))
            return; // still holds what is not ours
        refuse(errno, "cannot remove ", inTarget(shown, step.path));
    }
    ::fsync(parent.get());
}

void Journal::finish()
{
    if (!stagingName.empty())
        removeTree(target, stagingName);
    staging = Descriptor();
    books.dropPrepared();
    ::unlinkat(books.folder(), (std::string(kJournal) + ".tmp").c_str(), 0); // a journal never written whole
    if (::unlinkat(books.folder(), kJournal, 0) != 0 && errno != ENOENT)
        refuse(errno, "cannot remove the journal in ", shown);
    ::fsync(books.folder());
    stagingName.clear();
    begun = false;
}
