// The manifest request and the TLS policy, against the real local vendor
// server over HTTPS.

#include "../support/DialogAnswerer.h"
#include "../support/TestMain.h"
#include "../support/VendorServer.h"

#include "DlrNetworkError.h"

#include <QAbstractButton>
#include <QMessageBox>
#include <QNetworkAccessManager>
#include <QSslConfiguration>
#include <QNetworkReply>
#include <QProcess>
#include <QScopeGuard>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

namespace {

const QByteArray kServerManifest = R"(<Manifest>
<ProductInfo><Name>Velluma-CoreServer-22.0.pkg</Name><BuildID>10</BuildID>
<DownloadURL>@BASE@/packages/core.pkg</DownloadURL><FileSize>@SIZE:core.pkg@</FileSize></ProductInfo>
<DLRSuccessURL>@BASE@/view/Install-Success</DLRSuccessURL>
<ProductInfo><Name>Harrow-21.7.pkg</Name><BuildID>11</BuildID></ProductInfo>
</Manifest>
)";

const QByteArray kAppendedManifest = "<M><ProductInfo><Name>Appended-1.0.pkg</Name></ProductInfo></M>";

struct Outcome {
    bool valid = false;
    QString reason;
};

} // namespace

class TestNetwork : public QObject
{
    Q_OBJECT

    VendorServer server;
    QTemporaryDir appendDir;

    Outcome requestManifest(const QUrl& url, const QString& user = QStringLiteral("demo"),
                            const QString& pass = QStringLiteral("velluma"))
    {
        QSignalSpy valid(dlrApp(), &DlrApp::validManifestReply);
        QSignalSpy invalid(dlrApp(), &DlrApp::invalidManifestReply);
        dlrApp()->RequestManifest(url, user, pass, QStringLiteral("osx"));
        [&] { QTRY_VERIFY_WITH_TIMEOUT(valid.count() + invalid.count() > 0, 20000); }();
        Outcome outcome;
        outcome.valid = !valid.isEmpty();
        if (!invalid.isEmpty())
            outcome.reason = invalid.first().first().toString();
        return outcome;
    }

    QUrl manifestUrl(VendorServer& on, const QString& query = QString()) const
    {
        return on.url(QStringLiteral("forum/currentproducts.php") + (query.isEmpty() ? QString() : "?" + query));
    }

    static void trust(const QString& caPath)
    {
        QSslConfiguration config = QSslConfiguration::defaultConfiguration();
        config.addCaCertificates(caPath);
        QSslConfiguration::setDefaultConfiguration(config);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(QDir().mkpath(QDir::homePath() + QStringLiteral("/Downloads")));
        server.writePackage(QStringLiteral("core.pkg"), 3000);
        server.writeCatalogFile(QStringLiteral("manifest.xml"), kServerManifest);
        server.setUsers({{QStringLiteral("demo"), QStringLiteral("velluma")},
                         {QStringLiteral("a&amp;b"), QStringLiteral("a&b")}});
        QVERIFY(server.start());
        trust(server.caPath);
        QFile appended(appendDir.filePath(QStringLiteral("append.xml")));
        QVERIFY(appended.open(QIODevice::WriteOnly));
        appended.write(kAppendedManifest);
    }

    void init()
    {
        DlrApp* app = dlrApp();
        app->dumpManifest = false;
        app->appendManifestFile.clear();
        app->alternateManifestFile.clear();
        app->sslErrorsAccepted = false;
        qunsetenv("DLR_APPEND_MANIFEST_FILE");
        if (app->networkManager)
            app->networkManager->clearConnectionCache();
    }

