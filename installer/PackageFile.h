#pragma once

// The package file, opened for reading once. Its owner may rewrite it
// while it is read; nothing is gained by that, since every byte is checked
// against the index as it streams into root's private staging folder.

#include "Descriptor.h"

#include <string>

// The descriptor in VLUM_PACKAGE_FD when set (the helper opened and
// checked the file), else `path` opened without following a link. Either
// must be a regular file. Throws Refused.
Descriptor openPackage(const std::string& path);
