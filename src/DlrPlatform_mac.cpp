#include "DlrPlatform.h"

#include <QCoreApplication>
#include <QDir>

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
