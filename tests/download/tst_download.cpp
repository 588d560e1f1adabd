// The download engine against the real local vendor server: names, reuse of
// complete files, the order of its signals, and every way a download fails.

#include "../support/SmallDisk.h"
#include "../support/TestMain.h"
#include "../support/VendorServer.h"

#include "DlrHumanBytes.h"
#include "DlrNetworkError.h"

#include <QNetworkReply>
#include <QSslConfiguration>
#include <QTcpServer>

#include <QScopeGuard>

#include <algorithm>
#include <csignal>
#include <unistd.h>

namespace {

DlrManifestElement offer(const QString& name, const QUrl& url, qint64 size)
{
    DlrManifestElement element;
    element.Name = name;
    element.DownloadURL = url;
    element.FileSize = size;
    return element;
}

QString downloads()
{
    return QDir::homePath() + QStringLiteral("/Downloads");
}

} // namespace

class TestDownload : public QObject
{
    Q_OBJECT

    VendorServer server;

    QList<DlrManifestElement>& manifest() { return dlrApp()->manifest; }

    // Runs one download to its end and returns the failure reason, or an
    // empty text when it finished.
    QString download(int index)
    {
        QSignalSpy finished(dlrApp(), qOverload<int>(&DlrApp::finishedDownload));
        QSignalSpy failed(dlrApp(), &DlrApp::failedDownload);
        if (!dlrApp()->DownloadProduct(index))
            return QStringLiteral("not started");
        [&] { QTRY_VERIFY_WITH_TIMEOUT(finished.count() + failed.count() > 0, 30000); }();
        if (!finished.isEmpty())
            return finished.first().first().toInt() == index ? QString() : QStringLiteral("wrong index");
        return failed.first().first().toString();
    }

    static QByteArray contents(const QString& path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

private slots:
    void initTestCase()
    {
        std::signal(SIGXFSZ, SIG_IGN);
        QVERIFY(QDir().mkpath(downloads()));
        server.writePackage(QStringLiteral("Product.pkg"), 300000);
        server.writePackage(QStringLiteral("small.pkg"), 3000);
        QVERIFY(server.start());
        QSslConfiguration config = QSslConfiguration::defaultConfiguration();
        config.addCaCertificates(server.caPath);
        QSslConfiguration::setDefaultConfiguration(config);
        QCOMPARE(dlrApp()->GetDownloadDir()->absolutePath(), downloads());
    }

    void init()
    {
        manifest().clear();
        QDir dir(downloads());
        for (const QString& name : dir.entryList(QDir::Files))
            dir.remove(name);
    }

    void humanBytes_data()
    {
        QTest::addColumn<qint64>("bytes");
        QTest::addColumn<QString>("text");
        QTest::newRow("negative") << qint64(-5) << "-5b";
        QTest::newRow("1023") << qint64(1023) << "1023b";
        QTest::newRow("1024") << qint64(1024) << "1.000KB";
        QTest::newRow("1048575") << qint64(1048575) << "1023.999KB";
        QTest::newRow("1048576") << qint64(1048576) << "1.00MB";
        QTest::newRow("1.5 MiB") << qint64(1572864) << "1.50MB";
        QTest::newRow("2 GiB") << Q_INT64_C(2147483648) << "2.000GB";
    }

    void humanBytes()
    {
        QFETCH(qint64, bytes);
        QFETCH(QString, text);
        QCOMPARE(DlrHumanBytes(bytes), text);
    }

    void temporaryNames_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QStringList>("existing");
        QTest::addColumn<QString>("expected");

        QTest::newRow("free") << "Product-22.0.pkg" << QStringList() << "Product-22.0.pkg.vlumdownload";
        QTest::newRow("final name taken") << "Product.pkg" << QStringList{"Product.pkg"}
                                          << "Product-1.pkg.vlumdownload";
        QTest::newRow("both tries taken") << "Product.pkg"
                                          << QStringList{"Product.pkg", "Product-1.pkg.vlumdownload"}
                                          << "Product-2.pkg.vlumdownload";
        QTest::newRow("no suffix") << "Product" << QStringList() << "Product..vlumdownload";
    }

