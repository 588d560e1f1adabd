// The wizard without a window, as an administrator's script runs it: the
// real program as a child process against the real vendor server with the
// demo catalog, each machine with its own helper and installer.

#include "../support/DemoCatalog.h"
#include "../support/HelperProcess.h"
#include "../support/VendorServer.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

#include <algorithm>
#include <memory>
#include <vector>

namespace {

using namespace DemoCatalog;

// One demo machine: a Maya 2018, an empty product root, a home folder and
// a helper that installs into this machine only.
struct Machine {
    QTemporaryDir root;
    HelperProcess helper;

    QString productRoot() const { return root.filePath(QStringLiteral("opt/Oktavo")); }

    bool make()
    {
        return root.isValid() && QDir().mkpath(root.filePath(QStringLiteral("usr/autodesk/maya2018")))
            && QDir().mkpath(productRoot()) && QDir().mkpath(root.filePath(QStringLiteral("home/Downloads")))
            && helper.Start(QStringLiteral(VLUM_HELPER),
                            {QStringLiteral("--trusted-keys"), QStringLiteral(VLUM_TRUSTED_DEMO_KEYS)},
                            {QStringLiteral("VLUM_INSTALL_ROOT=") + root.path()});
    }

    QStringList installed() const
    {
        QStringList folders = QDir(productRoot()).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
        std::sort(folders.begin(), folders.end());
        return folders;
    }

    // The unattended program, started and left running.
    std::unique_ptr<QProcess> start(const VendorServer& server, const QStringList& options) const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.remove(QStringLiteral("VLUMINSTALLER_DEBUG_LOG"));
        env.remove(QStringLiteral("QT_QPA_PLATFORM")); // the mode must not need it
        env.insert(QStringLiteral("HOME"), root.filePath(QStringLiteral("home")));
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), root.filePath(QStringLiteral("home")));
        env.insert(QStringLiteral("VLUM_PRODUCT_ROOT"), productRoot());
        env.insert(QStringLiteral("VLUM_MAYA_ROOT"), root.filePath(QStringLiteral("usr/autodesk")));
        env.insert(QStringLiteral("VLUM_HELPER_SOCKET"), helper.SocketPath());
        auto process = std::make_unique<QProcess>();
        process->setProcessEnvironment(env);
        process->start(QStringLiteral(VLUM_INSTALLER),
                       QStringList{QStringLiteral("-unattended"), QStringLiteral("-manifestserver"),
                                   QStringLiteral("127.0.0.1:%1").arg(server.port), QStringLiteral("-manifestserverscheme"),
                                   QStringLiteral("https"), QStringLiteral("-user"), QStringLiteral("demo")}
                           + options);
        return process;
    }
};

// What one run printed and how it ended.
struct Outcome {
    int exitCode = -1;
    QStringList lines;
    QString errors; // standard error, for the message of a failed check

    static Outcome of(QProcess& process)
    {
        Outcome outcome;
        if (!process.waitForFinished(120000))
            process.kill();
        if (process.exitStatus() == QProcess::NormalExit)
            outcome.exitCode = process.exitCode();
        outcome.lines = QString::fromUtf8(process.readAllStandardOutput()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        outcome.errors = QString::fromUtf8(process.readAllStandardError().right(4000));
        return outcome;
    }

    bool printed(const QString& pattern) const
    {
        const QRegularExpression expression(pattern);
        return std::any_of(lines.cbegin(), lines.cend(),
                           [&](const QString& line) { return expression.match(line).hasMatch(); });
    }
};

} // namespace

class TestUnattended : public QObject
{
    Q_OBJECT

    QTemporaryDir work;
    QByteArray manifestTemplate;
    VendorServer server;        // the catalog over TLS with its own root, as the demo serves it
    VendorServer unknownIssuer; // a certificate the user would be asked about

    void serveManifest(const Replacements& replacements)
    {
        const QByteArray xml = edited(manifestTemplate, replacements);
        server.writeCatalogFile(QStringLiteral("manifest.xml"), xml);
        unknownIssuer.writeCatalogFile(QStringLiteral("manifest.xml"), xml);
    }

    int packageRequests(int since) const
    {
        int n = 0;
        for (const QJsonObject& request : server.requests().mid(since))
            n += request.value(QStringLiteral("path")).toString().startsWith(QLatin1String("/packages/")) ? 1 : 0;
        return n;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(work.isValid());
        const QString catalog = work.filePath(QStringLiteral("demo-catalog"));
        QByteArray error;
        manifestTemplate = load(server, catalog, work.path(), error);
        QVERIFY2(!manifestTemplate.isEmpty(), error.constData());
        server.writePackage(QStringLiteral("corrupt.pkg"), 5000); // not an archive
        QVERIFY(server.start({QStringLiteral("--tls"), QStringLiteral("chain")}));
        QVERIFY(unknownIssuer.start({QStringLiteral("--tls"), QStringLiteral("ca")}));
    }

    // One run on a fresh machine: its exit status, what ends up installed,
    // and the line that says why.
    void run_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<Replacements>("manifest");
        QTest::addColumn<bool>("trustedServer");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QStringList>("installed");
        QTest::addColumn<QString>("line");

