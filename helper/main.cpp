// The Velluma Installer's privileged helper: runs the package installer as
// root on behalf of the wizard. See the usage text for what it allows.

#include "DlrHelperOptions.h"
#include "DlrHelperServer.h"

#include <cstdio>
#include <syslog.h>

int main(int argc, char** argv)
{
    const DlrHelperOptions options = DlrHelperOptions::Parse(argc, argv);
    if (options.help) {
        std::fputs(DlrHelperOptions::Usage(), stdout);
        return 0;
    }
    if (!options.error.isEmpty()) {
        std::fprintf(stderr, "velluma-installer-helper: %s\n\n%s", options.error.toLocal8Bit().constData(),
                     DlrHelperOptions::Usage());
        return 2;
    }
    // No syslog daemon may be running: the copy on standard error is then
    // the only trace.
    openlog("velluma-installer-helper", LOG_PID | LOG_PERROR, LOG_DAEMON);
    DlrHelperServer server(options);
    return server.Run();
}
