#include "Books.h"

#include "Beneath.h"
#include "Limits.h"
#include "Record.h"
#include "Refused.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr std::string_view kReceiptTag = "velluma-receipt-1\n";
constexpr char kFolder[] = "var/lib/velluma";

// Root's own, or the user's who runs the installer, and nobody else may write it.
void checkOwn(int fd, const std::string& shown)
{
    struct stat info;
    if (::fstat(fd, &info) != 0)
        refuse(errno, "cannot look at ", shown);
    if (info.st_uid != ::geteuid() || (info.st_mode & 022) != 0)
        throw Refused("the installer's records in " + shown + " are writable by someone else");
}

double lockWait()
{
    const char* text = std::getenv("VLUM_INSTALLER_LOCK_WAIT");
    char* end = nullptr;
    const double seconds = text && *text ? std::strtod(text, &end) : 60;
    return end && *end ? 60 : std::max(0.0, std::min(seconds, 3600.0));
}

} // namespace

std::vector<char> Receipt::compose(const std::string& signer, std::int64_t time, const std::vector<char>& index)
{
    RecordWriter out;
    out.bytes(kReceiptTag);
    out.text(signer, 2);
    out.number(std::uint64_t(time), 8);
    out.out.insert(out.out.end(), index.begin(), index.end());
    return std::move(out.out);
}

