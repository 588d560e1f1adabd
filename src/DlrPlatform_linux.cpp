#include "DlrPlatform.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>

#include <limits>

#include <sys/statvfs.h>

QString DlrPlatform::LibexecDir()
{
    // bin/ and libexec/ are siblings in the bundle, as tests/ is.
    return QDir::cleanPath(QCoreApplication::applicationDirPath() + QStringLiteral("/../libexec"));
}

QString DlrPlatform::SystemProfilerProgram()
{
    return fromEnvironment("VLUM_SYSTEM_PROFILER", LibexecDir() + QStringLiteral("/system_profiler"));
}

QString DlrPlatform::ProductRoot()
{
    return fromEnvironment("VLUM_PRODUCT_ROOT", QStringLiteral("/opt/Oktavo"));
}

QString DlrPlatform::PackageInstallerProgram()
{
    return LibexecDir() + QStringLiteral("/installer");
}

QString DlrPlatform::HelperLabel()
{
    return QStringLiteral("com.oktavo.velluma.InstallerHelper");
}

QString DlrPlatform::HelperSocketPath()
{
    return fromEnvironment("VLUM_HELPER_SOCKET", QStringLiteral("/run/") + HelperLabel() + QStringLiteral(".sock"));
}

QString DlrPlatform::HelperProgram()
{
    return LibexecDir() + QStringLiteral("/velluma-installer-helper");
}

QString DlrPlatform::HelperInstallProgram()
{
    return LibexecDir() + QStringLiteral("/install-helper");
}

bool DlrPlatform::AvailableBytes(const QString& folder, qint64& bytes)
{
    struct statvfs fs;
    if (::statvfs(QFile::encodeName(folder).constData(), &fs) != 0)
        return false;
    // f_bavail counts fragments of f_frsize bytes; f_bsize is only the
    // preferred transfer size and may be larger (FUSE, network mounts).
    // Blocks kept for the superuser are of no use to a download.
    const unsigned long long unit = fs.f_frsize ? fs.f_frsize : fs.f_bsize;
    const unsigned long long limit = std::numeric_limits<qint64>::max();
    bytes = fs.f_bavail > limit / (unit ? unit : 1) ? qint64(limit) : qint64(fs.f_bavail * unit);
    return true;
}