    // What the server saw: three parts in order, one header each, the user
    // name escaped and the password as typed.
    void multipartOnTheWire()
    {
        const int before = server.requests().size();
        QVERIFY(requestManifest(manifestUrl(server), QStringLiteral("a&b"), QStringLiteral("a&b")).valid);
        const QList<QJsonObject> requests = server.requests();
        QCOMPARE(requests.size(), before + 1);
        const QJsonObject request = requests.last();
        QCOMPARE(request.value("method").toString(), QStringLiteral("POST"));
        QCOMPARE(request.value("path").toString(), QStringLiteral("/forum/currentproducts.php"));
        const QJsonArray parts = request.value("parts").toArray();
        QCOMPARE(parts.size(), 3);
        const QStringList names{"platform", "username", "userpass"};
        const QStringList bodies{"osx", "a&amp;b", "a&b"};
        for (int i = 0; i < 3; ++i) {
            const QJsonObject part = parts.at(i).toObject();
            QCOMPARE(part.value("headers").toString().trimmed(),
                     QStringLiteral("Content-Disposition: form-data; name=\"%1\"").arg(names.at(i)));
            QCOMPARE(part.value("body").toString(), bodies.at(i));
        }
    }

    void validation_data()
    {
        QTest::addColumn<QString>("query");
        QTest::addColumn<QString>("user");
        QTest::addColumn<bool>("valid");
        QTest::addColumn<QString>("reason");
        QTest::addColumn<int>("offers");
        QTest::addColumn<QString>("details"); // the network error shown under the reason

        const QString timedOut = DlrNetworkError(QNetworkReply::TimeoutError);
        QTest::newRow("approved") << "" << "demo" << true << "" << 2 << "";
        QTest::newRow("approved is a prefix") << "validation=approved-xyz" << "demo" << true << "" << 2 << "";
        QTest::newRow("refused with a reason") << "" << "nobody" << false << "Account not found" << 0 << "";
        QTest::newRow("bare error") << "validation=bare-error" << "demo" << false << "Manifest request denied" << 0
                                    << "";
        QTest::newRow("no header") << "validation=missing" << "demo" << false << "Unknown manifest Validation" << 0
                                   << "";
        QTest::newRow("server error status, no header")
            << "status=500" << "demo" << false << "Unknown manifest Validation" << 0
            << DlrNetworkError(QNetworkReply::InternalServerError);
        QTest::newRow("silent before the headers")
            << "delay=10" << "demo" << false << "Unknown manifest Validation" << 0 << timedOut;
        QTest::newRow("silent after the headers")
            << "stall_after=0" << "demo" << false << "bad manifest reply" << 0 << timedOut;
    }

    void validation()
    {
        QFETCH(QString, query);
        QFETCH(QString, user);
        QFETCH(bool, valid);
        QFETCH(QString, reason);
        QFETCH(int, offers);
        QFETCH(QString, details);

        // A new request starts from an empty list.
        dlrApp()->manifest.append(DlrManifestElement());
        dlrApp()->transferTimeout = 2;
        const auto restore = qScopeGuard([] { dlrApp()->transferTimeout = 30; });
        const Outcome outcome = requestManifest(manifestUrl(server, query), user);
        QCOMPARE(outcome.valid, valid);
        QCOMPARE(outcome.reason, reason);
        QCOMPARE(dlrApp()->manifestNetworkError, details);
        QCOMPARE(dlrApp()->manifest.size(), offers);
        QVERIFY(!dlrApp()->manifestReply);
        if (valid) {
            QCOMPARE(dlrApp()->manifest.first().DownloadURL, server.url(QStringLiteral("packages/core.pkg")));
            QCOMPARE(dlrApp()->manifest.first().FileSize, Q_INT64_C(3000));
            QCOMPARE(dlrApp()->successURL, server.url(QStringLiteral("view/Install-Success")));
        }
    }

    void connectionRefused()
    {
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        const quint16 port = closed.serverPort();
        closed.close();
        const Outcome outcome = requestManifest(QUrl(QStringLiteral("https://127.0.0.1:%1/m").arg(port)));
        QCOMPARE(outcome.reason, QStringLiteral("Unknown manifest Validation"));
    }

    void appendedManifest_data()
    {
        QTest::addColumn<bool>("fromEnvironment");
        QTest::newRow("member") << false;
        QTest::newRow("environment") << true;
    }

