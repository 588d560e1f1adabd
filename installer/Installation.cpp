#include "Installation.h"

#include "Beneath.h"
#include "Mover.h"
#include "PackageFile.h"
#include "PackageReader.h"
#include "Refused.h"
#include "TrustedKeys.h"
#include "Unpacker.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

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
        throw Refused(withSystemError("cannot see the free space in " + folder, errno));
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

// A fresh, private folder in the target, removed again however the
// installation ends.
class Staging
{
public:
    explicit Staging(int target) : target(target)
    {
        for (int attempt = 0; attempt < 16 && !folder.valid(); ++attempt) {
            unsigned char random[6];
            if (::getrandom(random, sizeof random, 0) != sizeof random)
                throw Refused(withSystemError("cannot name a staging folder", errno));
            char text[32];
            std::snprintf(text, sizeof text, ".vlum-install-%02x%02x%02x%02x%02x%02x", random[0], random[1],
                          random[2], random[3], random[4], random[5]);
            if (::mkdirat(target, text, 0700) != 0) {
                if (errno == EEXIST)
                    continue;
                throw Refused(withSystemError("cannot make a staging folder in the target", errno));
            }
            name = text;
            folder = openFolderBeneath(target, name, false);
            if (!folder.valid())
                throw Refused(withSystemError("cannot open the staging folder", errno));
        }
        if (!folder.valid())
            throw Refused("cannot make a staging folder in the target");
    }
    ~Staging()
    {
        if (!name.empty())
            removeTree(target, name);
    }
    Staging(const Staging&) = delete;
    Staging& operator=(const Staging&) = delete;

    int get() const { return folder.get(); }

private:
    int target;
    std::string name;
    Descriptor folder;
};

} // namespace

void install(const CommandLine& line, const Progress& progress)
{
    progress.phase(ellipsis("Preparing for installation"));
    progress.percent(0);
    const std::string folder = targetFolder(line.target);
    const Descriptor target(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!target.valid())
        throw Refused("no such target folder: " + folder);

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
    checkSpace(target.get(), folder, index);
    const Mover mover(target.get(), folder);
    mover.check(contents);

    progress.phase(ellipsis("Validating packages"));
    progress.percent(10);
    {
        const Staging staging(target.get());
        progress.phase(ellipsis("Installing " + index.identifier));
        Unpacker(staging.get(), progress).unpack(archive, contents);
        progress.phase(ellipsis("Moving items into place"));
        mover.move(staging.get());
        progress.percent(95);
    }
    progress.phase(ellipsis("Finishing the Installation"));
    progress.percent(100);
    progress.phase("The software was successfully installed.");
    progress.succeeded();
}