Books::Books(int target, const std::string& shown) : shown(inTarget(shown, kFolder))
{
    books = openFolderBeneath(target, kFolder, true, 0755);
    if (!books.valid())
        refuse(errno, "cannot open the installer's records in ", this->shown);
    checkOwn(books.get(), this->shown);
    receipts = openFolderBeneath(books.get(), "receipts", true, 0755);
    if (!receipts.valid())
        refuse(errno, "cannot open the receipts in ", this->shown);
    checkOwn(receipts.get(), this->shown + "/receipts");

    lock = Descriptor(::openat(books.get(), "lock", O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!lock.valid())
        refuse(errno, "cannot open the lock in ", this->shown);
    checkOwn(lock.get(), this->shown + "/lock");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(lockWait());
    while (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR)
            refuse(errno, "cannot lock ", this->shown);
        if (std::chrono::steady_clock::now() >= deadline)
            throw Refused("another installation is in progress on " + shown);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

void Books::checkIdentifier(const std::string& identifier)
{
    bool plain = !identifier.empty() && identifier.size() <= 200 && identifier.front() != '.';
    for (const char c : identifier)
        plain = plain && ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.'
                          || c == '-' || c == '_' || c == '+');
    if (!plain)
        throw Refused("the package identifier " + identifier
                      + " is not one the installer keeps records of (letters, digits, '.', '-', '_' and '+')");
}

std::vector<std::string> Books::identifiers() const
{
    std::vector<std::string> found;
    for (const std::string& name : listFolder(receipts.get()))
        if (name.front() != '.')
            found.push_back(name);
    return found;
}

std::optional<Receipt> Books::read(const std::string& identifier, bool required) const
{
    checkIdentifier(identifier);
    const std::string where = shown + "/receipts/" + identifier;
    std::optional<std::vector<char>> bytes =
        readWhole(receipts.get(), identifier, limits::kIndexBytes + (64 << 10), where);
    if (!bytes) {
        if (required)
            throw Refused("no package " + identifier + " is installed");
        return std::nullopt;
    }
    RecordReader cursor(*bytes, "receipt " + where);
    if (cursor.take(std::min(cursor.left(), kReceiptTag.size())) != kReceiptTag)
        cursor.malformed("not the layout this installer reads");
    std::string signer(cursor.text(2));
    const std::int64_t time = std::int64_t(cursor.number(8));
    const std::string_view rest = cursor.take(cursor.left());
    Receipt receipt{PackageIndex::parse(std::vector<char>(rest.begin(), rest.end())), std::move(signer), time};
    if (receipt.index.identifier != identifier)
        cursor.malformed("it is the receipt of " + receipt.index.identifier);
    return receipt;
}

Owners Books::others(const std::string& identifier) const
{
    Owners owners;
    for (const std::string& other : identifiers()) {
        if (other == identifier)
            continue;
        const std::optional<Receipt> receipt = read(other, true);
        for (const IndexRow& row : receipt->index.rows)
            owners.emplace(std::string(row.path), Owner{other, row.type == EntryType::Folder});
    }
    return owners;
}

void Books::prepare(const std::string& identifier, const std::vector<char>& bytes) const
{
    writeWhole(receipts.get(), "." + identifier + ".new", bytes, shown + "/receipts");
}

void Books::commit(const std::string& identifier) const
{
    const std::string prepared = "." + identifier + ".new";
    if (::renameat(receipts.get(), prepared.c_str(), receipts.get(), identifier.c_str()) != 0 && errno != ENOENT)
        refuse(errno, "cannot write the receipt of ", identifier);
    if (::fsync(receipts.get()) != 0)
        refuse(errno, "cannot write the receipt of ", identifier);
}

void Books::forget(const std::string& identifier) const
{
    if (::unlinkat(receipts.get(), identifier.c_str(), 0) != 0 && errno != ENOENT)
        refuse(errno, "cannot remove the receipt of ", identifier);
    if (::fsync(receipts.get()) != 0)
        refuse(errno, "cannot remove the receipt of ", identifier);
}

void Books::dropPrepared() const
{
    for (const std::string& name : listFolder(receipts.get()))
        if (name.front() == '.')
            ::unlinkat(receipts.get(), name.c_str(), 0);
}

void writeWhole(int folder, const std::string& name, const std::vector<char>& bytes, const std::string& shown)
{
    const std::string temporary = name + ".tmp";
    ::unlinkat(folder, temporary.c_str(), 0);
    const Descriptor file(
        ::openat(folder, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!file.valid() || !writeExactly(file.get(), bytes.data(), bytes.size()) || ::fsync(file.get()) != 0
        || ::renameat(folder, temporary.c_str(), folder, name.c_str()) != 0 || ::fsync(folder) != 0) {
        const int error = errno;
        ::unlinkat(folder, temporary.c_str(), 0);
        throw Refused(withSystemError("cannot write " + shown + "/" + name, error));
    }
}

std::optional<std::vector<char>> readWhole(int folder, const std::string& name, std::uint64_t limit,
                                           const std::string& shown)
{
    const Descriptor file(::openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.valid() && errno == ENOENT)
        return std::nullopt;
    struct stat info;
    if (!file.valid() || ::fstat(file.get(), &info) != 0)
        refuse(errno, "cannot read ", shown);
    if (!S_ISREG(info.st_mode) || info.st_uid != ::geteuid() || (info.st_mode & 022) != 0)
        throw Refused(shown + " is not the installer's own file");
    if (std::uint64_t(info.st_size) > limit)
        throw Refused(shown + " is larger than the installer ever writes");
    std::vector<char> bytes(size_t(info.st_size));
    if (!readExactly(file.get(), bytes.data(), bytes.size()))
        refuse(errno, "cannot read ", shown);
    return bytes;
}

int compareVersions(const std::string& a, const std::string& b)
{
    const auto segment = [](const std::string& version, size_t& at) {
        if (at > version.size())
            return std::string("0");
        const size_t dot = std::min(version.find('.', at), version.size());
        std::string part = version.substr(at, dot - at);
        at = dot + 1;
        return part.empty() ? std::string("0") : part;
    };
    const auto digits = [](const std::string& s) {
        return !s.empty() && s.find_first_not_of("0123456789") == std::string::npos;
    };
    size_t i = 0;
    size_t j = 0;
    while (i <= a.size() || j <= b.size()) {
        std::string x = segment(a, i);
        std::string y = segment(b, j);
        if (digits(x) && digits(y)) {
            // Any length: leading zeros dropped, then the longer is larger.
            x.erase(0, std::min(x.find_first_not_of('0'), x.size()));
            y.erase(0, std::min(y.find_first_not_of('0'), y.size()));
            if (x.size() != y.size())
                return x.size() < y.size() ? -1 : 1;
        }
        if (const int order = x.compare(y))
            return order < 0 ? -1 : 1;
    }
    return 0;
}
