// Configuration sources of the application object: the settings file, the
// environment and the command line, read in that order by the constructor.

#include "DlrApp.h"

#include "DlrConstants.h"
#include "DlrExitStatus.h"
#include "DlrOptions.h"
#include "DlrSettingsFile.h"

#include <QSettings>
#include <QStringList>

#include <array>
#include <cstdio>
#include <cstdlib>

#include <sys/stat.h>
#include <unistd.h>

namespace {

const char kSettingsFileName[] = "vluminstaller.ini";

struct TextMember {
    const char* name; // the settings key; the option is "-" + name
    std::optional<QString> DlrOptions::*option;
    QString DlrApp::*member;
};

const std::array<TextMember, 7> kTextMembers{{
    {"user", &DlrOptions::user, &DlrApp::user},
    {"manifestserver", &DlrOptions::manifestServer, &DlrApp::manifestServer},
    {"manifestserverscheme", &DlrOptions::manifestServerScheme, &DlrApp::manifestServerScheme},
    {"manifesturl", &DlrOptions::manifestUrl, &DlrApp::manifestUrl},
    {"pass", &DlrOptions::pass, &DlrApp::pass},
    {"appendmanifest", &DlrOptions::appendManifestFile, &DlrApp::appendManifestFile},
    {"manifest", &DlrOptions::alternateManifestFile, &DlrApp::alternateManifestFile},
}};

void apply(DlrApp& app, const DlrOptions& options)
{
    for (const TextMember& entry : kTextMembers) {
        if (options.*entry.option)
            app.*entry.member = *(options.*entry.option);
    }
    if (options.debug)
        app.logLevel = 0;
    if (options.dumpManifest)
        app.dumpManifest = *options.dumpManifest;
    if (options.transferTimeout)
        app.transferTimeout = *options.transferTimeout;
    if (options.caFile)
        app.caFile = *options.caFile;
}

} // namespace

QString DlrUsageText()
{
    return QStringLiteral(
               " -user <user name>\n"
               " -manifestserver <server name>    defaults to scheme to http\n"
               " -manifestserverscheme [ https|http ]\n"
               " -manifesturl <path to manifest generating url>\n"
               "    default is forum/currentproducts.php\n"
               " -pass <password>\n"
               " -appendmanifest <manifest xml filename>\n"
               "     reads the manifest from file and adds it to that returned by the server\n"
               " -manifest <manifest xml filename>\n"
               "     reads the manifest from file, disgards server's\n"
               " -debug\n"
               "    sets the log level to debug\n"
               " -dumpManifest\n"
               "    writes the manifest xml to a ~/Downloads/manifest.xml\n"
               " -help\n"
               "    this message\n"
               "\n"
               "\n"
               "example:\n"
               "\n"
               "    ./Velluma\\ Installer -debug -manifestserver %1"
               " -manifestserverscheme https -dumpManifest\n"
               "\n"
               "without a window:\n"
               " -unattended\n"
               "    signs in, surveys, downloads and installs the offers chosen for this\n"
               "    machine; one line per event on standard output\n"
               " -products <name>[,<name>...]\n"
               "    exactly these offers (names as listed or package names)\n"
               " -json\n"
               "    events as JSON lines\n"
               " -cafile <file>\n"
               "    also trust the certificate authorities of this PEM file\n"
               "exit status: %2 everything chosen installed, %3 no product list,\n"
               "    %4 not enough free space, %5 a download failed, %6 an installation\n"
               "    failed, %7 a bad option or product name")
        .arg(QLatin1String(DlrTestServerHost))
        .arg(DlrExitNormal)
        .arg(DlrExitNoProductList)
        .arg(DlrExitNoSpace)
        .arg(DlrExitDownloadFailed)
        .arg(DlrExitInstallFailed)
        .arg(DlrExitBadRequest);
}

DlrOptions DlrReadSettingsFile(const QString& path)
{
    DlrOptions options;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return options;
    const QHash<QString, QVariant> settings = DlrReadIniTopLevel(file.readAll());
    for (const TextMember& entry : kTextMembers) {
        const QString key = QLatin1String(entry.name);
        // A value of the wrong kind is taken as text without complaint, as
        // QSettings converts it: an unquoted comma makes a list, no text.
        if (settings.contains(key))
            options.*entry.option = settings.value(key).toString();
    }
    if (settings.contains(QStringLiteral("cafile")))
        options.caFile = settings.value(QStringLiteral("cafile")).toString();
    options.debug = settings.contains(QStringLiteral("debug"));
    if (settings.contains(QStringLiteral("dumpManifest")))
        options.dumpManifest = settings.value(QStringLiteral("dumpManifest")).toInt() != 0;
    // Whole seconds from one to a day; anything else keeps the default.
    bool ok = false;
    const int timeout = settings.value(QStringLiteral("transfertimeout")).toString().trimmed().toInt(&ok);
    if (ok && timeout > 0)
        options.transferTimeout = qMin(timeout, 24 * 3600);
    return options;
}