    void appendedManifest()
    {
        QFETCH(bool, fromEnvironment);
        const QString path = appendDir.filePath(QStringLiteral("append.xml"));
        if (fromEnvironment)
            qputenv("DLR_APPEND_MANIFEST_FILE", path.toLocal8Bit());
        else
            dlrApp()->appendManifestFile = path;
        QVERIFY(requestManifest(manifestUrl(server)).valid);
        const QList<DlrManifestElement>& offers = dlrApp()->manifest;
        QCOMPARE(offers.size(), 3);
        QCOMPARE(offers.at(0).Name, QStringLiteral("Velluma-CoreServer-22.0.pkg"));
        QCOMPARE(offers.at(2).Name, QStringLiteral("Appended-1.0.pkg"));
        QCOMPARE(dlrApp()->appendManifestFile, path);
    }

    // Broken XML is still dumped byte for byte, and the offers read before
    // the error stay, followed by the appended ones.
    void brokenManifestIsDumped()
    {
        dlrApp()->dumpManifest = true;
        dlrApp()->appendManifestFile = appendDir.filePath(QStringLiteral("append.xml"));
        const QString dumpPath = dlrApp()->GetDownloadDir()->filePath(QStringLiteral("manifest.xml"));
        QFile::remove(dumpPath);
        const Outcome outcome = requestManifest(manifestUrl(server, QStringLiteral("validation=malformed")));
        QCOMPARE(outcome.reason, QStringLiteral("bad manifest reply"));
        QVERIFY(!dlrApp()->manifest.isEmpty());
        QCOMPARE(dlrApp()->manifest.last().Name, QStringLiteral("Appended-1.0.pkg"));

        QProcess curl;
        curl.start(QStringLiteral("curl"),
                   {"-s", "--cacert", server.caPath, "-F", "platform=osx", "-F", "username=demo", "-F",
                    "userpass=velluma", manifestUrl(server, QStringLiteral("validation=malformed")).toString()});
        QVERIFY(curl.waitForFinished(20000));
        const QByteArray sent = curl.readAllStandardOutput();
        QVERIFY(!sent.isEmpty());
        QFile dump(dumpPath);
        QVERIFY(dump.open(QIODevice::ReadOnly));
        QCOMPARE(dump.readAll(), sent);
    }

    void diskOnlyManifest()
    {
        const int before = server.requests().size();
        dlrApp()->alternateManifestFile = appendDir.filePath(QStringLiteral("missing.xml"));
        dlrApp()->appendManifestFile = appendDir.filePath(QStringLiteral("append.xml"));
        const Outcome outcome = requestManifest(manifestUrl(server));
        QVERIFY(outcome.valid);
        QVERIFY(dlrApp()->manifest.isEmpty());
        QCOMPARE(server.requests().size(), before);
    }

    // A lone self-signed root in the chain passes silently; anything else
    // asks, and only OK is remembered.
    void proxy_data()
    {
        QTest::addColumn<QByteArray>("noProxy");
        QTest::addColumn<int>("tunnels"); // CONNECT requests the proxy logged
        QTest::newRow("through the proxy") << QByteArray() << 2;
        QTest::newRow("no_proxy passes it by") << QByteArray("127.0.0.1") << 0;
    }

    // The environment's proxy carries the manifest request and the
    // download, each over a tunnel of its own; no_proxy goes around it.
    void proxy()
    {
        QFETCH(QByteArray, noProxy);
        QFETCH(int, tunnels);
        QTemporaryDir state;
        QTcpServer free;
        QVERIFY(free.listen(QHostAddress::LocalHost));
        const quint16 port = free.serverPort();
        free.close();
        const QString log = state.filePath(QStringLiteral("proxy.log"));
        QFile config(state.filePath(QStringLiteral("proxy.conf")));
        QVERIFY(config.open(QIODevice::WriteOnly));
        config.write(QStringLiteral("Port %1\nListen 127.0.0.1\nAllow 127.0.0.1\nTimeout 60\nMaxClients 10\n"
                                    "LogLevel Connect\nLogFile \"%2\"\n").arg(port).arg(log).toUtf8());
        config.close();
        QProcess proxy;
        proxy.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        proxy.start(QStringLiteral("tinyproxy"), {QStringLiteral("-d"), QStringLiteral("-c"), config.fileName()});
        QVERIFY2(proxy.waitForStarted(5000), "tinyproxy is missing: scripts/setup installs it");
        const auto stop = qScopeGuard([&proxy] {
            proxy.terminate();
            if (!proxy.waitForFinished(5000))
                proxy.kill();
        });
        QTRY_VERIFY_WITH_TIMEOUT(QFile(log).size() > 0 && [port] {
            QTcpSocket probe;
            probe.connectToHost(QHostAddress::LocalHost, port);
            return probe.waitForConnected(200);
        }(), 10000);

        const QByteArray address = "http://127.0.0.1:" + QByteArray::number(port);
        qputenv("https_proxy", address);
        qputenv("no_proxy", noProxy);
        const auto unset = qScopeGuard([] {
            qunsetenv("https_proxy");
            qunsetenv("no_proxy");
        });
        QVERIFY(requestManifest(manifestUrl(server)).valid);
        dlrApp()->networkManager->clearConnectionCache();
        QSignalSpy finished(dlrApp(), qOverload<int>(&DlrApp::finishedDownload));
        QVERIFY(dlrApp()->DownloadProduct(0));
        QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, 20000);