    void temporaryNames()
    {
        QFETCH(QString, name);
        QFETCH(QStringList, existing);
        QFETCH(QString, expected);
        for (const QString& file : existing)
            QVERIFY(QFile(downloads() + '/' + file).open(QIODevice::WriteOnly));
        manifest() << offer(name, QUrl(), 0);
        const QString temp = dlrApp()->getDownloadPath(0);
        QCOMPARE(temp, downloads() + '/' + expected);
        QCOMPARE(DlrApp::getFinalNameFromTempName(temp), downloads() + '/' + expected.chopped(13));
        QTest::ignoreMessage(QtDebugMsg, "index out of range in getDownloadPath 1");
        QCOMPARE(dlrApp()->getDownloadPath(1), QStringLiteral("unkown.vlumdownload"));
    }

    void existingDownload_data()
    {
        QTest::addColumn<QString>("name");   // the offer's Name; @ stands for a folder outside Downloads
        QTest::addColumn<QString>("onDisk"); // where 100 bytes are put, relative to Downloads
        QTest::addColumn<QString>("kind");   // file, link (to a file elsewhere) or foreign (another user's)
        QTest::addColumn<qint64>("size");
        QTest::addColumn<bool>("reused");
        QTest::addColumn<bool>("refused"); // DownloadProduct will not even start

        QTest::newRow("exact size") << "P.pkg" << "P.pkg" << "file" << qint64(100) << true << true;
        QTest::newRow("one byte more offered") << "P.pkg" << "P.pkg" << "file" << qint64(101) << false << false;
        QTest::newRow("unknown size") << "P.pkg" << "P.pkg" << "empty" << qint64(0) << false << false;
        QTest::newRow("parent folder") << "../P.pkg" << "../P.pkg" << "file" << qint64(100) << false << true;
        QTest::newRow("absolute path") << "@/P.pkg" << "@/P.pkg" << "file" << qint64(100) << false << true;
        QTest::newRow("sub folder") << "sub/P.pkg" << "sub/P.pkg" << "file" << qint64(100) << false << true;
        QTest::newRow("dot dot") << ".." << "P.pkg" << "file" << qint64(100) << false << true;
        QTest::newRow("link to a file elsewhere") << "P.pkg" << "P.pkg" << "link" << qint64(100) << false << false;
        QTest::newRow("another user's file") << "P.pkg" << "P.pkg" << "foreign" << qint64(100) << false << false;
    }

    // Only a file of ours, of exactly the offered size, inside the download
    // folder counts as already downloaded: anything else would hand a
    // stranger's file to the root installer.
    void existingDownload()
    {
        QFETCH(QString, name);
        QFETCH(QString, onDisk);
        QFETCH(QString, kind);
        QFETCH(qint64, size);
        QFETCH(bool, reused);
        QFETCH(bool, refused);
        QTemporaryDir elsewhere;
        name.replace(QLatin1Char('@'), elsewhere.path());
        onDisk.replace(QLatin1Char('@'), elsewhere.path());
        const QString path = QDir(downloads()).absoluteFilePath(onDisk);
        const QString target = kind == QLatin1String("link") ? elsewhere.filePath(QStringLiteral("real.pkg")) : path;
        QVERIFY(QDir().mkpath(QFileInfo(path).absolutePath()));
        QFile file(target);
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(QByteArray(kind == QLatin1String("empty") ? 0 : 100, 'x'));
        file.close();
        const auto cleanUp = qScopeGuard([&] { QFile::remove(path); QDir(downloads()).rmdir(QStringLiteral("sub")); });
        if (kind == QLatin1String("link"))
            QVERIFY(QFile::link(target, path));
        if (kind == QLatin1String("foreign") && ::chown(QFile::encodeName(path).constData(), 65534, 65534) != 0)
            QSKIP("another user's file needs root to make");

        manifest() << offer(name, server.url(QStringLiteral("packages/small.pkg")), size);
        dlrApp()->CheckForDownload(0);
        QCOMPARE(manifest().at(0).downloaded, reused);
        QCOMPARE(bool(manifest().at(0).downloadFile), reused);
        if (refused)
            QVERIFY(!dlrApp()->DownloadProduct(0));
    }

