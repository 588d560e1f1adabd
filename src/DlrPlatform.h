#pragma once

#include <QString>
#include <QStringList>

// The values that differ between the platforms the wizard runs on. One
// implementation per platform (DlrPlatform_<os>.cpp), chosen by CMake;
// nothing else in the code asks which platform it is on.
class DlrPlatform
{
public:
    // The program that prints the machine's hardware and install history
    // as a property list (VLUM_SYSTEM_PROFILER overrides it).
    static QString SystemProfilerProgram();

    // The folder where the vendor's products are installed
    // (VLUM_PRODUCT_ROOT overrides it).
    static QString ProductRoot();

    // The package installer the privileged helper runs.
    static QString PackageInstallerProgram();
    // Its command line for installing `package` on the whole machine.
    static QStringList PackageInstallerArguments(const QString& package)
    {
        return {QStringLiteral("-verboseR"), QStringLiteral("-target"), QStringLiteral("/"),
                QStringLiteral("-package"), package};
    }

    // The label the privileged helper is registered under.
    static QString HelperLabel();

    // Where the privileged helper listens (VLUM_HELPER_SOCKET overrides it).
    static QString HelperSocketPath();

    // The privileged helper program shipped in the bundle.
    static QString HelperProgram();

    // The program that installs the helper as a system service, run with
    // administrator rights; empty where the system installs it itself.
    static QString HelperInstallProgram();

    // The folder of the bundle's helper programs.
    static QString LibexecDir();

    // Bytes an unprivileged user may still write on the file system holding
    // `folder`; false when the file system cannot be asked.
    static bool AvailableBytes(const QString& folder, qint64& bytes);

private:
    // The variable's value when it is set and not empty, else the fallback.
    static QString fromEnvironment(const char* name, const QString& fallback);
};