        QFile logged(log);
        QVERIFY(logged.open(QIODevice::ReadOnly));
        const QByteArray tunnel = "CONNECT 127.0.0.1:" + QByteArray::number(server.port) + " ";
        QCOMPARE(int(logged.readAll().count(tunnel)), tunnels);
    }

    void tlsPolicy()
    {
        VendorServer chain;
        chain.writeCatalogFile(QStringLiteral("manifest.xml"), kServerManifest);
        QVERIFY(chain.start({QStringLiteral("--tls"), QStringLiteral("chain")}));
        VendorServer self;
        self.writeCatalogFile(QStringLiteral("manifest.xml"), kServerManifest);
        QVERIFY(self.start({QStringLiteral("--tls"), QStringLiteral("self")}));

        {
            DialogAnswerer user(QMessageBox::Ok);
            QVERIFY(requestManifest(manifestUrl(chain)).valid);
            QVERIFY(user.texts.isEmpty());
            QVERIFY(!dlrApp()->sslErrorsAccepted);
        }
        {
            DialogAnswerer user(QMessageBox::Cancel);
            QCOMPARE(requestManifest(manifestUrl(self)).reason, QStringLiteral("Unknown manifest Validation"));
            QCOMPARE(user.texts, QStringList{"There was issue with the SSL connection. Continue anyway?"});
            QVERIFY(!user.informative.first().isEmpty());
            QVERIFY(!dlrApp()->sslErrorsAccepted);
        }
        {
            DialogAnswerer user(QMessageBox::Ok);
            dlrApp()->networkManager->clearConnectionCache();
            QVERIFY(requestManifest(manifestUrl(self)).valid);
            QCOMPARE(user.texts.size(), 1);
            QVERIFY(dlrApp()->sslErrorsAccepted);
            dlrApp()->networkManager->clearConnectionCache();
            QVERIFY(requestManifest(manifestUrl(self)).valid);
            QCOMPARE(user.texts.size(), 1);
        }
    }

    // Several problems at once: one dialog, the details joined with "---".
    void tlsSeveralProblems()
    {
        VendorServer self;
        self.writeCatalogFile(QStringLiteral("manifest.xml"), kServerManifest);
        QVERIFY(self.start({QStringLiteral("--tls"), QStringLiteral("self"), QStringLiteral("--bind"),
                            QStringLiteral("127.0.0.2")}));
        DialogAnswerer user(QMessageBox::Cancel);
        QUrl url = manifestUrl(self);
        url.setHost(QStringLiteral("127.0.0.2")); // not a name the certificate carries
        QTest::ignoreMessage(QtDebugMsg, QRegularExpression("^ssl error: "));
        requestManifest(url);
        QCOMPARE(user.texts.size(), 1);
        QCOMPARE(user.informative.first(), QStringLiteral("There were multiple issues with the SSL connection"));
        const QStringList details = user.details.first().split(QStringLiteral("---"));
        QVERIFY2(details.size() >= 2, qPrintable(user.details.first()));
        for (const QString& detail : details)
            QVERIFY(!detail.isEmpty());
    }
};

int main(int argc, char** argv)
{
    return runWithDlrApp<TestNetwork>(argc, argv, {});
}

#include "tst_network.moc"
