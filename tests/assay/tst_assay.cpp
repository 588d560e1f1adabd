// The machine survey against real product trees, real banner programs and
// real profiler processes. The assay object is made once per process, so
// the in-process cases share one product root and rebuild it each time;
// cases about the set of roots run the survey in a child process: this
// program again (see main).

#include "../support/ChildRun.h"
#include "../support/HostileXml.h"
#include "../support/ProductTree.h"
#include "../support/TestMain.h"
#include "RecordText.h"

#include "DlrLog.h"
#include "DlrMachineAssay.h"

#include <QDirIterator>
#include <QRegularExpression>
#include <QStorageInfo>

#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <functional>

using Build = std::function<void(ProductTree&)>;
Q_DECLARE_METATYPE(Build)

namespace {

const QString kServer = QStringLiteral("bin/vlrender");
const QString kWorkshop = QStringLiteral("vlumtree/bin/vlrender");
const QString kQueue = QStringLiteral("bin/HomeQueue.app/Contents/MacOS/HomeQueue");
const QString kIdFile = QStringLiteral("etc/buildid.txt");
const QString kFixture = QStringLiteral(VLUM_SOURCE_DIR "/tests/fixtures/system_profiler.xml");

// A process still running, or ended and not reaped by this one (an orphan
// killed with its probe is init's to reap).
bool lingers(const QByteArray& pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(QLatin1String(pid)));
    if (!stat.open(QIODevice::ReadOnly))
        return false;
    const QByteArray text = stat.readAll();
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    return fields.value(0) != "Z" || fields.value(1).toLongLong() == QCoreApplication::applicationPid();
}

// A profiler printing this property-list body, after `prolog`.
QByteArray printing(const QByteArray& body, const QByteArray& prolog = {})
{
    return "cat <<'EOF'\n" + prolog + "<plist><array><dict>" + body + "</dict></array></plist>\nEOF";
}

} // namespace

class TestAssay : public QObject
{
    Q_OBJECT

    QTemporaryDir scratch;
    QString productRoot;
    DlrMachineAssay* assay = nullptr;

    // The profiler runs these shell commands; none: it does not exist.
    void useProfiler(const QByteArray& commands)
    {
        QString program = scratch.filePath(QStringLiteral("no-such-profiler"));
        if (!commands.isEmpty() && ProductTree(scratch.path()).script(QStringLiteral("profiler"), commands))
            program = scratch.filePath(QStringLiteral("profiler"));
        qputenv("VLUM_SYSTEM_PROFILER", program.toLocal8Bit());
    }

    QStringList survey(bool profileRead = true)
    {
        if (profileRead)
            QTest::ignoreMessage(QtDebugMsg, QRegularExpression(QStringLiteral("^Got system profile")));
        else
            QTest::ignoreMessage(QtDebugMsg, "Couldn't read system_profiler output");
        const QStringList records = surveyedRecords(productRoot);
        assay = dlrApp()->assay;
        return records;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(scratch.isValid());
        productRoot = scratch.filePath(QStringLiteral("Oktavo"));
        qputenv("VLUM_PRODUCT_ROOT", productRoot.toLocal8Bit());
        qunsetenv("VLUMTREE");
        qunsetenv("VWSTREE");
    }

    void init()
    {
        QVERIFY(QDir(productRoot).removeRecursively() && QDir().mkpath(productRoot));
        useProfiler(printing(""));
    }

