#pragma once

// installer -verboseR -target <folder> -package <file>.pkg, as the helper
// runs it (-verbose and -pkg are accepted too); and the books, for an
// administrator, on -target or /:
//   -pkgs            the installed packages, "<identifier> <version>" a line
//   -pkginfo ID      its version, signer, time and number of files
//   -files ID        its paths, one a line
//   -verify ID       its paths that are missing or changed; status 1 if any
//   -uninstall ID    removes its files, the folders left empty and its receipt

#include <string>

struct CommandLine
{
    enum Action { Install, List, Info, Files, Verify, Uninstall };

    Action action = Install;
    std::string target;
    std::string package;
    std::string identifier;

    // Throws Refused on an unknown or incomplete option.
    static CommandLine parse(int argc, const char* const* argv);
};
