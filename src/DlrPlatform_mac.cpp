#include "DlrPlatform.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>

#include <sys/mount.h>
#include <sys/param.h>

QString DlrPlatform::LibexecDir()
{
    return QDir::cleanPath(QCoreApplication::applicationDirPath() + QStringLiteral("/../Library/LaunchServices"));
}

QString DlrPlatform::SystemProfilerProgram()
{
    return fromEnvironment("VLUM_SYSTEM_PROFILER", QStringLiteral("/usr/sbin/system_profiler"));
}

QString DlrPlatform::ProductRoot()
{
    return fromEnvironment("VLUM_PRODUCT_ROOT", QStringLiteral("/Applications/Oktavo"));
}

QString DlrPlatform::PackageInstallerProgram()
{
    return QStringLiteral("/usr/sbin/installer");
}

QString DlrPlatform::HelperLabel()
{
    return QStringLiteral("com.oktavo.velluma.InstallerHelper");
}

QString DlrPlatform::HelperSocketPath()
{
    // On macOS the helper is reached by its Mach service name, not a path.
    return HelperLabel();
}

QString DlrPlatform::HelperProgram()
{
    return LibexecDir() + QStringLiteral("/") + HelperLabel();
}

QString DlrPlatform::HelperInstallProgram()
{
    // The service manager copies and registers the helper itself.
    return QString();
}

bool DlrPlatform::AvailableBytes(const QString& folder, qint64& bytes)
{
    struct statfs fs;
    if (::statfs(QFile::encodeName(folder).constData(), &fs) != 0)
        return false;
    // Here f_bavail counts blocks of f_bsize bytes, the fundamental size.
    // Blocks kept for the superuser are of no use to a download.
    bytes = qint64(fs.f_bsize) * qint64(fs.f_bavail);
    return true;
}