    void profile_data()
    {
        QTest::addColumn<QByteArray>("profiler");
        QTest::addColumn<bool>("parsed");
        QTest::addColumn<QString>("memory"); // "-": not set
        QTest::addColumn<QStringList>("mayas");

        const QByteArray fixture = "cat '" + kFixture.toUtf8() + "'";
        QFile captured(kFixture);
        QVERIFY(captured.open(QIODevice::ReadOnly));
        const QByteArray cut = QByteArray::number(captured.readAll().indexOf("Security Update"));
        QTest::newRow("captured profile") << fixture << true << "16" << QStringList{"2016", "2017", "2016.5"};
        QTest::newRow("lower-case gb") << printing("<key>physical_memory</key><string>8 gb</string>") << true << "8" << QStringList();
        QTest::newRow("memory in MB is not read") << printing("<key>physical_memory</key><string>8192 MB</string>") << true << "-" << QStringList();
        QTest::newRow("Maya without core") << printing("<key>_name</key><string>Maya 2018</string>") << true << "-" << QStringList();
        QTest::newRow("Maya core without digits") << printing("<key>_name</key><string>MAYA CORE</string>") << true << "-" << QStringList{""};
        QTest::newRow("value of another key") << printing("<key>other</key><string>Maya 2018 Core</string><string>9 GB</string>") << true << "-" << QStringList();
        // The lead byte of the ellipsis comes in a read of its own.
        QTest::newRow("read ends inside a character")
            << QByteArray("printf '<plist><array><dict><key>machine_name</key><string>Studio'; sleep 0.3; printf '\\342'; sleep 0.3;"
                          " printf '\\200\\246</string><key>physical_memory</key><string>8 GB</string>"
                          "<key>_name</key><string>Maya 2018 Core</string></dict></array></plist>'")
            << true << "8" << QStringList{"2018"};
        // A U+FEFF inside a tag name is an error, also when a read cuts it.
        QTest::newRow("read ends inside a U+FEFF")
            << QByteArray("printf '<plist><array><dict><key>physical_memory</key><string>8 GB</string><k\\357\\273'; sleep 0.3;"
                          " printf '\\277ey>_name</key><string>Maya 2018 Core</string></dict></array></plist>'")
            << false << "8" << QStringList();
        QTest::newRow("complete document, failed status") << fixture + "; exit 1" << true << "16" << QStringList{"2016", "2017", "2016.5"};
        // Read no further than the document: what comes later (if ever) is no part of it.
        QTest::newRow("complete document, output kept open") << fixture + "; sleep 1; echo more; exec sleep 60" << true << "16" << QStringList{"2016", "2017", "2016.5"};
        QTest::newRow("malformed keeps what came before") << printing("<key>physical_memory</key><string>8 GB</string><key>_name</key><string>Maya 2017 Core</string></aray>") << false << "8" << QStringList{"2017"};
        QTest::newRow("truncated") << "head -c " + cut + " '" + kFixture.toUtf8() + "'" << false << "16" << QStringList{"2016"};
        QTest::newRow("prints nothing") << QByteArray("exit 0") << false << "-" << QStringList();
        QTest::newRow("fails silently") << QByteArray("exit 3") << false << "-" << QStringList();
        QTest::newRow("stalls in the middle") << QByteArray("printf '<plist><array>'; exec sleep 60") << false << "-" << QStringList();
        QTest::newRow("missing") << QByteArray() << false << "-" << QStringList();
        // Hostile documents: nothing expands without end, no local file is read.
        const QByteArray memory = "<key>physical_memory</key><string>8 GB</string>";
        QVERIFY(ProductTree(scratch.path()).file(QStringLiteral("secret"), "32 GB"));
        QTest::newRow("entity bomb") << printing("<key>physical_memory</key><string>&a9;</string>", entityBomb("plist")) << false << "-" << QStringList();
        QTest::newRow("local file entity") << printing("<key>physical_memory</key><string>&x;</string>", localEntity("plist", scratch.filePath(QStringLiteral("secret")).toUtf8())) << true << "-" << QStringList();
        QTest::newRow("1 MiB value") << printing("<key>physical_memory</key><string>" + QByteArray(1 << 20, 'x') + "</string>") << true << "-" << QStringList();
        QTest::newRow("nested past the limit") << printing(memory + QByteArray("<a>").repeated(100000)) << false << "8" << QStringList();
        QTest::newRow("a second root") << printing(memory + "</dict></array></plist><plist><array><dict>") << true << "8" << QStringList();
        QTest::newRow("declared UTF-16") << printing(memory, "<?xml version=\"1.0\" encoding=\"UTF-16\"?>") << true << "8" << QStringList();
        QTest::newRow("unknown encoding") << printing(memory, "<?xml version=\"1.0\" encoding=\"x-unknown\"?>") << true << "8" << QStringList();
        QTest::newRow("open CDATA") << printing(memory + "</dict><![CDATA[") << false << "8" << QStringList();
        QTest::newRow("open comment") << printing(memory + "</dict><!--") << false << "8" << QStringList();
    }