        const QStringList all{kCoreFolder, kScenesFolder, kBridgeFolder};
        const QStringList pass{QStringLiteral("-pass"), QStringLiteral("velluma")};
        QTest::newRow("clean machine: the rules' three offers") << pass << Replacements{} << true << 0 << all
            << "^summary: 3 chosen, 3 installed, 0 downloaded only, 0 downloads failed, 0 not installed; exit status 0$";
        QTest::newRow("-products by listed name and by package name, a hidden offer included")
            << pass + QStringList{"-products", "Velluma Sample Scenes,VellumaForMaya-22.0-maya2018_1234.pkg"}
            << Replacements{} << true << 0 << QStringList{kScenesFolder, kBridgeFolder} << "^summary: 2 chosen, 2 installed";
        QTest::newRow("unknown product name") << pass + QStringList{"-products", "Velluma Sample Scenes,Nope"}
                                              << Replacements{} << true << 5 << QStringList{}
                                              << "^error: no such product on offer: Nope$";
        QTest::newRow("unknown option") << pass + QStringList{"-bogus"} << Replacements{} << true << 5 << QStringList{}
                                        << "^error: unknown option -bogus$";
        QTest::newRow("refused login") << QStringList{"-pass", "wrong"} << Replacements{} << true << 1 << QStringList{}
                                       << "^error: Could not get a product list from Oktavo: Wrong password$";
        QTest::newRow("certificate refused, not asked")
            << pass << Replacements{} << false << 1 << QStringList{}
            << "^tls: refused the server.s certificate: .";
        QTest::newRow("corrupt package: the others still installed")
            << pass
            << Replacements{{"/packages/" + kScenes, "/packages/corrupt.pkg"}, {"@SIZE:" + kScenes + "@", "@SIZE:corrupt.pkg@"}}
            << true << 4 << QStringList{kCoreFolder, kBridgeFolder}
            << "^install: Velluma Sample Scenes: failed: .";
        QTest::newRow("download that never succeeds: 3 retries, then skipped")
            << pass << Replacements{{"/packages/" + kBridge + "<", "/packages/" + kBridge + "?status=404<"}} << true << 3
            << QStringList{kCoreFolder, kScenesFolder} << "^download: Velluma for Maya 2018: failed: .*skipped after 3 retries$";
        QTest::newRow("not enough free space")
            << pass << Replacements{{"@SIZE:" + kScenes + "@", "4611686018427387904"}} << true << 2 << QStringList{}
            << "^error: You do not have enough free disk space to download the selected products\\. Needed ";
    }

    void run()
    {
        QFETCH(QStringList, options);
        QFETCH(Replacements, manifest);
        QFETCH(bool, trustedServer);
        QFETCH(int, exitCode);
        QFETCH(QStringList, installed);
        QFETCH(QString, line);

        serveManifest(manifest);
        Machine machine;
        QVERIFY(machine.make());
        const std::unique_ptr<QProcess> process = machine.start(trustedServer ? server : unknownIssuer, options);
        const Outcome outcome = Outcome::of(*process);
        const QString printed = outcome.lines.join(QLatin1Char('\n')) + QStringLiteral("\n--- stderr:\n") + outcome.errors;
        QVERIFY2(outcome.printed(line), qPrintable(printed));
        QVERIFY2(outcome.exitCode == exitCode, qPrintable(QStringLiteral("exit %1\n").arg(outcome.exitCode) + printed));
        std::sort(installed.begin(), installed.end());
        QCOMPARE(machine.installed(), installed);
    }

    // A second run finds everything the first one installed: nothing is
    // downloaded, the one "show" offer is installed again from the
    // Downloads folder, and -json gives the same events as JSON lines.
    void secondRunHasNothingToDo()
    {
        serveManifest({});
        Machine machine;
        QVERIFY(machine.make());
        const QStringList pass{QStringLiteral("-pass"), QStringLiteral("velluma")};
        QCOMPARE(Outcome::of(*machine.start(server, pass)).exitCode, 0);

        const int before = server.requests().size();
        const Outcome second = Outcome::of(*machine.start(server, pass + QStringList{QStringLiteral("-json")}));
        QCOMPARE(second.exitCode, 0);
        QCOMPARE(packageRequests(before), 0);
        QJsonObject last;
        for (const QString& line : second.lines) {
            QJsonParseError error{};
            last = QJsonDocument::fromJson(line.toUtf8(), &error).object();
            QVERIFY2(error.error == QJsonParseError::NoError && last.contains(QStringLiteral("event")), qPrintable(line));
        }
        QCOMPARE(last.value(QStringLiteral("event")).toString(), QStringLiteral("summary"));
        QCOMPARE(last.value(QStringLiteral("chosen")).toInt(), 1);
        QCOMPARE(last.value(QStringLiteral("exitStatus")).toInt(), 0);
    }

    // A render farm's morning: eight machines at once against one server,
    // each into its own root; every one ends complete.
    void eightAtOnce()
    {
        serveManifest({});
        std::vector<std::unique_ptr<Machine>> machines;
        std::vector<std::unique_ptr<QProcess>> runs;
        for (int i = 0; i < 8; ++i) {
            machines.push_back(std::make_unique<Machine>());
            QVERIFY(machines.back()->make());
        }
        for (const auto& machine : machines)
            runs.push_back(machine->start(server, {QStringLiteral("-pass"), QStringLiteral("velluma")}));
        for (size_t i = 0; i < runs.size(); ++i) {
            const Outcome outcome = Outcome::of(*runs[i]);
            QVERIFY2(outcome.exitCode == 0, qPrintable(outcome.lines.join(QLatin1Char('\n'))));
            QCOMPARE(machines[i]->installed(), (QStringList{kCoreFolder, kScenesFolder, kBridgeFolder}));
        }
    }
};

QTEST_GUILESS_MAIN(TestUnattended)
#include "tst_unattended.moc"
