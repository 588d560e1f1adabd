// Survey benchmark: the whole machine survey (the bundle's system profiler,
// then the product walk) over a product root of N folders of mixed families,
// each version probe a real shell script.
//
//     bench_assay [folders=200] [runs=5]
//
// Times an empty root first (the profiler alone), then the full root, then
// N core servers whose probe never answers, and prints every run, the
// medians and the cost per folder. Exits 1 when the survey does not find
// every product (or finds one behind a silent probe), 0 otherwise whatever
// the figures.

#include "../tests/support/ProductTree.h"
#include "BenchSupport.h"

#include "DlrApp.h"
#include "DlrLog.h"
#include "DlrMachineAssay.h"

#include <QElapsedTimer>
#include <QTemporaryDir>

#include <cstdio>
#include <cstdlib>

namespace {

constexpr double kTargetMs = 2000.0;
constexpr double kSilentTargetMs = 3000.0;

// One folder per family in turn; half the products for Maya carry a
// build-id file, the other half are asked through their queue application.
int buildTree(ProductTree& tree, int folders)
{
    int probes = 0;
    for (int i = 0; i < folders; ++i) {
        const QString version = QStringLiteral("2%1.%2").arg(1 + i % 3).arg(i % 10);
        const QString id = QString::number(1000 + i);
        switch (i % 3) {
        case 0:
            tree.banner(QStringLiteral("VellumaCoreServer-%1/bin/vlrender").arg(i), version, id);
            ++probes;
            break;
        case 1: {
            const QString folder = QStringLiteral("VellumaWorkshop-%1-maya2018").arg(i);
            tree.plugin(folder);
            tree.banner(folder + QStringLiteral("/vlumtree/bin/vlrender"), version, id);
            ++probes;
            break;
        }
        default: {
            const QString folder = QStringLiteral("VellumaForMaya-%1-maya2017").arg(i);
            tree.plugin(folder);
            if (i % 2) {
                tree.file(folder + QStringLiteral("/etc/buildid.txt"), "Velluma " + version.toUtf8() + " @" + id.toUtf8());
            } else {
                tree.banner(folder + QStringLiteral("/bin/HomeQueue.app/Contents/MacOS/HomeQueue"), version, id);
                ++probes;
            }
        }
        }
    }
    return probes;
}

struct Runs {
    QList<double> ms;
    double median() const { return ::median(ms); }
};

// One uncounted warm-up, then `count` timed surveys; the records of the
// last one are returned through `found`.
Runs time(DlrApp& app, int count, int& found)
{
    Runs runs;
    for (int i = -1; i < count; ++i) {
        QElapsedTimer clock;
        clock.start();
        app.DoAssay();
        const double ms = clock.nsecsElapsed() / 1e6;
        if (i >= 0)
            runs.ms << ms;
    }
    found = app.assay->FindAssayedProductByVersion(QStringLiteral("^Velluma"), QString()).size();
    return runs;
}

} // namespace

int main(int argc, char** argv)
{
    const int folders = argc > 1 ? std::atoi(argv[1]) : 200;
    const int count = argc > 2 ? std::atoi(argv[2]) : 5;
    if (folders < 1 || count < 1) {
        std::fprintf(stderr, "usage: bench_assay [folders] [runs]\n");
        return 2;
    }

    QTemporaryDir scratch;
    isolateBenchEnvironment(scratch);

    int appArgc = 1;
    DlrApp app(appArgc, argv);
    DlrInitializeLogging();

    ProductTree tree(scratch.filePath(QStringLiteral("Oktavo")));
    tree.folder(QString());
    int found = 0;
    const Runs empty = time(app, count, found);
    const int probes = buildTree(tree, folders);
    const Runs full = time(app, count, found);
    const int foundInFull = found;

    // A renderer waiting on a licence server that never replies.
    QDir(tree.root).removeRecursively();
    for (int i = 0; i < folders; ++i)
        tree.script(QStringLiteral("VellumaCoreServer-%1/bin/vlrender").arg(i), "exec sleep 60");
    const Runs silent = time(app, count, found);

    std::printf("run    empty root   %d folders   %d silent\n", folders, folders);
    for (int i = 0; i < count; ++i)
        std::printf("%-6d %10.1f %11.1f %11.1f\n", i + 1, empty.ms[i], full.ms[i], silent.ms[i]);
    std::printf("--------------------------------------------\n");
    std::printf("median %10.1f %11.1f %11.1f   ms\n\n", empty.median(), full.median(), silent.median());
    std::printf("whole survey: median %.1f ms over %d folders (%d probes run); target < %.0f ms: %s\n",
                full.median(), folders, probes, kTargetMs, full.median() < kTargetMs ? "meets" : "misses");
    std::printf("cost per folder: %.2f ms (whole survey / folders), %.2f ms beyond the profiler alone\n",
                full.median() / folders, (full.median() - empty.median()) / folders);
    std::printf("silent probes: median %.1f ms over %d folders whose probe never answers; target < %.0f ms: %s\n",
                silent.median(), folders, kSilentTargetMs, silent.median() < kSilentTargetMs ? "meets" : "misses");
    if (foundInFull != folders || found != 0) {
        std::fprintf(stderr, "bench_assay: found %d products of %d, %d behind silent probes\n", foundInFull, folders, found);
        return 1;
    }
    return 0;
}