    // The profile's facts, and the product walk going on whatever the
    // profiler did.
    void profile()
    {
        QFETCH(QByteArray, profiler);
        QFETCH(bool, parsed);
        QFETCH(QString, memory);
        QFETCH(QStringList, mayas);
        ProductTree(productRoot).banner(QStringLiteral("VCS-control/") + kServer, QStringLiteral("22.1"), QStringLiteral("1"));
        useProfiler(profiler);

        QStringList expected;
        for (const QString& maya : mayas)
            expected << QStringLiteral("Maya|%1|||").arg(maya);
        QCOMPARE(survey(parsed), expected << QStringLiteral("Velluma CoreServer 22.1|22.1|1||~/VCS-control"));
        QString value = QStringLiteral("-");
        assay->FindMachineProperty(DlrAttrMemory, value);
        QCOMPARE(value, memory);
        int gigabytes = -1;
        QCOMPARE(assay->FindMachineProperty(DlrAttrMemory, gigabytes), memory != QLatin1String("-"));
    }

    // The bundle's own profiler, found where the platform layer says, on
    // this machine: its memory and a Maya folder tree of our making.
    void linuxProfiler()
    {
        qunsetenv("VLUM_SYSTEM_PROFILER");
        ProductTree maya(scratch.filePath(QStringLiteral("autodesk")));
        for (const char* name : {"maya2018", "maya2016.5", "mayaIO", ".maya2019"})
            maya.folder(QLatin1String(name));
        maya.file(QStringLiteral("maya2017"), "not a folder");
        qputenv("VLUM_MAYA_ROOT", maya.root.toLocal8Bit());
        QCOMPARE(survey(), (QStringList{"Maya|2016.5|||", "Maya|2018|||"}));

        QFile meminfo(QStringLiteral("/proc/meminfo"));
        QVERIFY(meminfo.open(QIODevice::ReadOnly));
        const double installed = QString::fromLatin1(meminfo.readLine()).trimmed().section(QLatin1Char(' '), -2, -2).toDouble() / (1 << 20);
        int gigabytes = 0;
        QVERIFY(assay->FindMachineProperty(DlrAttrMemory, gigabytes));
        QVERIFY2(gigabytes >= 1 && std::abs(gigabytes - installed) <= 0.5, qPrintable(QString::number(installed)));

        // No Maya at all is still a complete document.
        qputenv("VLUM_MAYA_ROOT", scratch.filePath(QStringLiteral("nothing-here")).toLocal8Bit());
        QCOMPARE(survey(), QStringList());
        qunsetenv("VLUM_MAYA_ROOT");
    }

