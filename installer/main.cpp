// The package installer of the Linux build, run as root by the privileged
// helper:
//
//     installer -verboseR -target / -package <file>.pkg
//
// and keeps the target's books (Books.h), which an administrator reads with
// the other forms CommandLine.h lists.
//
// It is the trust boundary: the wizard and the network are not trusted, so
// every byte of the package is checked here, and when trusted keys are
// installed only a package signed by one of them is installed. Environment:
//   VLUM_PACKAGE_FD      the package, opened by the helper (-package then
//                        only names it)
//   VLUM_TRUSTED_KEYS    folder of trusted public keys, default
//                        /etc/velluma/trusted-keys
//   VLUM_INSTALL_ROOT    put in front of the target (tests, the demo)
//   VLUM_INSTALLER_PACE  seconds to pause after each percentage, at most 5
//   VLUM_INSTALLER_LOCK_WAIT  seconds to wait for another installation on
//                        the target, default 60
// Output: see InstallerOutput.h. Exit status 0 on success, 1 on any refusal.

#include "CommandLine.h"
#include "Installation.h"
#include "Progress.h"
#include "Queries.h"
#include "Refused.h"

#include <clocale>
#include <csignal>
#include <new>

int main(int argc, char** argv)
{
    // The reader may go away; the installation must not stop half-way for that.
    std::signal(SIGPIPE, SIG_IGN);
    // Names in an archive's extended headers are UTF-8; taken as they are.
    std::setlocale(LC_CTYPE, "C.UTF-8");
    const Progress progress(Progress::paceFromEnvironment());
    try {
        const CommandLine line = CommandLine::parse(argc, argv);
        if (line.action != CommandLine::Install)
            return answer(line);
        install(line, progress);
        return 0;
    } catch (const Refused& why) {
        progress.failed(why.what());
    } catch (const std::bad_alloc&) {
        progress.failed("out of memory");
    }
    return 1;
}
