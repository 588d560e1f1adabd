#pragma once

// The transaction that changes a target: written to the journal in the
// target's records and synced before the step it allows, so that however
// a run ends (killed, the power) the next run on the target completes or
// undoes it before anything else.
//
// An installation first names its staging folder in the journal, then
// makes it and writes the payload and the new receipt into it: a run that
// ends there is undone (the folder and the receipt removed). It then
// writes the steps that put everything in place; from that point on the
// steps are completed, by the same run or the next. Each step can be taken
// again: one that moves a staged entry into place knows it is done when
// the target holds the staged entry itself (same device and inode); a
// staged folder replaces the old one in one exchange of names.
//
// The journal's bytes, numbers big-endian:
//
//   "velluma-journal-1\n"
//   staging  2-byte length, then the staging folder's name at the
//            target's top (empty: none)
//   count    4-byte number of steps, then each step:
//     kind   1 byte (Step::Kind)
//     folder 1 byte: 1 when the path is a folder
//     device 8 bytes, inode 8 bytes: of the staged entry a Place step moves
//     path   2-byte length, then the path below the target (for Commit
//            and Forget: the package identifier)

#include "Books.h"
#include "Descriptor.h"

#include <cstdint>
#include <string>
#include <vector>

struct Step
{
    enum Kind : char {
        Place = 'p',  // the staged entry at `path` into the target
        Remove = 'r', // `path` from the target; a folder only when empty
        Commit = 'c', // the prepared receipt of `path` into place
        Forget = 'f', // the receipt of `path` away
    };
    Kind kind = Place;
    bool folder = false;
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::string path;
};

class Journal
{
public:
    Journal(int target, const Books& books, const std::string& shown) : target(target), books(books), shown(shown) {}
    // A transaction begun and never committed is undone.
    ~Journal();
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

    // Completes or undoes what an earlier run left, and removes any staging
    // folder left at the target's top. True when there was a transaction.
    // Throws Refused when it cannot.
    bool recover();
    // Names a fresh staging folder in the journal, then makes it (mode 0700).
    int begin();
    // Writes `steps` after everything staged is on the disk, then takes them.
    void commit(const std::vector<Step>& steps);

private:
    void write(const std::vector<Step>& steps) const;
    void run(const std::vector<Step>& steps) const;
    void place(const Step& step) const;
    void remove(const Step& step) const;
    // Removes the staging folder, receipts never committed and the journal.
    void finish();

    int target;
    const Books& books;
    std::string shown;
    std::string stagingName;
    Descriptor staging;
    bool begun = false;
};
