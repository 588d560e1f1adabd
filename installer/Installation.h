#pragma once

#include "Books.h"
#include "CommandLine.h"
#include "Descriptor.h"
#include "Journal.h"
#include "Progress.h"

#include <memory>
#include <string>

// A target opened for the installer's work: its records locked, and what
// an earlier run left unfinished completed or undone. Throws Refused.
struct Target
{
    // `path` below VLUM_INSTALL_ROOT when that is set (tests, the demo).
    explicit Target(const std::string& path);
    ~Target();

    std::string shown;
    Descriptor folder;
    std::unique_ptr<Books> books;
    std::unique_ptr<Journal> journal;
    bool interrupted = false;
};

// One installation from start to end, in this order: the target, the
// trusted keys, the package's head (signature and index), the installed
// version and the other packages' paths, the free space, whether the
// target can take it; only then the staging folder, the payload streamed
// into it and checked as it comes, and the steps that put it in place,
// with the receipt, in one transaction (Journal.h). A refused package
// leaves the target as it was. Throws Refused.
void install(const CommandLine& line, const Progress& progress);
