#include "Queries.h"

#include "Beneath.h"
#include "Installation.h"
#include "Refused.h"
#include "Sha256.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

void say(const std::string& line)
{
    std::printf("%s\n", printable(line).c_str());
}

// Whether the target still holds `row` as it was installed.
bool intact(int target, const IndexRow& row)
{
    const std::string path(row.path);
    const Descriptor parent = openFolderBeneath(target, folderOf(path), false);
    struct stat info;
    if (!parent.valid() || ::fstatat(parent.get(), nameOf(path).c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
        return false;
    if (row.type == EntryType::Folder)
        return S_ISDIR(info.st_mode);
    if (row.type == EntryType::Symlink) {
        std::vector<char> link(row.link.size() + 1);
        return S_ISLNK(info.st_mode)
            && ::readlinkat(parent.get(), nameOf(path).c_str(), link.data(), link.size()) == ssize_t(row.link.size())
            && std::string_view(link.data(), row.link.size()) == row.link;
    }
    if (!S_ISREG(info.st_mode) || (info.st_mode & 07777) != row.mode || std::uint64_t(info.st_size) != row.size)
        return false;
    const Descriptor file(::openat(parent.get(), nameOf(path).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.valid())
        return false;
    Sha256 sha;
    std::vector<char> buffer(1 << 20);
    ssize_t n;
    while ((n = ::read(file.get(), buffer.data(), buffer.size())) > 0)
        sha.add(buffer.data(), size_t(n));
    const Digest digest = sha.finish();
    return n == 0 && std::memcmp(digest.data(), row.sha256, digest.size()) == 0;
}

} // namespace

int answer(const CommandLine& line)
{
    Target target(line.target);
    const Books& books = *target.books;
    if (line.action == CommandLine::List) {
        for (const std::string& identifier : books.identifiers())
            say(identifier + " " + books.read(identifier, true)->index.version);
        return 0;
    }
    const Receipt receipt = *books.read(line.identifier, true);
    const std::vector<IndexRow>& rows = receipt.index.rows;
    switch (line.action) {
    case CommandLine::Info: {
        char time[64];
        const std::time_t when = std::time_t(receipt.time);
        std::tm utc{};
        std::strftime(time, sizeof time, "%Y-%m-%d %H:%M:%S UTC", ::gmtime_r(&when, &utc));
        say("identifier: " + receipt.index.identifier);
        say("version: " + receipt.index.version);
        say("signed by: " + (receipt.signer.empty() ? std::string("nobody (installed unverified)") : receipt.signer));
        say(std::string("installed: ") + time);
        say("files: " + std::to_string(std::count_if(rows.begin(), rows.end(), [](const IndexRow& row) {
                return row.type != EntryType::Folder;
            })));
        return 0;
    }
    case CommandLine::Files:
        for (const IndexRow& row : rows)
            say(inTarget(target.shown, row.path));
        return 0;
    case CommandLine::Verify: {
        int status = 0;
        for (const IndexRow& row : rows)
            if (!intact(target.folder.get(), row)) {
                say((row.type == EntryType::Folder ? "missing or changed folder: " : "missing or changed: ")
                    + inTarget(target.shown, row.path));
                status = 1;
            }
        return status;
    }
    default: {
        // Deepest first, folders only when empty and no one else's.
        std::vector<Step> steps;
        const Owners others = books.others(line.identifier);
        std::vector<const IndexRow*> order;
        for (const IndexRow& row : rows)
            order.push_back(&row);
        std::sort(order.begin(), order.end(), [](const IndexRow* a, const IndexRow* b) { return a->path > b->path; });
        for (const IndexRow* row : order)
            if (!others.count(std::string(row->path)))
                steps.push_back(Step{Step::Remove, row->type == EntryType::Folder, 0, 0, std::string(row->path)});
        steps.push_back(Step{Step::Forget, false, 0, 0, line.identifier});
        target.journal->commit(steps);
        say("removed " + line.identifier + " " + receipt.index.version);
        return 0;
    }
    }
}
