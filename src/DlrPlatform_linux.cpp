#include "DlrPlatform.h"

#include <QCoreApplication>
#include <QDir>

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
