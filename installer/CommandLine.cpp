#include "CommandLine.h"

#include "Refused.h"

#include <string_view>

CommandLine CommandLine::parse(int argc, const char* const* argv)
{
    CommandLine line;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "-verboseR" || arg == "-verbose")
            continue;
        if ((arg == "-target" || arg == "-package" || arg == "-pkg") && i + 1 < argc) {
            (arg == "-target" ? line.target : line.package) = argv[++i];
            continue;
        }
        throw Refused("unknown or incomplete option " + std::string(arg));
    }
    if (line.target.empty() || line.package.empty())
        throw Refused("usage: installer -verboseR -target <folder> -package <file>.pkg");
    return line;
}
