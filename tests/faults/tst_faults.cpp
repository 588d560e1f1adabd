// The faults a user meets, each tried against the real parts: the wizard in
// this process, the local vendor server, the helper and the installer. Each
// fault is one row of a table printed at the end: what was tried, how many
// times, what the user saw and what was lost.

#include "../support/ChildRun.h"
#include "../support/DialogAnswerer.h"
#include "../support/HelperProcess.h"
#include "../support/SmallDisk.h"
#include "../support/TestMain.h"
#include "../support/VendorServer.h"
#include "../support/WizardDriver.h"

#include "DlrMachineAssay.h"
#include "DlrManifestHandler.h"
#include "DlrNetworkError.h"
#include "DlrProfileReader.h"

#include <QRandomGenerator>
#include <QRegularExpression>

#include <csignal>
#include <memory>

namespace {

struct Row {
    QString fault;
    int tries;
    QString saw;
    QString lost;
};
QList<Row> table;

QString downloads()
{
    return QDir::homePath() + QStringLiteral("/Downloads");
}

QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// A document a reader takes. Hostile copies put their payload just after
// `anchor`, inside text the reader keeps.
struct Source {
    QByteArray doc;
    QByteArray anchor;
    QByteArray endTag; // one the document has, for a stray copy
};

// The n-th damaged copy, the same at every run: nine kinds of damage in
// turn at places a seeded generator picks, and every tenth a hostile
// document built around the source. Cuts stop before the last '>', so a
// truncated copy never closes its root.
QByteArray damaged(const Source& source, const QByteArray& secretPath, int n)
{
    const QByteArray& doc = source.doc;
    QRandomGenerator pick(quint32(n) + 1);
    const int end = doc.lastIndexOf('>');
    const int at = int(pick.bounded(end));
    QByteArray out = doc;
    switch (n % 10) {
    case 0: return out.left(at);
    case 1: return out.replace(at, 1, "<");
    case 2: return out.replace(at, 1, "&");
    case 3: return out.replace(at, 1, QByteArray(1, '\0'));
    case 4: return out.replace(at, 1, "\xff");
    case 5: return out.remove(at, 1 + int(pick.bounded(64)));
    case 6: return out.insert(at, doc.mid(int(pick.bounded(end)), 1 + int(pick.bounded(256))));
    case 7: return out.insert(at, source.endTag);
    case 8: return out.insert(at, "&undefined;");
    default: break;
    }
    int root = 0;
    while ((root = doc.indexOf('<', root)) >= 0 && (doc.at(root + 1) == '?' || doc.at(root + 1) == '!'))
        ++root;
    const QByteArray body = doc.mid(root);
    const int into = body.indexOf(source.anchor) + source.anchor.size();
    const auto filled = [&](const QByteArray& payload) { return QByteArray(body).insert(into, payload); };
    switch (n / 10) {
    case 0: { // a billion laughs
        QByteArray entities = "<!ENTITY a0 \"lol\">";
        for (int level = 1; level < 10; ++level)
            entities += QStringLiteral("<!ENTITY a%1 \"%2\">")
                            .arg(level)
                            .arg(QStringLiteral("&a%1;").arg(level - 1).repeated(10))
                            .toUtf8();
        return "<!DOCTYPE r [" + entities + "]>" + filled("&a9;");
    }
    case 1: return "<!DOCTYPE r [<!ENTITY x SYSTEM \"file://" + secretPath + "\">]>" + filled("&x;");
    case 2: return filled(QByteArray("<a>").repeated(100000) + QByteArray("</a>").repeated(100000));
    case 3: return filled(QByteArray(1 << 20, 'x'));
    case 4: return body + body;
    case 5: return "<?xml version=\"1.0\" encoding=\"UTF-16\"?>" + body;
    case 6: return "<?xml version=\"1.0\" encoding=\"x-unknown\"?>" + body;
    case 7: return filled("<![CDATA[");
    case 8: return filled("<!--");
    default: return QByteArray();
    }
}

// The profile reader fed `doc` in pieces of `piece` bytes, as a pipe may.
DlrProfileFacts readProfile(const QByteArray& doc, int piece)
{
    int at = 0;
    return DlrReadProfile([&] {
        const QByteArray next = doc.mid(at, piece);
        at += next.size();
        return next;
    });
}

// While it lives the readers' complaints about each damaged document stay
// out of the output.
class Quiet
{
public:
    Quiet() : previous(qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {})) {}
    ~Quiet() { qInstallMessageHandler(previous); }

private:
    QtMessageHandler previous;
};

