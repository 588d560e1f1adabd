// Selection benchmark: reads a manifest of N offers and runs the selection
// rules on it against a surveyed machine with 50 installed products.
//
//     bench_selection [offers=5000] [runs=5]
//
// Prints each run's parse and rules times, their medians and the sum;
// target under 150 ms together. Exits 1 when the rules choose nothing
// (the figures would then measure a short cut), 0 otherwise.

#include "../tests/support/ProductTree.h"
#include "BenchSupport.h"

#include "DlrApp.h"
#include "DlrLog.h"
#include "DlrMachineAssay.h"
#include "DlrManifestHandler.h"
#include "DlrSelection.h"

#include <QElapsedTimer>
#include <QTemporaryDir>

#include <cstdio>
#include <cstdlib>

namespace {

constexpr double kTargetMs = 150.0;
const char* const kMayas[] = {"2016", "2017", "2018", "2019"};

// Versions 19 to 23, a few builds each, every build with its core server,
// bridges for each Maya, a workshop bundle and extras.
QByteArray makeManifest(int offers)
{
    QByteArray xml = "<Manifest>\n";
    for (int i = 0; i < offers; ++i) {
        const int major = 19 + i % 5;
        const QString version = QStringLiteral("%1.%2").arg(major).arg(i / 5 % 4);
        const QString build = QString::number(300000 + (i / 20) % 40);
        QString name;
        QString simple;
        QString behavior = QStringLiteral("automatic");
        switch (i / 5 % 6) {
        case 0:
            name = QStringLiteral("Velluma-CoreServer-%1.%2.pkg").arg(version, build);
            simple = QStringLiteral("Velluma CoreServer %1").arg(version);
            break;
        case 1:
        case 2: {
            const QString maya = QLatin1String(kMayas[i % 4]);
            name = QStringLiteral("VellumaForMaya-%1-maya%2_%3-1.pkg").arg(version, maya, build);
            simple = QStringLiteral("Velluma for Maya %1").arg(maya);
            break;
        }
        case 3:
            name = QStringLiteral("VellumaWorkshop-%1-Maya2018_%2.pkg").arg(version, build);
            simple = QStringLiteral("Velluma Workshop for Maya");
            break;
        case 4:
            name = QStringLiteral("Harrow-%1_%2.pkg").arg(version, build);
            simple = QStringLiteral("Harrow");
            break;
        default:
            name = QStringLiteral("VellumaSampleScenes-%1_%2.pkg").arg(version, build);
            simple = QStringLiteral("Velluma Sample Scenes");
            behavior = i % 2 ? QStringLiteral("show") : QStringLiteral("hidden");
        }
        xml += QStringLiteral("<ProductInfo><Name>%1</Name><BuildID>%2</BuildID><SimpleName>%3</SimpleName>"
                              "<DownloadURL>https://downloads.example/packages/%1</DownloadURL>"
                              "<FileSize>%4</FileSize><DefaultBehavior>%5</DefaultBehavior>"
                              "<VersionMajor>%6</VersionMajor><VersionMinor>%7</VersionMinor>"
                              "<VersionBeta></VersionBeta></ProductInfo>\n")
                   .arg(name, build, simple, QString::number(1000000 + i), behavior, QString::number(major),
                        QString::number(i / 5 % 4))
                   .toUtf8();
    }
    return xml + "</Manifest>\n";
}

// 50 products: core servers of the older versions and their bridges.
void buildMachine(ProductTree& products, ProductTree& mayas)
{
    for (const char* maya : kMayas)
        mayas.folder(QStringLiteral("maya") + QLatin1String(maya));
    for (int i = 0; i < 50; ++i) {
        const QString version = QStringLiteral("%1.%2").arg(19 + i % 4).arg(i / 4 % 4);
        const QString id = QString::number(300000 + i % 30);
        if (i % 2 == 0) {
            products.banner(QStringLiteral("VCS-%1/bin/vlrender").arg(i), version, id);
        } else {
            const QString folder = QStringLiteral("VellumaForMaya-%1-maya%2").arg(i).arg(QLatin1String(kMayas[i % 4]));
            products.plugin(folder);
            products.file(folder + QStringLiteral("/etc/buildid.txt"), "Velluma " + version.toUtf8() + " @" + id.toUtf8());
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    const int offers = argc > 1 ? std::atoi(argv[1]) : 5000;
    const int count = argc > 2 ? std::atoi(argv[2]) : 5;
    if (offers < 1 || count < 1) {
        std::fprintf(stderr, "usage: bench_selection [offers] [runs]\n");
        return 2;
    }

    QTemporaryDir scratch;
    isolateBenchEnvironment(scratch);
    qputenv("VLUM_MAYA_ROOT", scratch.filePath(QStringLiteral("autodesk")).toLocal8Bit());

    int appArgc = 1;
    DlrApp app(appArgc, argv);
    DlrInitializeLogging();

    ProductTree products(scratch.filePath(QStringLiteral("Oktavo")));
    ProductTree mayas(scratch.filePath(QStringLiteral("autodesk")));
    buildMachine(products, mayas);
    app.DoAssay();
    const int installed = app.assay->FindAssayedProductByVersion(QStringLiteral("^Velluma"), QString()).size();

    const QByteArray xml = makeManifest(offers);
    DlrSelection page(nullptr);
    QList<double> parseMs;
    QList<double> rulesMs;
    for (int i = -1; i < count; ++i) {
        page.chosenIndices.clear();
        page.hiddenIndices.clear();
        app.manifest.clear();
        QElapsedTimer clock;
        clock.start();
        DlrManifestHandler::Parse(app.manifest, xml);
        const double parsed = clock.nsecsElapsed() / 1e6;
        clock.restart();
        page.chooseDownloads();
        const double ruled = clock.nsecsElapsed() / 1e6;
        if (i >= 0) {
            parseMs << parsed;
            rulesMs << ruled;
        }
    }

    std::printf("%d offers (%d KB of XML), %d installed products\n", int(app.manifest.size()), int(xml.size() / 1024),
                installed);
    std::printf("run    parse ms   rules ms\n");
    for (int i = 0; i < count; ++i)
        std::printf("%-6d %8.1f %10.1f\n", i + 1, parseMs[i], rulesMs[i]);
    const double total = median(parseMs) + median(rulesMs);
    std::printf("median %8.1f %10.1f\n\n", median(parseMs), median(rulesMs));
    std::printf("parse + rules: %.1f ms (%d chosen, %d hidden); target < %.0f ms: %s\n", total,
                int(page.chosenIndices.size()), int(page.hiddenIndices.size()), kTargetMs,
                total < kTargetMs ? "meets" : "misses");
    if (page.chosenIndices.isEmpty() || installed != 50) {
        std::fprintf(stderr, "bench_selection: %d chosen, %d of 50 products surveyed\n", int(page.chosenIndices.size()),
                     installed);
        return 1;
    }
    return 0;
}
