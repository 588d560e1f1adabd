#pragma once

#include "CommandLine.h"
#include "Progress.h"

// One installation from start to end, in this order: the target, the
// trusted keys, the package's head (signature and index), the free space,
// whether the target can take it; only then the staging folder, the
// payload streamed into it and checked as it comes, and the move into
// place. A refused package leaves the target
// as it was. Throws Refused.
void install(const CommandLine& line, const Progress& progress);