// Each text once, with how often it came when more than once.
QString counted(const QStringList& texts)
{
    QStringList distinct;
    for (const QString& text : texts) {
        const int times = texts.count(text);
        const QString entry = times > 1 ? QStringLiteral("%1 (x%2)").arg(text).arg(times) : text;
        if (!distinct.contains(entry))
            distinct << entry;
    }
    return distinct.join(QStringLiteral("; "));
}

} // namespace

class TestFaults : public QObject
{
    Q_OBJECT

    QTemporaryDir work;
    QString machine; // the install root; products land in its opt/Oktavo
    VendorServer server;
    QScopedPointer<DlrMainWindow> window;

    void waitForFinishedPage()
    {
        QTRY_COMPARE_WITH_TIMEOUT(window->currentId(), int(DlrMainWindow::FinishedPage), 60000);
    }

    // The Range header of each request for a package, in order.
    QStringList rangesAsked(const QString& name) const
    {
        QStringList ranges;
        for (const QJsonObject& request : server.requests()) {
            if (request.value(QStringLiteral("path")).toString() == QStringLiteral("/packages/") + name)
                ranges << request.value(QStringLiteral("headers")).toObject().value(QStringLiteral("Range")).toString();
        }
        return ranges;
    }

    // The wizard from the login page to the product list (0) or to the
    // error that ends the run (1).
    int productListRun()
    {
        return WizardDriver::runUntilExit([this] {
            window.reset(new DlrMainWindow);
            QWizardPage* selection = window->page(DlrMainWindow::SelectionPage);
            connect(selection, &QWizardPage::completeChanged, selection, [selection] {
                if (selection->isComplete())
                    QCoreApplication::exit(0);
            });
            window->show();
            window->next();
        });
    }

private slots:
    void initTestCase()
    {
        QVERIFY(work.isValid());
        std::signal(SIGXFSZ, SIG_IGN); // for the file-size limit
        machine = work.filePath(QStringLiteral("machine"));
        QVERIFY(QDir().mkpath(machine));
        // The survey reads its roots once per process.
        qputenv("VLUM_PRODUCT_ROOT", QFile::encodeName(machine + QStringLiteral("/opt/Oktavo")));
        qputenv("VLUM_MAYA_ROOT", QFile::encodeName(machine + QStringLiteral("/usr/autodesk")));
        qunsetenv("VLUM_SYSTEM_PROFILER");
        QVERIFY(server.start({QStringLiteral("--tls"), QStringLiteral("chain")}));
    }

    void init()
    {
        QVERIFY(QDir(downloads()).removeRecursively() && QDir().mkpath(downloads()));
        WizardDriver::useServer(server);
    }

    void cleanup() { window.reset(); }

    void cleanupTestCase()
    {
        qInfo("| Fault | Tries | What the user saw | What was lost |");
        qInfo("|---|---|---|---|");
        for (const Row& row : qAsConst(table))
            qInfo("| %s | %d | %s | %s |", qPrintable(row.fault), row.tries, qPrintable(row.saw), qPrintable(row.lost));
    }