    void discovery_data()
    {
        QTest::addColumn<Build>("build");
        QTest::addColumn<QStringList>("expected");

        const QString server = QStringLiteral("VellumaCoreServer-21.7/") + kServer;
        QTest::newRow("server banner") << Build([=](ProductTree& t) { t.banner(server, "21.7b3", "123456"); })
                                       << QStringList{"Velluma CoreServer 21.7|21.7|123456||~/VellumaCoreServer-21.7"};
        QTest::newRow("faulty probes") << Build([](ProductTree& t) {
            t.script("VCS-stdout/" + kServer, "echo 'Velluma 21.7 linked @5'");
            t.script("VCS-hangs/" + kServer, "exec sleep 30");
            t.script("VCS-crashes/" + kServer, "kill -SEGV $$");
            t.file("VCS-not-executable/" + kServer, "#!/bin/sh\necho 'Velluma 21.7 linked @5' >&2\n");
            t.script("VCS-garbage/" + kServer, "printf '\\377\\0Velluma 21.7 linked @5' >&2");
            t.banner("VCS-long-id/" + kServer, "21.7", "99999999999");
        }) << QStringList();
        // Each a renderer waiting on a licence server through a helper of its own.
        QTest::newRow("silent probes all killed") << Build([](ProductTree& t) {
            for (int i = 0; i < 30; ++i)
                t.script(QStringLiteral("VCS-silent-%1/").arg(i) + kServer, "echo $$ >\"$0.pid\"; sleep 60 & echo $! >>\"$0.pid\"; wait");
        }) << QStringList();
        // Each answers only once all three run: asked one after the other, each would wait out its time.
        QTest::newRow("probes asked at once") << Build([](ProductTree& t) {
            for (const char* name : {"VCS-a", "VCS-b", "VCS-c"})
                t.script(name + ("/" + kServer), "touch \"$0.on\"; until [ $(ls " + t.root.toUtf8() + "/VCS-?/bin/*.on | wc -l) = 3 ]; do sleep 0.01; done; echo 'Velluma 21.7 linked @5' >&2");
        }) << QStringList{"Velluma CoreServer 21.7|21.7|5||~/VCS-a", "Velluma CoreServer 21.7|21.7|5||~/VCS-b", "Velluma CoreServer 21.7|21.7|5||~/VCS-c"};
        QTest::newRow("21.10 reads as 21.1") << Build([=](ProductTree& t) { t.banner(server, "21.10", "7"); })
                                             << QStringList{"Velluma CoreServer 21.1|21.1|7||~/VellumaCoreServer-21.7"};
        QTest::newRow("18 series never, 19 series") << Build([](ProductTree& t) {
            t.banner("VCS-18/" + kServer, "18.9", "3");
            t.banner("VCS-19/" + kServer, "19.0", "4");
        }) << QStringList{"Velluma CoreServer 19.0|19.0|4||~/VCS-19"};
        QTest::newRow("server pattern wins") << Build([](ProductTree& t) {
            t.banner("VellumaServerForMaya-2017/" + kServer, "21.7", "8");
            t.plugin("VellumaServerForMaya-2017");
            t.file("VellumaServerForMaya-2017/" + kIdFile, "Velluma 21.6 @9");
        }) << QStringList{"Velluma CoreServer 21.7|21.7|8||~/VellumaServerForMaya-2017"};
        QTest::newRow("blank and non-ASCII name") << Build([](ProductTree& t) { t.banner(QString::fromUtf8("Velluma Core Server für Ärger/") + kServer, "21.7", "6"); })
                                                  << QStringList{QString::fromUtf8("Velluma CoreServer 21.7|21.7|6||~/Velluma Core Server für Ärger")};
        QTest::newRow("links and hidden folders") << Build([](ProductTree& t) {
            QFile::link(t.path("VCS-loop"), t.path("VCS-loop"));
            QFile::link(t.root, t.path("VellumaCoreServer-up"));
            t.banner(".VCS-hidden/" + kServer, "21.7", "2");
        }) << QStringList();

        const QString workshop = QStringLiteral("VellumaWorkshop-21.7-maya2017");
        QTest::newRow("workshop") << Build([=](ProductTree& t) { t.plugin(workshop); t.banner(workshop + "/" + kWorkshop, "21.7", "77"); })
                                  << QStringList{"Velluma Workshop 21.7 for Maya 2017|21.7|77|2017|~/" + workshop};
        QTest::newRow("workshop without plug-in or Maya year") << Build([=](ProductTree& t) {
            t.banner(workshop + "/" + kWorkshop, "21.7", "77");
            t.plugin("VWS-21.7");
            t.banner("VWS-21.7/" + kWorkshop, "21.7", "77");
            QTest::ignoreMessage(QtDebugMsg, qPrintable("No maya verion in VWS path " + t.path("VWS-21.7/" + kWorkshop)));
        }) << QStringList();

        const QString forMaya = QStringLiteral("VellumaForMaya-21.7-maya2016.5");
        QTest::newRow("for Maya, build-id file first") << Build([=](ProductTree& t) {
            t.plugin(forMaya);
            t.file(forMaya + "/" + kIdFile, "Velluma 21.7 build @4321\n");
            // A queue application that must never be started: it leaves a mark.
            t.script(forMaya + "/" + kQueue, "touch \"$0.ran\"; echo 'Velluma 21.9 linked @1' >&2");
        }) << QStringList{"Velluma 21.7 for Maya 2016.5|21.7|4321|2016.5|~/" + forMaya};
        QTest::newRow("for Maya, queue banner") << Build([=](ProductTree& t) { t.plugin(forMaya); t.banner(forMaya + "/" + kQueue, "21.6", "99"); })
                                                << QStringList{"Velluma 21.6 for Maya 2016.5|21.6|99|2016.5|~/" + forMaya};
        QTest::newRow("for Maya without id, plug-in or Maya year") << Build([=](ProductTree& t) {
            for (const char* name : {"VFM-a-2017", "VFM-b-2017", "VFM-c-2017", "VFM-21.7"})
                t.plugin(QLatin1String(name));
            t.file("VFM-a-2017/" + kIdFile, QByteArray("\0Velluma 21.7 @5", 16));
            t.folder("VFM-b-2017/" + kIdFile);
            mkfifo(QFile::encodeName(t.path("VFM-c-2017/" + kIdFile)).constData(), 0644);
            t.file("VFM-21.7/" + kIdFile, "Velluma 21.7 @5");
            t.file(forMaya + "/" + kIdFile, "Velluma 21.7 @5");
            QTest::ignoreMessage(QtDebugMsg, qPrintable("No maya verion in VFM path " + t.path("VFM-21.7/" + kIdFile)));
        }) << QStringList();

        const QString noId = QStringLiteral("VellumaForMaya-21.0-maya2016");
        QTest::newRow("no id takes the highest server build") << Build([=](ProductTree& t) {
            t.plugin(noId);
            t.banner("VCS-a/" + kServer, "21.0", "500");
            t.banner("VCS-b/" + kServer, "21.0", "700");
        }) << QStringList{"Velluma CoreServer 21.0|21.0|500||~/VCS-a", "Velluma CoreServer 21.0|21.0|700||~/VCS-b",
                          "Velluma 21.0 for Maya 2016|21.0|700|2016|~/" + noId};
        QTest::newRow("no id, no server of its version") << Build([=](ProductTree& t) { t.plugin(noId); t.banner("VCS-a/" + kServer, "21.1", "500"); })
                                                          << QStringList{"Velluma CoreServer 21.1|21.1|500||~/VCS-a"};
        QTest::newRow("no id beyond 21.2") << Build([](ProductTree& t) { t.plugin("VellumaForMaya-21.3-maya2016"); t.banner("VCS-a/" + kServer, "21.3", "500"); })
                                           << QStringList{"Velluma CoreServer 21.3|21.3|500||~/VCS-a"};
    }

