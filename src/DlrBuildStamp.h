#pragma once

// "linked <date> <time> <zone> _<change number>", fixed when the program is
// built. Nothing displays it; it is there to be found in the binary.
const char* DlrBuildDateAndVersion();