    // Ten packages, each cut once at its own offset, from the first byte to
    // the last: Retry continues each to the whole package, and at no
    // failure does a final name hold anything but a whole package.
    void connectionCut()
    {
        const qint64 size = 1 << 20;
        const QList<qint64> offsets{0, 1, 1000, 16384, 65537, 262144, 500000, 777777, size - 4096, size - 1};
        QList<VendorServer::Offer> offers;
        for (qint64 offset : offsets)
            offers << VendorServer::Offer{QStringLiteral("Cut-%1.zip").arg(offset), size,
                                          QStringLiteral("drop_after=%1&fault_times=1").arg(offset)};
        server.serveOffers(offers);

        DialogAnswerer user(QMessageBox::Retry);
        QStringList incomplete;
        user.ready = [&] {
            const QDir dir(downloads());
            for (const QString& name : dir.entryList(QDir::Files)) {
                const bool partial = name.endsWith(QLatin1String(".vlumdownload"));
                if (!partial && contents(dir.filePath(name)) != server.package(name))
                    incomplete << name;
            }
            return true;
        };
        WizardDriver::enterDownloads(window);
        waitForFinishedPage();

        QCOMPARE(user.texts.size(), offsets.size());
        QCOMPARE(user.texts.count(QStringLiteral("Product download failed")), offsets.size());
        QVERIFY2(incomplete.isEmpty(), qPrintable(incomplete.join(QLatin1Char(' '))));
        QStringList names;
        qint64 refetched = 0;
        for (int i = 0; i < offsets.size(); ++i) {
            const QString name = offers.at(i).name;
            names << name;
            QVERIFY2(contents(downloads() + QLatin1Char('/') + name) == server.package(name), qPrintable(name));
            const QStringList ranges = rangesAsked(name);
            QCOMPARE(ranges.size(), 2); // the cut and one Retry
            const qint64 resumedAt = ranges.last().section(QLatin1Char('='), 1).section(QLatin1Char('-'), 0, 0).toLongLong();
            refetched += offsets.at(i) - resumedAt;
        }
        names.sort();
        QCOMPARE(QDir(downloads()).entryList(QDir::Files, QDir::Name), names);

        QStringList reasons;
        for (const QString& text : qAsConst(user.informative))
            reasons << text.section(QStringLiteral(". Press Abort"), 0, 0);
        table << Row{QStringLiteral("connection cut once at each of 10 offsets, from byte 0 to the last, of a 1 MiB package"),
                     int(offsets.size()),
                     QStringLiteral("\"Product download failed\": %1; Retry completed each").arg(counted(reasons)),
                     QStringLiteral("nothing; no final name ever held an incomplete file; %1 bytes fetched twice")
                         .arg(refetched)};
    }

    // The download folder fills up while a package arrives: the user is
    // told, no final name appears, and after making room Retry goes on
    // from what was kept. Without root, a file-size limit stands in for
    // the small disk.
    void diskFull()
    {
        const qint64 size = 3 << 19;
        const QString name = QStringLiteral("Full.zip");
        server.serveOffers({{name, size, {}}});
        const TmpfsMount disk(downloads(), QStringLiteral("4m"));
        std::unique_ptr<FileSizeLimit> limit;
        const QString filler = downloads() + QStringLiteral("/filler");
        bool filled = false;
        LogWatch log;
        log.tap = [&](const QString& line) {
            if (filled || !line.startsWith(QLatin1String("downloading ")))
                return;
            filled = true;
            // Someone else takes all but 256 KiB of the room the wizard saw.
            if (!disk.mounted) {
                limit = std::make_unique<FileSizeLimit>(256 << 10);
                return;
            }
            QFile file(filler);
            if (file.open(QIODevice::WriteOnly))
                file.write(QByteArray(int(DlrMachineAssay::GetAvailableDisk(QDir(downloads())) - (256 << 10)), 'f'));
        };
        DialogAnswerer user(QMessageBox::Retry);
        QStringList finalAtFailure;
        qint64 kept = -1;
        user.ready = [&] {
            finalAtFailure = QDir(downloads()).entryList({name}, QDir::Files);
            kept = QFileInfo(downloads() + QLatin1Char('/') + name + QStringLiteral(".vlumdownload")).size();
            QFile::remove(filler);
            limit.reset();
            return true;
        };
        WizardDriver::enterDownloads(window);
        waitForFinishedPage();
        window.reset();

        QVERIFY(filled);
        QCOMPARE(user.texts, QStringList{"Product download failed"});
        const QString reason = QStringLiteral("Could not write %1/%2.vlumdownload: %3")
                                   .arg(downloads(), name, disk.mounted ? QStringLiteral("No space left on device")
                                                                        : QStringLiteral("File too large"));
        QCOMPARE(user.informative.value(0).section(QStringLiteral(". Press Abort"), 0, 0), reason);
        QVERIFY(finalAtFailure.isEmpty());
        QVERIFY2(kept > 0 && kept <= 256 << 10, qPrintable(QString::number(kept)));
        QCOMPARE(contents(downloads() + QLatin1Char('/') + name), server.package(name));
        QCOMPARE(QDir(downloads()).entryList(QDir::Files), QStringList{name});
        table << Row{disk.mounted ? QStringLiteral("disk full during a download (4 MiB tmpfs filled up)")
                                  : QStringLiteral("file-size limit during a download (mount refused: no tmpfs)"),
                     1,
                     QStringLiteral("\"Product download failed\": %1; Retry after making room completed")
                         .arg(QString(reason).replace(QDir::homePath(), QStringLiteral("~"))),
                     QStringLiteral("nothing; no final file while full, the %1 bytes written were kept and resumed")
                         .arg(kept)};
    }

