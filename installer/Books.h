#pragma once

// The installer's records of one target, in its var/lib/velluma (so
// /var/lib/velluma on a machine): one receipt per installed package
// identifier under receipts/, the journal of the transaction in progress
// (Journal.h) and the lock that keeps installations on the target one at a
// time. Everything in it is root's: a folder or file anyone else could
// write is refused, and no link is followed on the way to it.
//
// A receipt's bytes, numbers big-endian:
//
//   "velluma-receipt-1\n"
//   signer   2-byte length, then the trusted key that signed the package,
//            empty when it was installed unverified
//   time     8 bytes: when it was installed, seconds since 1970
//   then an index in the package index's layout (PackageIndex.h): the
//   package's PackageInfo and one row per installed path, each as it was
//   installed (folders all listed, hard links as the files they are).

#include "Descriptor.h"
#include "PackageIndex.h"

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

struct Receipt
{
    PackageIndex index; // identifier, version and every installed path
    std::string signer;
    std::int64_t time = 0;

    static std::vector<char> compose(const std::string& signer, std::int64_t time, const std::vector<char>& index);
};

// Paths receipts list, with the identifier that lists each.
struct Owner
{
    std::string identifier;
    bool folder = false;
};
using Owners = std::unordered_map<std::string, Owner>;

class Books
{
public:
    // Opens the records of the target open at `target`, making them when
    // missing, and takes the target's lock, waiting for another
    // installation at most VLUM_INSTALLER_LOCK_WAIT seconds (default 60).
    // `shown` is the target in messages. Throws Refused.
    Books(int target, const std::string& shown);

    int folder() const { return books.get(); }

    // Throws Refused for an identifier that cannot name a receipt.
    static void checkIdentifier(const std::string& identifier);
    // The identifiers with a receipt, sorted.
    std::vector<std::string> identifiers() const;
    // Throws Refused when there is none and `required`, or when it is damaged.
    std::optional<Receipt> read(const std::string& identifier, bool required = false) const;

    // The paths every receipt but `identifier`'s lists.
    Owners others(const std::string& identifier) const;

    // Writes a receipt beside its place, synced; commit() puts it in place
    // and forget() removes a receipt. Both may be repeated.
    void prepare(const std::string& identifier, const std::vector<char>& bytes) const;
    void commit(const std::string& identifier) const;
    void forget(const std::string& identifier) const;
    // Removes receipts prepared and never committed.
    void dropPrepared() const;

private:
    std::string shown;
    Descriptor books;
    Descriptor receipts;
    Descriptor lock;
};

// Writes `bytes` to `name` in `folder` through a temporary name, synced
// before and after the rename: whoever reads finds the old or the new
// file whole. Throws Refused.
void writeWhole(int folder, const std::string& name, const std::vector<char>& bytes, const std::string& shown);
// The whole of a root-owned regular file `name` in `folder`, at most
// `limit` bytes, or nullopt when there is none. Throws Refused.
std::optional<std::vector<char>> readWhole(int folder, const std::string& name, std::uint64_t limit,
                                           const std::string& shown);
// Orders versions by their dot-separated segments, numerically where both
// are digits, else as text; a missing segment counts as 0.
int compareVersions(const std::string& a, const std::string& b);