    // Records found, whatever else lies beside them.
    void discovery()
    {
        QFETCH(Build, build);
        QFETCH(QStringList, expected);
        ProductTree tree(productRoot);
        tree.banner(QStringLiteral("VCS-control/") + kServer, QStringLiteral("22.1"), QStringLiteral("1"));
        build(tree);
        QStringList records = survey();

        // Folders come in file-system order.
        QVERIFY(records.removeOne(QStringLiteral("Velluma CoreServer 22.1|22.1|1||~/VCS-control")));
        records.sort();
        expected.sort();
        QCOMPARE(records, expected);
        QDirIterator marks(productRoot, {QStringLiteral("*.ran")}, QDir::Files, QDirIterator::Subdirectories);
        QVERIFY2(!marks.hasNext(), "the queue application ran although the build-id file was readable");
        // No probe, nor what it started, outlives the survey.
        QDirIterator pids(productRoot, {QStringLiteral("*.pid")}, QDir::Files, QDirIterator::Subdirectories);
        while (pids.hasNext()) {
            QFile file(pids.next());
            QVERIFY(file.open(QIODevice::ReadOnly));
            for (const QByteArray& pid : file.readAll().trimmed().split('\n'))
                QTRY_VERIFY2(!lingers(pid), pid.constData());
        }
    }

