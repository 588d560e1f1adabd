#pragma once

// installer -verboseR -target <folder> -package <file>.pkg, as the helper
// runs it (-verbose and -pkg are accepted too).

#include <string>

struct CommandLine
{
    std::string target;
    std::string package;

    // Throws Refused on an unknown or incomplete option.
    static CommandLine parse(int argc, const char* const* argv);
};
