// Configuration sources of the application object: the settings file, the
// environment and the command line, read in that order by the constructor.

#include "DlrApp.h"

#include "DlrConstants.h"

#include <QSettings>
#include <QStringList>

#include <array>
#include <cstdio>
#include <cstdlib>

namespace {

const char kSettingsFileName[] = "vluminstaller.ini";

QString usageText()
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
               " -manifestserverscheme https -dumpManifest")
        .arg(QLatin1String(DlrTestServerHost));
}

// A value of the wrong kind is taken as text without complaint. INI values
// with an unquoted comma come back as lists: join them again so that such a
// password is not silently emptied.
QString settingText(const QVariant& value)
{
    if (value.userType() == QMetaType::QStringList)
        return value.toStringList().join(QLatin1Char(','));
    return value.toString();
}

struct TextMember {
    const char* name; // the settings key; the option is "-" + name
    QString* member;
};

std::array<TextMember, 7> textMembers(DlrApp& app)
{
    return {{
        {"user", &app.user},
        {"manifestserver", &app.manifestServer},
        {"manifestserverscheme", &app.manifestServerScheme},
        {"manifesturl", &app.manifestUrl},
        {"pass", &app.pass},
        {"appendmanifest", &app.appendManifestFile},
        {"manifest", &app.alternateManifestFile},
    }};
}

} // namespace

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

    for (const TextMember& entry : textMembers(*this)) {
        const QString key = QLatin1String(entry.name);
        if (settings->contains(key))
            *entry.member = settingText(settings->value(key));
    }
    if (settings->contains(QStringLiteral("debug")))
        logLevel = 0;
    if (settings->contains(QStringLiteral("dumpManifest")))
        dumpManifest = settings->value(QStringLiteral("dumpManifest")).toInt() != 0;
    // Whole seconds from one to a day; anything else keeps the default.
    bool ok = false;
    const int timeout = settingText(settings->value(QStringLiteral("transfertimeout"))).trimmed().toInt(&ok);
    if (ok && timeout > 0)
        transferTimeout = qMin(timeout, 24 * 3600);
}

void DlrApp::parseEnvironment()
{
    // Presence alone counts: an empty value switches debug logging on too.
    if (qEnvironmentVariableIsSet("VLUMINSTALLER_DEBUG_LOG"))
        logLevel = 0;
}

void DlrApp::parseCommandLineArguments()
{
    const QStringList args = QCoreApplication::arguments();
    if (args.size() < 2)
        return;

    const std::array<TextMember, 7> valueOptions = textMembers(*this);

    int i = 1;
    while (i < args.size()) {
        const QString& arg = args.at(i);
        bool handled = false;
        for (const TextMember& opt : valueOptions) {
            if (!arg.startsWith(QLatin1Char('-')) || arg.midRef(1) != QLatin1String(opt.name))
                continue;
            if (i + 1 < args.size()) {
                // A server named on the command line is plain http unless a
                // later -manifestserverscheme says otherwise.
                if (opt.member == &manifestServer)
                    manifestServerScheme = QStringLiteral("http");
                *opt.member = args.at(i + 1);
                i += 2;
                handled = true;
            }
            break;
        }
        if (handled)
            continue;

        if (arg == QLatin1String("-debug")) {
            logLevel = 0;
        } else if (arg == QLatin1String("-dumpManifest")) {
            dumpManifest = true;
        } else if (arg == QLatin1String("-help") || arg == QLatin1String("--help")
                   || arg == QLatin1String("-h")) {
            std::printf("%s\n", usageText().toLocal8Bit().constData());
            std::fflush(stdout);
            std::exit(0);
        } else if (arg.startsWith(QLatin1Char('-'))) {
            std::printf("Unknown option %s\n\n", arg.toLocal8Bit().constData());
        }
        ++i;
    }
    std::fflush(stdout);
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
