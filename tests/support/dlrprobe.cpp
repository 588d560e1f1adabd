// Child process for the configuration and logging suites. It builds the
// application object from its own arguments (so option parsing, the settings
// lookup and the environment are exercised for real), then:
//  - prints the configuration it ended with, one "key=value" line each,
//    and its command line as the process list shows it, after a
//    "--- config" marker on standard output;
//  - with DLRPROBE_LOG set, starts logging and sends one message of each
//    kind, and one more debug message after the application object is gone.
// The mode comes from the environment because the arguments belong to the
// application object.

#include "ChildRun.h"
#include "DlrApp.h"
#include "DlrLog.h"

#include <QDebug>
#include <QFile>
#include <QSettings>

#include <cstdio>

namespace {

// The process's command line after the program, as any user reads it.
QString arguments()
{
    QFile cmdline(QStringLiteral("/proc/self/cmdline"));
    if (!cmdline.open(QIODevice::ReadOnly))
        return QStringLiteral("unreadable");
    const QByteArray all = cmdline.readAll();
    return QString::fromLocal8Bit(all.mid(all.indexOf('\0') + 1).replace('\0', ' ')).trimmed();
}

} // namespace

int main(int argc, char** argv)
{
    {
        DlrApp app(argc, argv);
        const QList<QPair<const char*, QString>> values = {
            {"user", app.user},
            {"pass", app.pass},
            {"manifestServer", app.manifestServer},
            {"manifestServerScheme", app.manifestServerScheme},
            {"manifestUrl", app.manifestUrl},
            {"alternateManifestFile", app.alternateManifestFile},
            {"appendManifestFile", app.appendManifestFile},
            {"logLevel", QString::number(app.logLevel)},
            {"dumpManifest", app.dumpManifest ? QStringLiteral("true") : QStringLiteral("false")},
            {"transferTimeout", QString::number(app.transferTimeout)},
            {"settingsFile", app.settings ? app.settings->fileName() : QString()},
            {"manifestURL", app.GetURL(ManifestLocation).toString()},
            {"successURL", app.successURL.toString()},
            {"arguments", arguments()},
        };
        std::printf("%s", kConfigMarker);
        for (const auto& value : values)
            std::printf("%s=%s\n", value.first, value.second.toLocal8Bit().constData());
        std::fflush(stdout);
        if (!qEnvironmentVariableIsSet("DLRPROBE_LOG"))
            return 0;
        DlrInitializeLogging();
        qDebug() << "probe debug line";
        qWarning() << "probe warning line";
        qCritical() << "probe critical line";
        qInfo() << "probe info line";
    }
    qDebug() << "probe debug after shutdown";
    return 0;
}
