#include "Installation.h"

#include "Beneath.h"
#include "Books.h"
#include "Journal.h"
#include "Mover.h"
#include "PackageFile.h"
#include "PackageReader.h"
#include "Refused.h"
#include "TrustedKeys.h"
#include "Unpacker.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <unordered_map>

namespace {

std::string ellipsis(const std::string& text)
{
    return text + kEllipsis;
}

// Like Python's posixpath.normpath: no empty or "." components, ".." taken back.
std::string normalPath(const std::string& path)
{
    const bool absolute = !path.empty() && path.front() == '/';
    std::vector<std::string> components;
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string::npos)
            end = path.size();
        const std::string component = path.substr(start, end - start);
        start = end + 1;
        if (component.empty() || component == ".")
            continue;
        if (component == ".." && !components.empty() && components.back() != "..")
            components.pop_back();
        else if (component != ".." || !absolute)
            components.push_back(component);
    }
    std::string joined = absolute ? "/" : "";
    for (const std::string& component : components)
        joined += (joined.empty() || joined == "/" ? "" : "/") + component;
    return joined.empty() ? "." : joined;
}

// The target below VLUM_INSTALL_ROOT when that is set (tests, the demo).
std::string targetFolder(const std::string& target)
{
    if (target.empty() || target.front() != '/')
        throw Refused("the target must be an absolute path: " + target);
    const char* root = std::getenv("VLUM_INSTALL_ROOT");
    return normalPath(root && *root ? std::string(root) + '/' + target : target);
}

std::string megabytes(std::uint64_t bytes)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f MB", double(bytes) / 1e6);
    return text;
}

// Room for every file, rounded up to whole blocks, and a block for each
// other entry; checked before anything is written.
void checkSpace(int target, const std::string& folder, const PackageIndex& index)
{
    struct statvfs space;
    if (::fstatvfs(target, &space) != 0)
        refuse(errno, "cannot see the free space in ", folder);
    const std::uint64_t block = space.f_frsize ? space.f_frsize : 4096;
    std::uint64_t needed = 0;
    for (const IndexRow& row : index.rows)
        needed += (row.type == EntryType::File ? (row.size + block - 1) / block : 1) * block;
    const std::uint64_t free = std::uint64_t(space.f_bavail) * block;
    if (needed > free)
        throw Refused("not enough free space in " + folder + ": the package needs " + megabytes(needed) + ", "
                      + megabytes(free) + " are free");
    if (space.f_files > 0 && index.rows.size() > space.f_favail)
        throw Refused("not enough free inodes in " + folder + " for the package's entries");
}

// The receipt's index: every path as installed, sorted; folders with the
// mode they got, files without set-id bits, hard links as their files.
std::vector<char> installedIndex(const PackageContents& contents)
{
    std::unordered_map<std::string_view, const IndexRow*> files;
    std::vector<IndexRow> rows;
    for (const IndexRow& row : contents.index.rows) {
        if (row.type == EntryType::Folder)
            continue;
        IndexRow installed = row;
        if (row.type == EntryType::Hardlink) {
            installed = *files.at(row.link);
            installed.path = row.path;
        }
        if (installed.type == EntryType::File) {
            files[row.path] = &row;
            installed.mode &= 0777;
        }
        rows.push_back(installed);
    }
    for (const auto& [path, mode] : contents.folders) {
        IndexRow folder;
        folder.type = EntryType::Folder;
        folder.mode = mode;
        folder.path = path;
        rows.push_back(folder);
    }
    std::sort(rows.begin(), rows.end(), [](const IndexRow& a, const IndexRow& b) { return a.path < b.path; });
    return PackageIndex::compose(contents.index.info, rows);
}

// Every staged folder's names on the disk.
void syncFolders(int staging, const PackageContents& contents)
{
    for (const auto& [path, mode] : contents.folders) {
        const Descriptor folder = openFolderBeneath(staging, path, false);
        if (!folder.valid() || ::fsync(folder.get()) != 0)
            throw Refused(withSystemError("cannot write the staged " + path + " to disk", errno));
    }
    if (::fsync(staging) != 0)
        refuse(errno, "cannot write the staged files to disk");
}

} // namespace

Target::Target(const std::string& path)
    : shown(targetFolder(path)), folder(::open(shown.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
{
    if (!folder.valid())
        throw Refused("no such target folder: " + shown);
    books = std::make_unique<Books>(folder.get(), shown);
    journal = std::make_unique<Journal>(folder.get(), *books, shown);
    interrupted = journal->recover();
}

Target::~Target() = default;

void install(const CommandLine& line, const Progress& progress)
{
    progress.phase(ellipsis("Preparing for installation"));
    progress.percent(0);
    Target target(line.target);
    const std::string& folder = target.shown;
    if (target.interrupted)
        progress.status("Completed an interrupted installation in " + folder);

    progress.status(ellipsis("Checking the package"));
    const std::string& package = line.package;
    if (package.size() < 4 || package.compare(package.size() - 4, 4, ".pkg") != 0)
        throw Refused("not a package file: " + package);
    const std::string keyFolder = TrustedKeys::folderFromEnvironment();
    const TrustedKeys keys = TrustedKeys::load(keyFolder);
    if (keys.empty())
        progress.warning("Packages are not verified: no trusted key is installed in " + keyFolder);
    const Descriptor file = openPackage(package);
    ArchiveReader archive(file.get(), package);
    const PackageContents contents = readPackageHead(archive, keys, package);
    const PackageIndex& index = contents.index;
    if (!contents.signer.empty())
        progress.status("Signature verified with the trusted key " + contents.signer);
    progress.note("Package name is " + index.identifier + " " + index.version);
    progress.note("Installing at base path " + folder);
    progress.percent(5);

    Books::checkIdentifier(index.identifier);
    const std::optional<Receipt> old = target.books->read(index.identifier);
    if (old && compareVersions(old->index.version, index.version) > 0)
        throw Refused(index.identifier + " " + old->index.version + " is installed; " + index.version
                      + " is older and is not installed over it");
    const Owners others = target.books->others(index.identifier);
    checkSpace(target.folder.get(), folder, index);
    const Mover mover(target.folder.get(), folder);
    mover.check(contents, others);

    progress.phase(ellipsis("Validating packages"));
    progress.percent(10);
    const int staging = target.journal->begin();
    progress.phase(ellipsis("Installing " + index.identifier));
    Unpacker(staging, progress).unpack(archive, contents);
    syncFolders(staging, contents);
    target.books->prepare(index.identifier,
                          Receipt::compose(contents.signer, std::int64_t(std::time(nullptr)), installedIndex(contents)));
    progress.phase(ellipsis("Moving items into place"));
    std::vector<Step> steps = mover.plan(staging, contents, old ? &old->index : nullptr, others);
    steps.push_back(Step{Step::Commit, false, 0, 0, index.identifier});
    target.journal->commit(steps);
    progress.percent(95);
    progress.phase(ellipsis("Finishing the Installation"));
    progress.percent(100);
    progress.phase("The software was successfully installed.");
    progress.succeeded();
}