namespace {

// One reading of the command line; the options of the run without a window
// count only in that run, and are unknown ones otherwise.
DlrOptions readArguments(const QStringList& args, bool unattended)
{
    DlrOptions options;
    int i = 0;
    while (i < args.size()) {
        const QString& arg = args.at(i);
        bool handled = false;
        for (const TextMember& opt : kTextMembers) {
            if (!arg.startsWith(QLatin1Char('-')) || QStringView(arg).mid(1) != QLatin1String(opt.name))
                continue;
            if (i + 1 < args.size()) {
                // A server named on the command line is plain http unless a
                // later -manifestserverscheme says otherwise.
                if (opt.option == &DlrOptions::manifestServer)
                    options.manifestServerScheme = QStringLiteral("http");
                if (opt.option == &DlrOptions::pass)
                    options.passArguments << i + 1;
                options.*opt.option = args.at(i + 1);
                i += 2;
                handled = true;
            }
            break;
        }
        if (handled)
            continue;

        const bool products = arg == QLatin1String("-products");
        if (unattended && (products || arg == QLatin1String("-cafile")) && i + 1 < args.size()) {
            (products ? options.products : options.caFile) = args.at(i + 1);
            i += 2;
            continue;
        }
        if (arg == QLatin1String("-debug")) {
            options.debug = true;
        } else if (arg == QLatin1String("-unattended")) {
            options.unattended = true;
        } else if (unattended && arg == QLatin1String("-json")) {
            options.json = true;
        } else if (arg == QLatin1String("-dumpManifest")) {
            options.dumpManifest = true;
        } else if (arg == QLatin1String("-help") || arg == QLatin1String("--help") || arg == QLatin1String("-h")) {
            options.usageAsked = true;
            break;
        } else if (arg.startsWith(QLatin1Char('-'))) {
            options.unknownOptions << arg;
        }
        ++i;
    }
    return options;
}

} // namespace

DlrOptions DlrParseArguments(const QStringList& args)
{
    // -unattended may come last: read once to find it, and again without
    // that run's options when it is not there.
    const DlrOptions options = readArguments(args, true);
    if (options.unattended)
        return options;
    DlrOptions windowed = readArguments(args, false);
    windowed.unattended = false; // the first reading took it as -products' value
    return windowed;
}

void DlrHidePasswordArguments(int argc, char** argv)
{
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    for (int at : DlrParseArguments(arguments).passArguments) {
        for (char* c = argv[at + 1]; *c; ++c)
            *c = 'x';
    }
}

QString DlrApp::ExposedPasswordFile() const
{
    if (!settings)
        return QString();
    const QString path = settings->fileName();
    struct stat info {};
    if (::stat(QFile::encodeName(path).constData(), &info) != 0 || !DlrReadSettingsFile(path).pass)
        return QString();
    return (info.st_mode & (S_IRGRP | S_IROTH)) || info.st_uid != ::geteuid() ? path : QString();
}

void DlrApp::loadSettings()
{
    // The home folder's file wins outright; the bundle's is read only when
    // the user has none (keys are never merged between the two).
    QString path = QDir(QDir::homePath()).filePath(QLatin1String(kSettingsFileName));
    if (!QFile::exists(path)) {
        QDir resources(appDirPath);
        resources.cdUp();
        resources.cd(QStringLiteral("Resources")); // stays in the parent when missing
        path = resources.filePath(QLatin1String(kSettingsFileName));
        if (!QFile::exists(path))
            return;
    }
    settings = std::make_unique<QSettings>(path, QSettings::IniFormat);
    apply(*this, DlrReadSettingsFile(path));
}

void DlrApp::parseEnvironment()
{
    // Presence alone counts: an empty value switches debug logging on too.
    if (qEnvironmentVariableIsSet("VLUMINSTALLER_DEBUG_LOG"))
        logLevel = 0;
}

void DlrApp::parseCommandLineArguments()
{
    const DlrOptions options = DlrParseArguments(QCoreApplication::arguments().mid(1));
    // An unattended run refuses them (a script's typo must not go unseen);
    // its events are the only thing it prints on standard output.
    unattended = options.unattended;
    jsonEvents = options.json;
    if (options.products)
        products = options.products->split(QLatin1Char(','), Qt::SkipEmptyParts);
    productsNamed = options.products.has_value();
    unknownOptions = options.unknownOptions;
    for (const QString& unknown : options.unknownOptions) {
        if (!unattended)
            std::printf("Unknown option %s\n\n", unknown.toLocal8Bit().constData());
    }
    if (options.usageAsked) {
        std::printf("%s\n", DlrUsageText().toLocal8Bit().constData());
        std::fflush(stdout);
        std::exit(DlrExitNormal);
    }
    std::fflush(stdout);
    apply(*this, options);
}

QUrl DlrApp::GetURL(DlrLocation location) const
{
    switch (location) {
    case ManifestLocation:
        return QUrl::fromUserInput(manifestServerScheme + QStringLiteral("://") + manifestServer
                                   + QLatin1Char('/') + manifestUrl);
    }
    return QUrl();
}