    void queries()
    {
        ProductTree tree(productRoot);
        const QList<QPair<const char*, const char*>> servers = {
            {"21.7", "911"}, {"21.7", "977"}, {"21.6", "980"}, {"22.0", "600"}, {"22.0", "600"}, {"23.0", "0"}};
        for (int i = 0; i < servers.size(); ++i)
            tree.banner(QStringLiteral("VCS-%1/").arg(i) + kServer, servers[i].first, servers[i].second);
        useProfiler("cat '" + kFixture.toUtf8() + "'");
        const int count = survey().size();
        QCOMPARE(survey().size(), count); // a second survey replaces the first

        QList<AssayedProduct> mayas;
        assay->GetProducts(QStringLiteral("Maya"), mayas);
        QStringList versions;
        for (const AssayedProduct& maya : mayas)
            versions << maya.value(QStringLiteral("Version"));
        QCOMPARE(versions, (QStringList{"2017", "2016.5", "2016"}));
        assay->GetProducts(QStringLiteral("maya"), mayas);
        QVERIFY(mayas.isEmpty());

        const auto highest = [&](const QString& version) {
            AssayedProduct best{{QStringLiteral("Version"), QStringLiteral("untouched")}};
            assay->FindHighestBuildOfProduct(QStringLiteral("Velluma CoreServer"), version, best);
            return best.value(QStringLiteral("Version")) + QLatin1Char('@') + best.value(QStringLiteral("BuildId"));
        };
        QCOMPARE(highest(QStringLiteral("21.7")), QStringLiteral("21.7@977"));
        QCOMPARE(highest(QString()), QStringLiteral("21.6@980"));
        QCOMPARE(highest(QStringLiteral("23.0")), QStringLiteral("untouched@")); // build 0 never wins
        QCOMPARE(highest(QStringLiteral("21")), QStringLiteral("untouched@"));   // versions compare whole
        // Between equal builds the first found wins.
        const QList<AssayedProduct> ties = assay->FindAssayedProductByVersion(QStringLiteral("CoreServer"), QStringLiteral("^22\\.0$"));
        QCOMPARE(ties.size(), 2);
        AssayedProduct best;
        QVERIFY(assay->FindHighestBuildOfProduct(QStringLiteral("CoreServer"), QStringLiteral("22.0"), best));
        QCOMPARE(best, ties.first());
    }

    // Checked against what Qt says of a real folder.
    void availableDisk()
    {
        const qint64 expected = QStorageInfo(scratch.path()).bytesAvailable();
        const qint64 available = DlrMachineAssay::GetAvailableDisk(QDir(scratch.path()));
        QVERIFY(available > 0);
        // Other programs write to the same disk meanwhile.
        QVERIFY2(std::llabs(available - expected) < (qint64(64) << 20), qPrintable(QString::number(available)));

        QTest::ignoreMessage(QtDebugMsg, qPrintable(QStringLiteral("statfs failed on ") + scratch.filePath(QStringLiteral("missing"))));
        QCOMPARE(DlrMachineAssay::GetAvailableDisk(QDir(scratch.filePath(QStringLiteral("missing")))), qint64(0));
    }

