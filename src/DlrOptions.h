#pragma once

#include <QString>
#include <QStringList>

#include <optional>

// What one configuration source asks for. A value it does not name stays
// unset, so that each source overrides only what it names.
struct DlrOptions {
    std::optional<QString> user;
    std::optional<QString> pass;
    std::optional<QString> manifestServer;
    std::optional<QString> manifestServerScheme;
    std::optional<QString> manifestUrl;
    std::optional<QString> alternateManifestFile;
    std::optional<QString> appendManifestFile;
    bool debug = false; // debug logging asked for
    std::optional<bool> dumpManifest;
    std::optional<int> transferTimeout; // seconds, 1 to 86400

    // The run without a window: -unattended, with the offers -products
    // names (comma-separated), events as JSON lines (-json), and the
    // certificate authorities it trusts besides the system's and the
    // bundle's (-cafile, or the settings key "cafile").
    bool unattended = false;
    std::optional<QString> products;
    bool json = false;
    std::optional<QString> caFile;

    QList<int> passArguments;   // where each -pass value stands in the list read
    QStringList unknownOptions; // as given, in order, to be reported
    bool usageAsked = false;    // -help, --help or -h; reading stopped there
};

// The command line, without the program's name. Entries that are no option
// are skipped without a word.
DlrOptions DlrParseArguments(const QStringList& arguments);

// Overwrites each -pass value in the process's own argument memory
// (argv[1] on, as the application object read them): any local user can
// read a process's command line.
void DlrHidePasswordArguments(int argc, char** argv);

// The top-level keys of the settings file at `path` (INI, read by
// DlrReadIniTopLevel); a missing or unreadable file sets nothing.
DlrOptions DlrReadSettingsFile(const QString& path);

// What -help prints.
QString DlrUsageText();