    // A complete download takes the final name; a taken name gets a tag.
    void completeDownload()
    {
        QVERIFY(QFile(downloads() + QStringLiteral("/Product.pkg")).open(QIODevice::WriteOnly));
        manifest() << offer("Product.pkg", server.url("packages/Product.pkg?throttle=2000000"), 300000);
        QNetworkReply* reply = dlrApp()->DownloadProduct(0);
        QVERIFY(reply);
        QSignalSpy progress(reply, &QNetworkReply::downloadProgress);
        QSignalSpy finished(dlrApp(), qOverload<int>(&DlrApp::finishedDownload));
        QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, 30000);

        const QString final = downloads() + QStringLiteral("/Product-1.pkg");
        QCOMPARE(contents(final), server.package(QStringLiteral("Product.pkg")));
        QVERIFY(!QFile::exists(final + QStringLiteral(".vlumdownload")));
        QVERIFY(manifest().at(0).downloaded);
        QCOMPARE(manifest().at(0).downloadFile->fileName(), final);
        QVERIFY(!manifest().at(0).downloadFile->isOpen());
        QVERIFY(progress.count() > 1);
        QCOMPARE(progress.last().at(0).toLongLong(), qint64(300000));
    }

    // A slot of finishedDownload may start the next download at once; a slot
    // of failedDownload may not, and sees the failed reply still in place.
    void callingOrder()
    {
        manifest() << offer("a.pkg", server.url("packages/small.pkg"), 3000)
                   << offer("b.pkg", server.url("packages/small.pkg?status=404"), 3000)
                   << offer("c.pkg", server.url("packages/small.pkg"), 3000);
        QList<int> indexAtSignal;
        QList<bool> restarted;
        QList<bool> replySetAtFailure;
        const auto onFinished = connect(dlrApp(), qOverload<int>(&DlrApp::finishedDownload), this, [&](int index) {
            indexAtSignal << dlrApp()->downloadIndex;
            if (index == 0)
                restarted << (dlrApp()->DownloadProduct(1) != nullptr);
        });
        const auto onFailed = connect(dlrApp(), &DlrApp::failedDownload, this, [&](const QString&, int) {
            indexAtSignal << dlrApp()->downloadIndex;
            replySetAtFailure << (dlrApp()->downloadReply != nullptr);
            QTest::ignoreMessage(QtDebugMsg, "Already downloading something 2");
            restarted << (dlrApp()->DownloadProduct(2) != nullptr);
        });
        QSignalSpy failed(dlrApp(), &DlrApp::failedDownload);
        QVERIFY(dlrApp()->DownloadProduct(0));
        QTRY_COMPARE_WITH_TIMEOUT(failed.count(), 1, 30000);
        disconnect(onFinished);
        disconnect(onFailed);

        QCOMPARE(indexAtSignal, (QList<int>{-1, -1}));
        QCOMPARE(restarted, (QList<bool>{true, false}));
        QCOMPARE(replySetAtFailure, QList<bool>{true});
        QVERIFY(!dlrApp()->downloadReply);
        QCOMPARE(download(2), QString());
    }

    void networkFailures_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<qint64>("size"); // the offer's FileSize
        QTest::addColumn<QString>("reason");

        const QString timedOut = DlrNetworkError(QNetworkReply::TimeoutError);
        QTest::newRow("dropped mid-download") << "packages/Product.pkg?drop_after=100000" << qint64(300000)
                                              << DlrNetworkError(QNetworkReply::RemoteHostClosedError);
        QTest::newRow("404") << "packages/Product.pkg?status=404" << qint64(300000)
                             << DlrNetworkError(QNetworkReply::ContentNotFoundError);
        QTest::newRow("500") << "packages/Product.pkg?status=500" << qint64(300000)
                             << DlrNetworkError(QNetworkReply::InternalServerError);
        QTest::newRow("refused") << "refused" << qint64(300000) << DlrNetworkError(QNetworkReply::ConnectionRefusedError);
        QTest::newRow("not a url") << "bad" << qint64(300000) << DlrNetworkError(QNetworkReply::ProtocolUnknownError);
        // The network layer calls these complete; only the byte count tells.
        QTest::newRow("no length, closed early") << "packages/Product.pkg?no_length=1&drop_after=100000"
                                                 << qint64(300000) << "Download incomplete: 100000 of 300000 bytes";
        QTest::newRow("shorter than offered") << "packages/Product.pkg" << qint64(300001)
                                              << "Download incomplete: 300000 of 300001 bytes";
        QTest::newRow("longer than offered") << "packages/Product.pkg" << qint64(299999)
                                             << "Download larger than expected: 300000 of 299999 bytes";
        QTest::newRow("silent after the headers") << "packages/Product.pkg?stall_after=0" << qint64(300000) << timedOut;
        QTest::newRow("silent mid-body") << "packages/Product.pkg?stall_after=100000" << qint64(300000) << timedOut;
    }

    // The reason reaches the user; the partial file keeps its temporary
    // name, and Retry continues it to the whole package under its own name.
    void networkFailures()
    {
        QFETCH(QString, url);
        QFETCH(qint64, size);
        QFETCH(QString, reason);

        QUrl source = server.url(url);
        if (url == QLatin1String("refused")) {
            QTcpServer closed;
            QVERIFY(closed.listen(QHostAddress::LocalHost));
            source = QUrl(QStringLiteral("https://127.0.0.1:%1/packages/Product.pkg").arg(closed.serverPort()));
        } else if (url == QLatin1String("bad")) {
            source = QUrl(QStringLiteral("not a url at all"), QUrl::TolerantMode);
        }
        dlrApp()->transferTimeout = 2;
        const auto restore = qScopeGuard([] { dlrApp()->transferTimeout = 30; });
        manifest() << offer("Product.pkg", source, size);
        QCOMPARE(download(0), reason);
        QVERIFY(QFile::exists(downloads() + QStringLiteral("/Product.pkg.vlumdownload")));
        QVERIFY(!QFile::exists(downloads() + QStringLiteral("/Product.pkg")));
        QVERIFY(!manifest().at(0).downloaded);
        QVERIFY(!manifest().at(0).downloadFile);

        manifest()[0].DownloadURL = server.url(QStringLiteral("packages/Product.pkg"));
        manifest()[0].FileSize = 300000;
        QCOMPARE(download(0), QString());
        QCOMPARE(contents(downloads() + QStringLiteral("/Product.pkg")), server.package("Product.pkg"));
        QCOMPARE(QDir(downloads()).entryList(QDir::Files), QStringList{"Product.pkg"});
    }

    void shortfall_data()
    {
        QTest::addColumn<qint64>("written");
        QTest::addColumn<qint64>("announced");
        QTest::addColumn<qint64>("fileSize");
        QTest::addColumn<QString>("reason");
        QTest::newRow("all there") << qint64(300000) << qint64(300000) << qint64(300000) << "";
        // What the network layer sometimes reports as a success.
        QTest::newRow("closed before the announced end")
            << qint64(100000) << qint64(300000) << qint64(0) << "Download incomplete: 100000 of 300000 bytes";
        QTest::newRow("nothing announced, size unknown") << qint64(5) << qint64(-1) << qint64(0) << "";
        QTest::newRow("announced, but not what was offered")
            << qint64(300000) << qint64(300000) << qint64(400000) << "Download incomplete: 300000 of 400000 bytes";
    }

    void shortfall()
    {
        QFETCH(qint64, written);
        QFETCH(qint64, announced);
        QFETCH(qint64, fileSize);
        QFETCH(QString, reason);
        QCOMPARE(DlrApp::DownloadShortfall(written, announced, fileSize), reason);
    }

    // A new manifest while a package is arriving: the reply is ended at
    // once instead of stalling behind its full read buffer.
    void manifestEmptiedMidDownload()
    {
        server.writePackage(QStringLiteral("big.pkg"), 32 << 20);
        manifest() << offer("big.pkg", server.url(QStringLiteral("packages/big.pkg")), 32 << 20);
        QSignalSpy failed(dlrApp(), &DlrApp::failedDownload);
        QNetworkReply* reply = dlrApp()->DownloadProduct(0);
        QVERIFY(reply);
        connect(reply, &QNetworkReply::downloadProgress, this, [this] { manifest().clear(); });
        QTRY_COMPARE_WITH_TIMEOUT(failed.count(), 1, 15000);
        QCOMPARE(failed.first().first().toString(), QStringLiteral("index out of range in Download"));
        QVERIFY(!dlrApp()->downloadReply);
    }

    void resume_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<QString>("faults");
        QTest::addColumn<int>("tries");
        QTest::addColumn<bool>("changed"); // the package is replaced after the first cut

        QTest::newRow("cut at ten offsets") << (64 << 20) << "drop_after=6000000&fault_times=10" << 11 << false;
        QTest::newRow("package replaced in between") << 300000 << "drop_after=100000&fault_times=1" << 2 << true;
    }

    // Each retry asks for the rest only, and only of the same file: the
    // result is the server's file byte for byte.
    void resume()
    {
        QFETCH(int, size);
        QFETCH(QString, faults);
        QFETCH(int, tries);
        QFETCH(bool, changed);
        const QString name = QStringLiteral("resume-%1.pkg").arg(QTest::currentDataTag()).replace(QLatin1Char(' '), QLatin1Char('-'));
        server.writePackage(name, size);
        manifest() << offer(name, server.url("packages/" + name + "?" + faults), size);
        qint64 received = 0;
        int attempts = 0;
        QString reason = QStringLiteral("not tried");
        while (!reason.isEmpty() && attempts < tries + 1) {
            ++attempts;
            QSignalSpy finished(dlrApp(), qOverload<int>(&DlrApp::finishedDownload));
            QSignalSpy failed(dlrApp(), &DlrApp::failedDownload);
            QNetworkReply* reply = dlrApp()->DownloadProduct(0);
            QVERIFY(reply);
            qint64 got = 0;
            connect(reply, &QNetworkReply::downloadProgress, this, [&got](qint64 bytes) { got = bytes; });
            QTRY_VERIFY_WITH_TIMEOUT(finished.count() + failed.count() > 0, 60000);
            received += got;
            reason = failed.isEmpty() ? QString() : failed.first().first().toString();
            if (changed && attempts == 1) {
                QByteArray other = server.package(name);
                std::reverse(other.begin(), other.end());
                server.writeCatalogFile("packages/" + name, other);
                QFile replaced(server.catalogPath("packages/" + name));
                QVERIFY(replaced.open(QIODevice::ReadWrite));
                QVERIFY(replaced.setFileTime(QDateTime::currentDateTime().addSecs(60), QFileDevice::FileModificationTime));
            }
        }
        QCOMPARE(attempts, tries);
        QVERIFY(contents(downloads() + '/' + name) == server.package(name));
        if (!changed) {
            qInfo("%d tries, %lld bytes received for %d (%.3fx)", attempts, received, size, double(received) / size);
            QVERIFY2(received <= size * 11 / 10, qPrintable(QString::number(received)));
        }
    }

    void writeFailures_data()
    {
        QTest::addColumn<QString>("package");
        QTest::addColumn<qint64>("size");
        QTest::addColumn<int>("limit");

        QTest::newRow("while copying") << "Product.pkg" << qint64(300000) << 64000;
        // Small enough to sit in the file's buffer until it is flushed.
        QTest::newRow("only at flush") << "small.pkg" << qint64(3000) << 2000;
    }

    // Data that did not reach the disk never gets the final name.
    void writeFailures()
    {
        QFETCH(QString, package);
        QFETCH(qint64, size);
        QFETCH(int, limit);

        manifest() << offer(package, server.url("packages/" + package), size);
        QString reason;
        {
            FileSizeLimit full(limit);
            reason = download(0);
        }
        // The cause, not the abort it led to.
        QCOMPARE(reason, QStringLiteral("Could not write %1/%2.vlumdownload: File too large").arg(downloads(), package));
        QVERIFY(!QFile::exists(downloads() + '/' + package));
        QVERIFY(QFileInfo(downloads() + '/' + package + ".vlumdownload").size() <= limit);
    }
};

int main(int argc, char** argv)
{
    return runWithDlrApp<TestDownload>(argc, argv, {});
}

#include "tst_download.moc"