    // The helper is killed while it runs an installation. That
    // installation, a process of its own, finishes; the next one cannot
    // start, which the page says before it moves on. The next run of the
    // wizard, a new process with the helper back, installs it.
    void helperKilled()
    {
        QVERIFY(server.makeInstallablePackage(QStringLiteral("A.pkg"), QStringLiteral("Product A")));
        QVERIFY(server.makeInstallablePackage(QStringLiteral("B.pkg"), QStringLiteral("Product B")));
        server.serveOffers({{QStringLiteral("A.pkg"), 0, {}}, {QStringLiteral("B.pkg"), 0, {}}});
        const QString installed = machine + QStringLiteral("/opt/Oktavo/Product %1/README.txt");
        {
            // Paced, so that the installation is still running when the helper dies.
            HelperProcess helper;
            QVERIFY(helper.Start(QStringLiteral(VLUM_HELPER), {},
                                 {QStringLiteral("VLUM_INSTALL_ROOT=") + machine,
                                  QStringLiteral("VLUM_INSTALLER_PACE=0.2")}));
            qputenv("VLUM_HELPER_SOCKET", QFile::encodeName(helper.SocketPath()));
            LogWatch log;
            log.tap = [&helper](const QString& line) {
                if (helper.IsRunning() && line.startsWith(QLatin1String("installer stdout:")))
                    helper.Stop(SIGKILL);
            };
            DialogAnswerer user(QMessageBox::Ok);
            WizardDriver::enterDownloads(window);
            waitForFinishedPage();
            QVERIFY(!helper.IsRunning());
            QCOMPARE(user.texts,
                     QStringList{"Could not start installer process for Product B, skipping to next product"});
            QVERIFY(QFile::exists(installed.arg('A')));
            QVERIFY(!QFile::exists(installed.arg('B')));
            table << Row{QStringLiteral("helper killed (SIGKILL) during an installation"), 1, counted(user.texts),
                         QStringLiteral("nothing; the running install finished, the next run installed the skipped one "
                                        "from the package already downloaded")};
        }

        HelperProcess helper;
        QVERIFY(helper.Start(QStringLiteral(VLUM_HELPER), {}, {QStringLiteral("VLUM_INSTALL_ROOT=") + machine}));
        const ChildRun next = runChild(QCoreApplication::applicationFilePath(), {}, QDir::homePath(),
                                       {QStringLiteral("VLUM_NEXT_RUN_SERVER=127.0.0.1:%1").arg(server.port),
                                        QStringLiteral("VLUM_NEXT_RUN_DOWNLOADS=") + downloads(),
                                        QStringLiteral("VLUM_HELPER_SOCKET=") + helper.SocketPath()});
        QVERIFY2(next.exitStatus == QProcess::NormalExit && next.exitCode == 0, next.out.right(3000).constData());
        QVERIFY(QFile::exists(installed.arg('B')));
        QCOMPARE(rangesAsked(QStringLiteral("B.pkg")).size(), 1); // the next run took it from the disk
    }