    void roots_data()
    {
        QTest::addColumn<QStringList>("env");      // "~" is the scratch folder
        QTest::addColumn<QStringList>("searched"); // roots, in order
        QTest::addColumn<QStringList>("expected");
        // Root a holds a product without build id, c the server lending it one.
        const QString a = QStringLiteral("Velluma 21.1 for Maya 2018|21.1|800|2018|~/a/VellumaForMaya-21.1-maya2018");
        const QString b = QStringLiteral("Velluma Workshop 21.7 for Maya 2017|21.7|5|2017|~/b/VWS-2017");
        const QString c = QStringLiteral("Velluma CoreServer 21.1|21.1|800||~/c/VCS");
        QTest::newRow("trees add the folders holding them, no-id borrows across roots")
            << QStringList{"VLUM_PRODUCT_ROOT=~/a", "VLUMTREE=~/b/VWS-2017", "VWSTREE=~/c/anything"}
            << QStringList{"~/a", "~/b", "~/c"} << QStringList{b, c, a};
        QTest::newRow("tree inside the product root") << QStringList{"VLUM_PRODUCT_ROOT=~/c", "VLUMTREE=~/c/VCS"} << QStringList{"~/c"} << QStringList{c};
        QTest::newRow("missing tree") << QStringList{"VLUM_PRODUCT_ROOT=~/c", "VWSTREE=~/none/x"} << QStringList{"~/c"} << QStringList{c};
        QTest::newRow("product root is a file") << QStringList{"VLUM_PRODUCT_ROOT=~/file", "VLUMTREE=~/b/x"} << QStringList{"~/file", "~/b"} << QStringList{b};
    }

    void roots()
    {
        QFETCH(QStringList, env);
        QFETCH(QStringList, searched);
        QFETCH(QStringList, expected);
        QTemporaryDir dir;
        ProductTree tree(dir.path());
        tree.plugin(QStringLiteral("a/VellumaForMaya-21.1-maya2018"));
        tree.plugin(QStringLiteral("b/VWS-2017"));
        tree.banner(QStringLiteral("b/VWS-2017/") + kWorkshop, QStringLiteral("21.7"), QStringLiteral("5"));
        tree.banner(QStringLiteral("c/VCS/") + kServer, QStringLiteral("21.1"), QStringLiteral("800"));
        tree.file(QStringLiteral("file"), "not a folder");

        env.replaceInStrings(QStringLiteral("~"), dir.path());
        const ChildRun run = runChild(QCoreApplication::applicationFilePath(), {QStringLiteral("-debug")}, dir.path(),
                                      env << QStringLiteral("VLUM_SYSTEM_PROFILER=/bin/true") << QStringLiteral("VLUM_ASSAY_CHILD=1"));
        QCOMPARE(run.exitCode, 0);
        // The text after `lead` on each line of `printed` that has it.
        const auto after = [&](const char* lead, const QByteArray& printed) {
            QStringList found;
            auto lines = QRegularExpression(lead + QStringLiteral("(.*)$"), QRegularExpression::MultilineOption)
                             .globalMatch(QString::fromUtf8(printed));
            while (lines.hasNext())
                found << lines.next().captured(1).replace(dir.path(), QStringLiteral("~"));
            return found;
        };
        QCOMPARE(after("Debug: Looking for oktavo products in ", run.err), searched);
        QCOMPARE(after("^record ", run.out), expected);
    }
};

int main(int argc, char** argv)
{
    // For roots(): the survey as the selection page runs it, with the roots
    // of this process's environment; each record found is printed, in
    // order, as "record <text>".
    if (qEnvironmentVariableIsSet("VLUM_ASSAY_CHILD")) {
        DlrApp app(argc, argv);
        DlrInitializeLogging();
        app.DoAssay();
        for (const AssayedProduct& product : app.assay->FindAssayedProductByVersion(QString(), QString()))
            std::printf("record %s\n", recordText(product).toUtf8().constData());
        return 0;
    }
    return runWithDlrApp<TestAssay>(argc, argv, {});
}

#include "tst_assay.moc"
