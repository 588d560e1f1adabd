#include "CommandLine.h"

#include "Refused.h"

#include <string_view>
#include <utility>

namespace {

constexpr std::pair<std::string_view, CommandLine::Action> kQueries[] = {
    {"-pkginfo", CommandLine::Info},
    {"-files", CommandLine::Files},
    {"-verify", CommandLine::Verify},
    {"-uninstall", CommandLine::Uninstall},
};

} // namespace

CommandLine CommandLine::parse(int argc, const char* const* argv)
{
    CommandLine line;
    bool queried = false;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "-verboseR" || arg == "-verbose")
            continue;
        if ((arg == "-target" || arg == "-package" || arg == "-pkg") && i + 1 < argc) {
            (arg == "-target" ? line.target : line.package) = argv[++i];
            continue;
        }
        if (arg == "-pkgs" && !queried) {
            line.action = List;
            queried = true;
            continue;
        }
        bool known = false;
        for (const auto& [option, action] : kQueries)
            if (arg == option && i + 1 < argc && !queried) {
                line.action = action;
                line.identifier = argv[++i];
                queried = known = true;
            }
        if (!known)
            throw Refused("unknown or incomplete option " + std::string(arg));
    }
    if (queried && line.package.empty())
        line.target = line.target.empty() ? "/" : line.target;
    else if (line.target.empty() || line.package.empty() || queried)
        throw Refused("usage: installer -verboseR -target <folder> -package <file>.pkg, or installer "
                      "[-target <folder>] -pkgs | -pkginfo ID | -files ID | -verify ID | -uninstall ID");
    return line;
}