    void serverRestarted_data()
    {
        QTest::addColumn<int>("restarts"); // at most one per request
        QTest::addColumn<bool>("listShown");
        QTest::newRow("once") << 1 << true;
        QTest::newRow("at every request") << 1000 << false;
    }

    // The server goes away and comes back on the same port while the
    // product list is being asked for. The network layer sends the request
    // again on a new connection, a few times; when each is cut the user is
    // told at once (not after the transfer timeout), and the run ends with 1.
    void serverRestarted()
    {
        QFETCH(int, restarts);
        QFETCH(bool, listShown);
        VendorServer restarting;
        restarting.serveOffers({{QStringLiteral("Any.zip"), 1000, {}}});
        // The delay holds each request until the server goes.
        const QStringList slow{QStringLiteral("--tls"), QStringLiteral("chain"), QStringLiteral("--delay"),
                               QStringLiteral("5")};
        QVERIFY(restarting.start(slow));
        const QStringList again{QStringLiteral("--port"), QString::number(restarting.port)};
        WizardDriver::useServer(restarting);
        int done = 0;
        bool restarted = true;
        QTimer watch;
        connect(&watch, &QTimer::timeout, this, [&] {
            if (done < restarts && restarted && restarting.requests().size() > done) {
                ++done;
                restarting.stop();
                restarted = restarting.start((done < restarts ? slow : QStringList(slow.mid(0, 2))) + again);
            }
        });
        watch.start(20);
        DialogAnswerer user(QMessageBox::Ok);
        const int code = productListRun();
        watch.stop();

        QVERIFY(restarted);
        QCOMPARE(code, listShown ? 0 : 1);
        QCOMPARE(user.texts, listShown ? QStringList() : QStringList{"Could not get a product list from Oktavo"});
        if (!listShown)
            QCOMPARE(user.details, QStringList{DlrNetworkError(QNetworkReply::RemoteHostClosedError)});
        const int requests = restarting.requests().size();
        table << Row{QStringLiteral("server restarted during the product-list request, ") + QTest::currentDataTag(),
                     done,
                     listShown ? QStringLiteral("the product list (%1 requests sent)").arg(requests)
                               : QStringLiteral("\"%1\": %2 (details: %3) after %4 requests; exit 1")
                                     .arg(user.texts.value(0), user.informative.value(0), user.details.value(0))
                                     .arg(requests),
                     listShown ? QStringLiteral("nothing") : QStringLiteral("the run; no hang")};
    }

    void malformed_data()
    {
        QTest::addColumn<bool>("manifest");
        QTest::newRow("manifests") << true;
        QTest::newRow("profiles") << false;
    }

