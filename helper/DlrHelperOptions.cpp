#include "DlrHelperOptions.h"

#include "DlrPlatform.h"

#include <QFileInfo>

#include <climits>
#include <fcntl.h>
#include <cstdlib>
#include <unistd.h>

namespace {

QByteArray resolved(const QByteArray& path)
{
    char buffer[PATH_MAX];
    return ::realpath(path.constData(), buffer) ? QByteArray(buffer) : QByteArray();
}

// The package installer shipped beside this program in the bundle.
QByteArray defaultInstaller()
{
    const QByteArray self = resolved("/proc/self/exe");
    const int slash = self.lastIndexOf('/');
    return slash < 0 ? QByteArray() : self.left(slash) + "/installer";
}

} // namespace

const char* DlrHelperOptions::Usage()
{
    return "Usage: velluma-installer-helper [options]\n"
           "\n"
           "The Velluma Installer's privileged helper. It listens on a Unix socket,\n"
           "serves only root and the users it is told to, opens files only below the\n"
           "folders it is told to, and runs only the package installer, with exactly\n"
           "the arguments -verboseR -target / -package <file>.pkg.\n"
           "\n"
           "Options:\n"
           "  --socket <path>        where to listen; default: $VLUM_HELPER_SOCKET, or\n"
           "                         /run/com.oktavo.velluma.InstallerHelper.sock\n"
           "  --allow-uid <uid>      also serve this user id (repeatable)\n"
           "  --allow-folder <dir>   allow opening files below this folder (repeatable;\n"
           "                         without any, every open request is refused)\n"
           "  --installer <program>  the package installer it runs; default: the\n"
           "                         installer beside this program\n"
           "  --trusted-keys <dir>   the folder of public keys the installer trusts;\n"
           "                         default: the installer's own, /etc/velluma/trusted-keys\n"
           "  --help                 print this text and exit\n"
           "\n"
           "Environment:\n"
           "  VLUM_HELPER_SOCKET     socket path, when --socket is not given\n"
           "  VLUM_INSTALL_ROOT      passed on to the package installer, which then\n"
           "                         installs below this folder instead of /\n";
}

DlrHelperOptions DlrHelperOptions::Parse(int argc, char** argv)
{
    DlrHelperOptions options;
    QByteArray installer;
    for (int i = 1; i < argc; ++i) {
        const QByteArray option = argv[i];
        if (option == "--help" || option == "-h") {
            options.help = true;
            return options;
        }
        if (i + 1 >= argc) {
            options.error = QStringLiteral("unknown option or missing value: %1").arg(QString::fromLocal8Bit(option));
            return options;
        }
        const QByteArray value = argv[++i];
        if (option == "--socket") {
            options.socketPath = value;
        } else if (option == "--allow-uid") {
            bool ok = false;
            const uint uid = value.toUInt(&ok);
            if (!ok) {
                options.error = QStringLiteral("not a user id: %1").arg(QString::fromLocal8Bit(value));
                return options;
            }
            options.allowedUids << uid_t(uid);
        } else if (option == "--allow-folder") {
            const QByteArray folder = resolved(value);
            if (folder.isEmpty() || !QFileInfo(QString::fromLocal8Bit(folder)).isDir()) {
                options.error = QStringLiteral("no such folder: %1").arg(QString::fromLocal8Bit(value));
                return options;
            }
            const int fd = ::open(folder.constData(), O_PATH | O_DIRECTORY | O_CLOEXEC);
            if (fd < 0) {
                options.error = QStringLiteral("cannot open folder: %1").arg(QString::fromLocal8Bit(value));
                return options;
            }
            options.allowedFolders << folder;
            options.allowedFolderFds << fd;
        } else if (option == "--trusted-keys") {
            options.trustedKeys = resolved(value);
            if (options.trustedKeys.isEmpty()) {
                options.error = QStringLiteral("no such folder: %1").arg(QString::fromLocal8Bit(value));
                return options;
            }
        } else if (option == "--installer") {
            installer = value;
        } else {
            options.error = QStringLiteral("unknown option: %1").arg(QString::fromLocal8Bit(option));
            return options;
        }
    }
    if (options.socketPath.isEmpty())
        options.socketPath = DlrPlatform::HelperSocketPath().toLocal8Bit();
    options.installer = resolved(installer.isEmpty() ? defaultInstaller() : installer);
    if (options.installer.isEmpty() || ::access(options.installer.constData(), X_OK) != 0)
        options.error = QStringLiteral("no package installer program: %1")
                            .arg(QString::fromLocal8Bit(installer.isEmpty() ? defaultInstaller() : installer));
    return options;
}
