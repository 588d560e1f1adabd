#pragma once

// File-system steps confined below a folder held open: no link is ever
// followed on the way (openat2 with RESOLVE_BENEATH, RESOLVE_NO_SYMLINKS
// and RESOLVE_NO_MAGICLINKS, one name at a time), so neither a package nor
// anything already in the target can send a write elsewhere.

#include "Descriptor.h"

#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

// The folder `path` (normalised, relative; "" is `base` itself) below
// `base`. With `create`, missing folders are made with `mode`. An invalid
// descriptor with errno set when a component is missing, is not a folder, or is
// a link.
Descriptor openFolderBeneath(int base, const std::string& path, bool create, mode_t mode = 0700);

// The names in an open folder but "." and "..", sorted.
std::vector<std::string> listFolder(int folder);

// Removes `name` in `parent` and, for a folder, everything in it, without
// following links; as much as it can, quietly.
void removeTree(int parent, const std::string& name);

// Where `relative` is below the target `target`, as messages show it.
std::string inTarget(const std::string& target, std::string_view relative);

// The folder holding a normalised path ("" for a top-level name) and the
// last name in it.
std::string folderOf(const std::string& path);
std::string nameOf(const std::string& path);
