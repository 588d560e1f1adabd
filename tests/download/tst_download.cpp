// The download engine against the real local vendor server: names, reuse of
// complete files, the order of its signals, and every way a download fails.

#include "../support/TestMain.h"
#include "../support/VendorServer.h"

#include "DlrHumanBytes.h"
#include "DlrNetworkError.h"

#include <QNetworkReply>
#include <QSslConfiguration>
#include <QTcpServer>

#include <csignal>
#include <sys/resource.h>

namespace {

DlrManifestElement offer(const QString& name, const QUrl& url, qint64 size)
{
    DlrManifestElement element;
    element.Name = name;
    element.DownloadURL = url;
    element.FileSize = size;
    return element;
}

// Lowers the file-size limit of this process while it lives, so that
// writing a download fails the way a full disk makes it fail.
class FileSizeLimit
{
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        getrlimit(RLIMIT_FSIZE, &saved);
        rlimit lowered = saved;
        lowered.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &lowered);
    }
    ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &saved); }

private:
    rlimit saved{};
};

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

    // Only a file of exactly the offered size counts as already downloaded.
    void existingDownload()
    {
        const QByteArray bytes(100, 'x');
        QFile existing(downloads() + QStringLiteral("/Product.pkg"));
        QVERIFY(existing.open(QIODevice::WriteOnly));
        existing.write(bytes);
        existing.close();

        manifest() << offer("Product.pkg", QUrl(), 101) << offer("Product.pkg", QUrl(), 100);
        dlrApp()->CheckForDownload(0);
        dlrApp()->CheckForDownload(1);
        QVERIFY(!manifest().at(0).downloaded);
        QVERIFY(!manifest().at(0).downloadFile);
        QVERIFY(manifest().at(1).downloaded);
        QCOMPARE(manifest().at(1).downloadFile->fileName(), existing.fileName());
        QTest::ignoreMessage(QtDebugMsg, "Asked to download  \"Product.pkg\"  again");
        QVERIFY(!dlrApp()->DownloadProduct(1));
    }

    // A complete download takes the final name; a taken name gets a tag.
    void completeDownload()
    {
        QVERIFY(QFile(downloads() + QStringLiteral("/Product.pkg")).open(QIODevice::WriteOnly));
        manifest() << offer("Product.pkg", server.url("packages/Product.pkg?throttle=2000000"), 300000);
        QNetworkReply* reply = dlrApp()->DownloadProduct(0);
        QVERIFY(reply);
        QCOMPARE(reply->readBufferSize(), qint64(1024 * 1024));
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
        QTest::addColumn<int>("error");

        QTest::newRow("dropped mid-download")
            << "packages/Product.pkg?drop_after=100000" << int(QNetworkReply::RemoteHostClosedError);
        QTest::newRow("404") << "packages/Product.pkg?status=404" << int(QNetworkReply::ContentNotFoundError);
        QTest::newRow("500") << "packages/Product.pkg?status=500" << int(QNetworkReply::InternalServerError);
        QTest::newRow("refused") << "refused" << int(QNetworkReply::ConnectionRefusedError);
        QTest::newRow("not a url") << "bad" << int(QNetworkReply::ProtocolUnknownError);
    }

    // The reason is the network error text; the partial file keeps its
    // temporary name, and the next try starts a fresh one and completes.
    void networkFailures()
    {
        QFETCH(QString, url);
        QFETCH(int, error);

        QUrl source = server.url(url);
        if (url == QLatin1String("refused")) {
            QTcpServer closed;
            QVERIFY(closed.listen(QHostAddress::LocalHost));
            source = QUrl(QStringLiteral("https://127.0.0.1:%1/packages/Product.pkg").arg(closed.serverPort()));
        } else if (url == QLatin1String("bad")) {
            source = QUrl(QStringLiteral("not a url at all"), QUrl::TolerantMode);
        }
        manifest() << offer("Product.pkg", source, 300000);
        QCOMPARE(download(0), DlrNetworkError(QNetworkReply::NetworkError(error)));
        QVERIFY(QFile::exists(downloads() + QStringLiteral("/Product.pkg.vlumdownload")));
        QVERIFY(!QFile::exists(downloads() + QStringLiteral("/Product.pkg")));
        QVERIFY(!manifest().at(0).downloaded);
        QVERIFY(!manifest().at(0).downloadFile);

        manifest()[0].DownloadURL = server.url(QStringLiteral("packages/Product.pkg"));
        QCOMPARE(download(0), QString());
        QCOMPARE(contents(downloads() + QStringLiteral("/Product-1.pkg")), server.package("Product.pkg"));
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
        QCOMPARE(reason, DlrNetworkError(QNetworkReply::OperationCanceledError));
        QVERIFY(!QFile::exists(downloads() + '/' + package));
        QVERIFY(QFileInfo(downloads() + '/' + package + ".vlumdownload").size() <= limit);
    }
};

int main(int argc, char** argv)
{
    return runWithDlrApp<TestDownload>(argc, argv, {});
}

#include "tst_download.moc"