    // A hundred damaged copies of the demo catalog's manifest and of the
    // profiler fixture, read in this process (a crash or a sanitizer
    // report ends the suite). Each is read whole or refused: a cut one is
    // always refused, no local file is ever read into the facts, and a
    // profile's facts do not depend on how its output was cut. Every
    // eleventh manifest is also served to the wizard, whose user sees the
    // product list exactly when the reader accepted it.
    void malformed()
    {
        QFETCH(bool, manifest);
        const QString secretPath = work.filePath(QStringLiteral("secret"));
        const QByteArray secret = "#0451-7723#";
        QFile secretFile(secretPath);
        QVERIFY(secretFile.open(QIODevice::WriteOnly) && secretFile.write(secret) == secret.size());
        secretFile.close();

        Source source;
        if (manifest) {
            source = {contents(QStringLiteral(VLUM_SOURCE_DIR "/tools/demo-catalog/manifest.xml")), "<Name>",
                      "</ProductInfo>"};
            source.doc.replace("@BASE@", server.base.toString().toUtf8());
            source.doc = QString::fromUtf8(source.doc)
                             .replace(QRegularExpression(QStringLiteral("@SIZE:[^@]*@")), QStringLiteral("4096"))
                             .toUtf8();
        } else {
            source = {contents(QStringLiteral(VLUM_SOURCE_DIR "/tests/fixtures/system_profiler.xml")), "<string>16 GB",
                      "</dict>"};
        }
        QVERIFY(!source.doc.isEmpty() && source.doc.contains(source.anchor));

        int refused = 0;
        QStringList shown;
        for (int n = 0; n < 100; ++n) {
            const QByteArray doc = damaged(source, QFile::encodeName(secretPath), n);
            QString read;
            bool whole = false;
            {
                const Quiet quiet;
                if (manifest) {
                    QList<DlrManifestElement> offers;
                    QUrl success;
                    whole = DlrReadManifest(doc, offers, success);
                    for (const DlrManifestElement& offer : qAsConst(offers))
                        read += offer.Name + offer.SimpleName + offer.BuildID + offer.DownloadURL.toString();
                    read += success.toString();
                } else {
                    const DlrProfileFacts facts = readProfile(doc, qMax(1, doc.size()));
                    const DlrProfileFacts cut = readProfile(doc, 7);
                    QVERIFY2(cut.complete == facts.complete && cut.properties == facts.properties
                                 && cut.products == facts.products,
                             qPrintable(QStringLiteral("profile %1 read differently in pieces").arg(n)));
                    whole = facts.complete;
                    for (const QString& value : facts.properties)
                        read += value;
                    for (const AssayedProduct& product : facts.products)
                        read += QStringList(product.values()).join(QString());
                }
            }
            refused += whole ? 0 : 1;
            QVERIFY2(!(n % 10 == 0 && whole), qPrintable(QStringLiteral("cut document %1 accepted").arg(n)));
            QVERIFY2(!read.contains(QString::fromUtf8(secret)),
                     qPrintable(QStringLiteral("document %1 read a local file").arg(n)));

            if (manifest && n % 11 == 0) {
                server.writeCatalogFile(QStringLiteral("manifest.xml"), doc);
                DialogAnswerer user(QMessageBox::Ok);
                const int code = productListRun();
                QCOMPARE(code, whole ? 0 : 1);
                if (!whole)
                    QCOMPARE(user.informative, QStringList{"bad manifest reply"});
                shown << (whole ? QStringLiteral("the product list")
                                : QStringLiteral("\"%1\": %2, exit 1")
                                      .arg(user.texts.value(0), user.informative.value(0)));
                window.reset();
            }
        }
        const QString kind = manifest ? QStringLiteral("manifests") : QStringLiteral("profiles");
        table << Row{QStringLiteral("malformed %1 (cut, bytes changed, spans cut or doubled, stray tags and entities, "
                                    "entity bomb, local entity, deep nesting, wrong encodings)")
                         .arg(kind),
                     100,
                     manifest ? QStringLiteral("%1 refused, %2 read; of 10 served to the wizard: %3")
                                    .arg(refused)
                                    .arg(100 - refused)
                                    .arg(counted(shown))
                              : QStringLiteral("nothing: %1 incomplete, %2 complete; the survey keeps what came "
                                               "before a fault, however the output is cut")
                                    .arg(refused)
                                    .arg(100 - refused),
                     QStringLiteral("nothing; no crash, no local file read")};
    }
};

// The next run of the wizard, in a process of its own (see main): the
// same user, downloads and machine, walked to the end without a question.
class NextRun : public QObject
{
    Q_OBJECT

private slots:
    void walkToTheEnd()
    {
        dlrApp()->downloadDir.reset(new QDir(qEnvironmentVariable("VLUM_NEXT_RUN_DOWNLOADS")));
        DialogAnswerer user(QMessageBox::Ok);
        QScopedPointer<DlrMainWindow> window;
        WizardDriver::enterDownloads(window);
        QTRY_COMPARE_WITH_TIMEOUT(window->currentId(), int(DlrMainWindow::FinishedPage), 60000);
        QCOMPARE(user.texts, QStringList());
    }
};

int main(int argc, char** argv)
{
    const QByteArray server = qgetenv("VLUM_NEXT_RUN_SERVER");
    if (!server.isEmpty())
        return runWithDlrApp<NextRun>(argc, argv, {"-user", "demo", "-pass", "velluma", "-manifestserver",
                                                   server.constData(), "-manifestserverscheme", "https"});
    return runWithDlrApp<TestFaults>(argc, argv, {"-user", "demo", "-pass", "velluma"});
}

#include "tst_faults.moc"
