// The wizard's server side against the real local vendor server over HTTPS:
// the offers' rules and the manifest reader, the manifest request, TLS and
// proxies, and the download engine with every way a download fails.

#include "../support/DialogAnswerer.h"
#include "../support/Files.h"
#include "../support/HostileXml.h"
#include "../support/Manifest.h"
#include "../support/SmallDisk.h"
#include "../support/TestMain.h"
#include "../support/VendorServer.h"

#include "DlrManifestHandler.h"
#include "DlrNetworkError.h"

#include <QNetworkReply>
#include <QRegExp>
#include <QScopeGuard>
#include <QSslConfiguration>
#include <QTcpServer>
#include <QTcpSocket>

#include <algorithm>
#include <csignal>
#include <sys/stat.h>
#include <optional>
#include <unistd.h>

namespace {

const char* const kTwoOffers = R"(<?xml version="1.0"?>
<Manifest>
  <ProductInfo>
    <Name>Velluma-CoreServer-22.0b2.pkg</Name><BuildID>4321</BuildID><SimpleName>Velluma CoreServer 22.0</SimpleName>
    <DownloadURL>https://127.0.0.1/packages/core.pkg</DownloadURL><FileSize>5000000000</FileSize>
    <DefaultBehavior>automatic</DefaultBehavior><VersionMajor> 22 </VersionMajor><VersionMinor>0</VersionMinor>
    <VersionBeta> b2 </VersionBeta><Extra>ignored</Extra>
  </ProductInfo>
  <DLRSuccessURL>https://example.test/first</DLRSuccessURL>
  <ProductInfo>
    <Name>Harrow-21.7.pkg</Name><BuildID>99</BuildID><SimpleName></SimpleName>
    <DownloadURL>not a url at all</DownloadURL><FileSize>12abc</FileSize><DefaultBehavior>show</DefaultBehavior>
    <VersionMajor>21</VersionMajor><VersionMinor>7</VersionMinor><VersionBeta></VersionBeta>
    <DLRSuccessURL>https://example.test/second</DLRSuccessURL>
  </ProductInfo>
</Manifest>
)";

// The offer of this package (with no address unless given), as the reader
// leaves it.
DlrManifestElement offered(const QString& name, const QString& url = QStringLiteral(""), qint64 size = 0)
{
    QList<DlrManifestElement> offers;
    QUrl success;
    DlrReadManifest(manifest({offer({}, name, {}, {}, {}, QString::number(size), url)}), offers, success);
    return offers.value(0);
}

// An offer's fields as the reader left them, in one text.
QString fields(const DlrManifestElement& e)
{
    return QStringList{e.Name, e.BuildID, e.SimpleName, e.DownloadURL.toString(), QString::number(e.FileSize),
                       e.DefaultBehavior, e.version.major, e.version.minor, e.version.beta}
        .join('|');
}

QString downloads()
{
    return QDir::homePath() + QStringLiteral("/Downloads");
}

quint16 freePort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost);
    return probe.serverPort();
}

} // namespace

class TestNetwork : public QObject
{
    Q_OBJECT

    VendorServer server;
    QList<DlrManifestElement>& manifest() { return dlrApp()->manifest; }

    // "valid", or the reason the request was refused.
    QString requestManifest(const QUrl& url)
    {
        QSignalSpy valid(dlrApp(), &DlrApp::validManifestReply);
        QSignalSpy invalid(dlrApp(), &DlrApp::invalidManifestReply);
        dlrApp()->RequestManifest(url, QStringLiteral("a&b"), QStringLiteral("p&w"), QStringLiteral("osx"));
        [&] { QTRY_VERIFY_WITH_TIMEOUT(valid.count() + invalid.count() > 0, 20000); }();
        return invalid.isEmpty() ? QStringLiteral("valid") : invalid.first().first().toString();
    }

    // Runs the first offer's download to its end: the failure reason, or
    // empty when it finished; adds the bytes that arrived to `received`.
    QString download(qint64* received = nullptr)
    {
        QSignalSpy finished(dlrApp(), qOverload<int>(&DlrApp::finishedDownload));
        QSignalSpy failed(dlrApp(), &DlrApp::failedDownload);
        QNetworkReply* reply = dlrApp()->DownloadProduct(0);
        if (!reply)
            return QStringLiteral("not started");
        QSignalSpy progress(reply, &QNetworkReply::downloadProgress);
        [&] { QTRY_VERIFY_WITH_TIMEOUT(finished.count() + failed.count() > 0, 60000); }();
        if (received && !progress.isEmpty())
            *received += progress.last().first().toLongLong();
        if (!failed.isEmpty())
            return failed.first().first().toString();
        return finished.first().first().toInt() == 0 ? QString() : QStringLiteral("wrong index");
    }

private slots:
    void initTestCase()
    {
        std::signal(SIGXFSZ, SIG_IGN);
        QVERIFY(QDir().mkpath(downloads()));
        server.serveOffers({{QStringLiteral("small.pkg"), 3000, {}}, {QStringLiteral("Product.pkg"), 300000, {}}});
        server.writePackage(QStringLiteral("Replaced.pkg"), 300000);
        server.writePackage(QStringLiteral("Big.pkg"), 64 << 20);
        server.setUsers({{QStringLiteral("a&amp;b"), QStringLiteral("p&w")}});
        QVERIFY(server.start());
        QSslConfiguration config = QSslConfiguration::defaultConfiguration();
        config.addCaCertificates(server.caPath);
        QSslConfiguration::setDefaultConfiguration(config);
        server.writeCatalogFile(QStringLiteral("append.xml"),
                                "<M><ProductInfo><Name>Appended-1.0.pkg</Name></ProductInfo></M>");
    }

    void init()
    {
        DlrApp* app = dlrApp();
        app->dumpManifest = false;
        app->appendManifestFile.clear();
        app->alternateManifestFile.clear();
        app->sslErrorsAccepted = false;
        // Where the server falls silent, 2 s without data is enough to give up.
        app->transferTimeout = QByteArray(QTest::currentDataTag()).startsWith("silent") ? 2 : 30;
        qunsetenv("DLR_APPEND_MANIFEST_FILE");
        qunsetenv("https_proxy");
        qunsetenv("no_proxy");
        if (app->networkManager)
            app->networkManager->clearConnectionCache();
        manifest().clear();
        QDir(downloads()).removeRecursively();
        QDir().mkpath(downloads());
    }

    void offerRules_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("simpleName");
        QTest::addColumn<QStringList>("given");    // the manifest's VersionMajor and VersionBeta
        QTest::addColumn<QString>("families");     // C core, M for Maya, W workshop, H harrow
        QTest::addColumn<QString>("decimal");      // empty: no version
        QTest::addColumn<QString>("structured");   // major.minor and beta; empty: none

        QTest::newRow("simple name hides name") << "Velluma for Maya" << "Velluma Workshop" << QStringList() << ""
                                                << "" << "";
        QTest::newRow("workshop for maya is both") << "Velluma Workshop for Maya 2020" << "" << QStringList() << "MW"
                                                   << "" << "";
        QTest::newRow("case-sensitive") << "harrow coreserver" << "" << QStringList() << "" << "" << "";
        QTest::newRow("core and harrow") << "CoreServer with Harrow" << "" << QStringList() << "CH" << "" << "";
        QTest::newRow("leftmost wins, no dash") << "Product 21.7 and 22.0" << "" << QStringList() << "" << "21.7" << "";
        QTest::newRow("one digit major") << "Product 9.5" << "" << QStringList() << "" << "" << "";
        QTest::newRow("three digit major") << "Product 100.5" << "" << QStringList() << "" << "" << "";
        QTest::newRow("long minor") << "Product-21.10.pkg" << "" << QStringList() << "" << "21.10" << "21.10";
        QTest::newRow("beta from name") << "Product-22.0b2.pkg" << "" << QStringList() << "" << "22.0" << "22.0b2";
        QTest::newRow("beta kept when name has none") << "Product-21.7.pkg" << "" << QStringList{"", "b9"} << ""
                                                      << "21.7" << "21.7b9";
        QTest::newRow("name replaces a lone major") << "Product-21.7.pkg" << "" << QStringList{"30"} << "" << "21.7"
                                                    << "21.7";
    }

    void offerRules()
    {
        QFETCH(QString, name);
        QFETCH(QString, simpleName);
        QFETCH(QStringList, given);
        QFETCH(QString, families);
        QFETCH(QString, decimal);
        QFETCH(QString, structured);
        DlrManifestElement element = offered(name);
        element.SimpleName = simpleName;
        QCOMPARE(QString(element.GetIsCoreServer() ? "C" : "") + (element.GetIsVellumaForMaya() ? "M" : "")
                     + (element.GetIsVWSForMaya() ? "W" : "") + (element.GetIsHarrow() ? "H" : ""),
                 families);

        if (decimal.isEmpty())
            QTest::ignoreMessage(QtDebugMsg,
                                 qPrintable(QStringLiteral("Product with no version \"%1\"").arg(element.matchName())));
        QString text;
        QCOMPARE(element.GetVersion(text), decimal.isEmpty());
        QCOMPARE(text, decimal);

        element.version.major = given.value(0);
        element.version.beta = given.value(1);
        const DlrManifestElement::VersionStruct& version = element.GetVersion();
        QCOMPARE(version.major.isNull() ? QString() : version.major + '.' + version.minor + version.beta, structured);
        // Once known, the version is not read from the name again.
        element.Name = QStringLiteral("Other-30.1.pkg");
        const DlrManifestElement::VersionStruct major = element.GetMajorVersion();
        if (!structured.isEmpty())
            QCOMPARE(major.major + '.' + major.minor + major.beta, structured.section('.', 0, 0) + ".0");
    }

    void highestVersion_data()
    {
        QTest::addColumn<QStringList>("names");
        QTest::addColumn<int>("expected");

        QTest::newRow("first of equal highest") << QStringList{"Tool 21.7", "Tool 22.0", "Tool 22.0"} << 1;
        QTest::newRow("compared as numbers") << QStringList{"Tool 21.10", "Tool 21.7"} << 1;
        QTest::newRow("other products and no version skipped")
            << QStringList{"Other 30.0", "Tool", "Tool 12.5"} << 2;
        QTest::newRow("empty list") << QStringList() << -1;
    }

    void highestVersion()
    {
        QFETCH(QStringList, names);
        QFETCH(int, expected);
        QList<DlrManifestElement> offers;
        for (const QString& name : names)
            offers << offered(name);
        if (names.contains(QStringLiteral("Tool")))
            QTest::ignoreMessage(QtDebugMsg, "Product with no version \"Tool\"");
        QRegExp tool(QStringLiteral("Tool"));
        QCOMPARE(DlrManifestElement::FindHighestVersionOfProduct(offers, tool), expected);
    }

    void reader_data()
    {
        QTest::addColumn<QByteArray>("document");
        QTest::addColumn<bool>("parsed");
        QTest::addColumn<QStringList>("offers"); // as fields() gives them
        QTest::addColumn<QString>("success");    // the success page afterwards
        QTest::addColumn<QString>("debugLine");

        const QString kept = QStringLiteral("https://example.test/kept");
        // An empty element takes the white space up to the next tag.
        QTest::newRow("two offers")
            << QByteArray(kTwoOffers) << true
            << QStringList{"Velluma-CoreServer-22.0b2.pkg|4321|Velluma CoreServer 22.0|https://127.0.0.1/packages/"
                           "core.pkg|5000000000|automatic| 22 |0|b2",
                           "Harrow-21.7.pkg|99|\n    |not a url at all|0|show|21|7|"}
            << "https://example.test/second" << "";
        QTest::newRow("no offers") << QByteArray("<Manifest><Other>text</Other></Manifest>") << true << QStringList()
                                   << kept << "";
        QTest::newRow("success page before offers")
            << QByteArray("<M><DLRSuccessURL>https://example.test/early</DLRSuccessURL>"
                          "<ProductInfo><Name>A</Name></ProductInfo></M>")
            << true << QStringList{"A||||0||||"} << kept << "";
        QTest::newRow("field before offers")
            << QByteArray("<M><Name>A</Name><ProductInfo><Name>B</Name></ProductInfo></M>") << false << QStringList()
            << kept << "Unexpected empty manifest cdata found";
        QTest::newRow("malformed keeps what was read")
            << QByteArray("<M><ProductInfo><Name>A</Name></ProductInfo><ProductInfo><Name>B</Nam") << false
            << QStringList{"A||||0||||", "B||||0||||"} << kept << "";
        QTest::newRow("not xml") << QByteArray("\x01\x02 binary garbage") << false << QStringList() << kept << "";
        // Refused before Qt's reader runs out of stack.
        QTest::newRow("nested past the limit")
            << "<M><ProductInfo><Name>A</Name></ProductInfo>" + QByteArray("<a>").repeated(100000) << false
            << QStringList{"A||||0||||"} << kept << "Manifest nested deeper than 256 elements";
        // Hostile documents: nothing expands without end, no local file is read.
        const QByteArray a = "<M><ProductInfo><Name>A</Name></ProductInfo>";
        QTest::newRow("entity bomb") << entityBomb("M") + "<M><ProductInfo><Name>&a9;</Name></ProductInfo></M>" << false
                                     << QStringList() << kept << "";
        QTest::newRow("local file entity")
            << localEntity("M", VLUM_SOURCE_DIR "/tests/fixtures/usage.txt") + "<M><ProductInfo><Name>&x;</Name></ProductInfo></M>"
            << true << QStringList{"||||0||||"} << kept << "";
        QTest::newRow("1 MiB name") << "<M><ProductInfo><Name>" + QByteArray(1 << 20, 'x') + "</Name></ProductInfo></M>"
                                    << true << QStringList{QString(1 << 20, 'x') + "||||0||||"} << kept << "";
        QTest::newRow("two roots") << a + "</M>" + a + "</M>" << false << QStringList{"A||||0||||"} << kept << "";
        QTest::newRow("declared UTF-16") << "<?xml version=\"1.0\" encoding=\"UTF-16\"?>" + a + "</M>" << false
                                         << QStringList() << kept << "";
        QTest::newRow("unknown encoding") << "<?xml version=\"1.0\" encoding=\"x-unknown\"?>" + a + "</M>" << true
                                          << QStringList{"A||||0||||"} << kept << "";
        QTest::newRow("open CDATA") << a + "<![CDATA[" << false << QStringList{"A||||0||||"} << kept << "";
        QTest::newRow("open comment") << a + "<!--" << false << QStringList{"A||||0||||"} << kept << "";
    }

    void reader()
    {
        QFETCH(QByteArray, document);
        QFETCH(bool, parsed);
        QFETCH(QStringList, offers);
        QFETCH(QString, success);
        QFETCH(QString, debugLine);
        if (!debugLine.isEmpty())
            QTest::ignoreMessage(QtDebugMsg, qPrintable(debugLine));
        if (!parsed)
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^Fatal error on line \\d+ , column \\d+ : \".+\"$"));
        dlrApp()->successURL = QUrl(QStringLiteral("https://example.test/kept"));
        QCOMPARE(DlrManifestHandler::Parse(manifest(), document), parsed);
        QStringList read;
        for (const DlrManifestElement& element : manifest())
            read << fields(element);
        QCOMPARE(read, offers);
        QCOMPARE(dlrApp()->successURL, QUrl(success));
    }

    void manifestRequest_data()
    {
        QTest::addColumn<QString>("query"); // the server's switches
        QTest::addColumn<QString>("local"); // the appended file as member or environment, or the disk only
        QTest::addColumn<QString>("outcome");
        QTest::addColumn<QStringList>("offers");
        QTest::addColumn<QString>("details"); // the network error shown under the reason

        const QStringList served{"small.pkg", "Product.pkg"};
        const QStringList appended = served + QStringList{"Appended-1.0.pkg"};
        const QString unknown = QStringLiteral("Unknown manifest Validation");
        const QString timedOut = DlrNetworkError(QNetworkReply::TimeoutError);
        // Unless a row says otherwise: no local file, and nothing is read. A refused
        // account and a closed port are shown by the wizard's suite.
        const auto row = [](const char* tag, const QString& query, const QString& outcome, const QString& details = {},
                            const QStringList& offers = {}, const QString& local = {}) {
            QTest::newRow(tag) << query << local << outcome << offers << details;
        };
        row("approved", "", "valid", "", served);
        row("approved is a prefix", "validation=approved-xyz", "valid", "", served);
        row("bare error", "validation=bare-error", "Manifest request denied");
        row("no header", "validation=missing", unknown);
        row("server error status, no header", "status=500", unknown,
            DlrNetworkError(QNetworkReply::InternalServerError));
        row("silent before the headers", "delay=10", unknown, timedOut);
        row("silent after the headers", "stall_after=0", "bad manifest reply", timedOut);
        row("appended file", "", "valid", "", appended, "member");
        row("appended file from the environment", "", "valid", "", appended, "environment");
        // Broken XML is still dumped byte for byte, and the offers read before
        // the error stay, followed by the appended ones.
        row("malformed, dumped", "validation=malformed", "bad manifest reply", "",
            {served.first(), "", appended.last()}, "member");
        row("disk only, file missing", "", "valid", "", {}, "disk");
    }

    void manifestRequest()
    {
        QFETCH(QString, query);
        QFETCH(QString, local);
        QFETCH(QString, outcome);
        QFETCH(QStringList, offers);
        QFETCH(QString, details);

        const QString append = server.catalogPath(QStringLiteral("append.xml"));
        if (local == QLatin1String("environment"))
            qputenv("DLR_APPEND_MANIFEST_FILE", append.toLocal8Bit());
        else if (!local.isEmpty())
            dlrApp()->appendManifestFile = append;
        if (local == QLatin1String("disk"))
            dlrApp()->alternateManifestFile = server.catalogPath(QStringLiteral("missing.xml"));
        const bool dump = query.contains(QLatin1String("malformed"));
        dlrApp()->dumpManifest = dump;
        // A new request starts from an empty list.
        manifest().append(DlrManifestElement());
        const QUrl url = server.url(QStringLiteral("forum/currentproducts.php?") + query);
        const int before = server.requests().size();

        QCOMPARE(requestManifest(url), outcome);
        QCOMPARE(dlrApp()->manifestNetworkError, details);
        QStringList names;
        for (const DlrManifestElement& element : manifest())
            names << element.Name;
        QCOMPARE(names, offers);
        QVERIFY(!dlrApp()->manifestReply);

        // What the server saw: three parts in order, one header each, the user
        // name escaped and the password as typed; nothing for the disk only.
        const QList<QJsonObject> requests = server.requests();
        const bool sent = local != QLatin1String("disk");
        QCOMPARE(requests.size(), before + int(sent));
        if (sent) {
            QStringList parts;
            for (const QJsonValue part : requests.last().value("parts").toArray())
                parts << part["headers"].toString().trimmed() + " | " + part["body"].toString();
            const QString header = QStringLiteral("Content-Disposition: form-data; name=\"%1\" | %2");
            QCOMPARE(parts, (QStringList{header.arg("platform", "osx"),
                                         header.arg("username", "a&amp;b"),
                                         header.arg("userpass", "p&w")}));
        }
        if (dump) {
            QProcess curl;
            curl.start(QStringLiteral("curl"), {"-s", "--cacert", server.caPath, "--form-string", "platform=osx",
                                                "--form-string", "username=a&amp;b", "--form-string", "userpass=p&w",
                                                url.toString()});
            QVERIFY(curl.waitForFinished(20000));
            QCOMPARE(readFile(dlrApp()->GetDownloadDir()->filePath(QStringLiteral("manifest.xml"))),
                     curl.readAllStandardOutput());
        }
    }

    // A lone self-signed root in the chain passes silently; anything else
    // asks, only OK is remembered, and several problems make one box with
    // the details joined by "---".
    void tls_data()
    {
        QTest::addColumn<QString>("mode"); // the server's certificates
        QTest::addColumn<QString>("host"); // 127.0.0.2 is not a name the certificates carry
        QTest::addColumn<int>("answer");
        QTest::addColumn<QString>("outcome");
        QTest::addColumn<QString>("informative");
        QTest::addColumn<int>("details");

        const int ok = QMessageBox::Ok;
        const int cancel = QMessageBox::Cancel;
        const QString selfSigned = QStringLiteral("The certificate is self-signed, and untrusted");
        QTest::newRow("root in the chain") << "chain" << "127.0.0.1" << ok << "valid" << "" << 0;
        QTest::newRow("self-signed, refused") << "self" << "127.0.0.1" << cancel << "Unknown manifest Validation"
                                              << selfSigned << 0;
        QTest::newRow("self-signed, accepted for good") << "self" << "127.0.0.1" << ok << "valid" << selfSigned << 0;
        QTest::newRow("self-signed, another name") << "self" << "127.0.0.2" << cancel << "Unknown manifest Validation"
                                                   << "There were multiple issues with the SSL connection" << 2;
        // The user reads each question longer than the stall limit.
        QTest::newRow("silent while the user reads") << "self" << "127.0.0.1" << ok << "valid" << selfSigned << 0;
    }

    void tls()
    {
        QFETCH(QString, mode);
        QFETCH(QString, host);
        QFETCH(int, answer);
        QFETCH(QString, outcome);
        QFETCH(QString, informative);
        QFETCH(int, details);
        VendorServer other;
        other.serveOffers({{QStringLiteral("small.pkg"), 3000, {}}});
        other.setUsers({{QStringLiteral("a&amp;b"), QStringLiteral("p&w")}});
        QVERIFY(other.start({QStringLiteral("--tls"), mode, QStringLiteral("--bind"), host}));
        const QUrl url = other.url(QStringLiteral("forum/currentproducts.php"));
        DialogAnswerer user{QMessageBox::StandardButton(answer)};
        const bool slowReader = QByteArray(QTest::currentDataTag()).startsWith("silent");
        QElapsedTimer reading;
        if (slowReader)
            user.ready = [&reading] {
                if (!reading.isValid())
                    reading.start();
                return reading.hasExpired(3000);
            };

        QCOMPARE(requestManifest(url), outcome);
        const QStringList asked{"There was issue with the SSL connection. Continue anyway?"};
        QCOMPARE(user.texts, informative.isEmpty() ? QStringList() : asked);
        QCOMPARE(user.informative.value(0), informative);
        QCOMPARE(user.details.value(0).split(QStringLiteral("---"), Qt::SkipEmptyParts).size(), details);
        QCOMPARE(dlrApp()->sslErrorsAccepted, outcome == QLatin1String("valid") && !informative.isEmpty());
        if (dlrApp()->sslErrorsAccepted) {
            dlrApp()->networkManager->clearConnectionCache();
            QCOMPARE(requestManifest(url), QStringLiteral("valid"));
            QCOMPARE(user.texts.size(), 1);
        }
        if (slowReader) {
            dlrApp()->sslErrorsAccepted = false;
            dlrApp()->networkManager->clearConnectionCache();
            reading.invalidate();
            QCOMPARE(download(), QString());
            QCOMPARE(user.texts.size(), 2);
        }
    }

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
        const quint16 port = freePort();
        const QString log = server.catalogPath(QStringLiteral("proxy-%1.log").arg(port));
        server.writeCatalogFile(QStringLiteral("proxy.conf"),
                                QStringLiteral("Port %1\nListen 127.0.0.1\nAllow 127.0.0.1\nTimeout 60\nMaxClients 10\n"
                                               "LogLevel Connect\nLogFile \"%2\"\n").arg(port).arg(log).toUtf8());
        QProcess proxy;
        proxy.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        proxy.start(QStringLiteral("tinyproxy"), {"-d", "-c", server.catalogPath(QStringLiteral("proxy.conf"))});
        QVERIFY2(proxy.waitForStarted(5000), "tinyproxy is missing: scripts/setup installs it");
        const auto stop = qScopeGuard([&proxy] {
            proxy.terminate();
            proxy.waitForFinished(5000); // what is left, the process object kills
        });
        QTRY_VERIFY_WITH_TIMEOUT(QFile(log).size() > 0 && [port] {
            QTcpSocket probe;
            probe.connectToHost(QHostAddress::LocalHost, port);
            return probe.waitForConnected(200);
        }(), 10000);

        qputenv("https_proxy", "http://127.0.0.1:" + QByteArray::number(port));
        qputenv("no_proxy", noProxy);
        QCOMPARE(requestManifest(server.url(QStringLiteral("forum/currentproducts.php"))), QStringLiteral("valid"));
        dlrApp()->networkManager->clearConnectionCache();
        QCOMPARE(download(), QString());
        const QByteArray tunnel = "CONNECT 127.0.0.1:" + QByteArray::number(server.port) + " ";
        QCOMPARE(int(readFile(log).count(tunnel)), tunnels);
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
        // Without a Downloads folder: names another user took in the shared
        // temporary folder steer nothing, a private folder in it is used.
        QTest::newRow("shared temporary folder") << "Product.pkg"
                                                 << QStringList{"@Product.pkg", "@Product-1.pkg.vlumdownload"}
                                                 << "Product.pkg.vlumdownload";
    }

    void temporaryNames()
    {
        QFETCH(QString, name);
        QFETCH(QStringList, existing); // "@": made by another user in the shared folder
        QFETCH(QString, expected);
        const bool shared = existing.value(0).startsWith('@');
        QTemporaryDir sharedDir(QStringLiteral("/tmp/vlum-shared-XXXXXX"));
        const QByteArray tmpdir = qgetenv("TMPDIR");
        const bool hadTmpdir = qEnvironmentVariableIsSet("TMPDIR");
        const auto restore = qScopeGuard([&] {
            hadTmpdir ? qputenv("TMPDIR", tmpdir) : qunsetenv("TMPDIR");
            dlrApp()->downloadDir.reset();
        });
        if (shared) {
            QVERIFY(::chmod(QFile::encodeName(sharedDir.path()).constData(), 01777) == 0);
            QVERIFY(QDir(downloads()).removeRecursively());
            qputenv("TMPDIR", QFile::encodeName(sharedDir.path()));
            dlrApp()->downloadDir.reset();
            const QStringList asAnotherUser{"--reuid=4242", "--regid=4242", "--clear-groups", "--", "touch"};
            existing.replaceInStrings(QStringLiteral("@"), sharedDir.path() + '/');
            QCOMPARE(QProcess::execute(QStringLiteral("setpriv"), asAnotherUser + existing), 0);
        }
        for (const QString& file : existing)
            QVERIFY(shared || QFile(downloads() + '/' + file).open(QIODevice::WriteOnly));
        manifest() << offered(name);
        const QString temp = dlrApp()->getDownloadPath(0);
        const QString folder = shared ? QFileInfo(temp).path() : downloads();
        struct stat info {};
        QVERIFY(::stat(QFile::encodeName(folder).constData(), &info) == 0);
        QCOMPARE(info.st_uid, ::geteuid());
        if (shared) {
            QCOMPARE(QFileInfo(folder).path(), sharedDir.path());
            QCOMPARE(info.st_mode & 07777, mode_t(0700));
        }
        QCOMPARE(temp, folder + '/' + expected);
        QCOMPARE(DlrApp::getFinalNameFromTempName(temp), folder + '/' + expected.chopped(13));
        QTest::ignoreMessage(QtDebugMsg, "index out of range in getDownloadPath 1");
        QCOMPARE(dlrApp()->getDownloadPath(1), QStringLiteral("unkown.vlumdownload"));
    }

    void existingDownload_data()
    {
        QTest::addColumn<QString>("name");   // the offer's Name; @ stands for a folder outside Downloads
        QTest::addColumn<QString>("onDisk"); // where 100 bytes are put, relative to Downloads
        QTest::addColumn<QString>("kind");   // file, empty, link (to a file elsewhere) or foreign (another user's)
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
        const QString path = QDir(downloads()).absoluteFilePath(onDisk.replace(QLatin1Char('@'), elsewhere.path()));
        const QString target = kind == QLatin1String("link") ? elsewhere.filePath(QStringLiteral("real.pkg")) : path;
        QVERIFY(QDir().mkpath(QFileInfo(path).absolutePath()));
        QVERIFY(writeFile(target, QByteArray(kind == QLatin1String("empty") ? 0 : 100, 'x')));
        const auto cleanUp = qScopeGuard([&] { QFile::remove(path); QDir(downloads()).rmdir(QStringLiteral("sub")); });
        if (kind == QLatin1String("link"))
            QVERIFY(QFile::link(target, path));
        if (kind == QLatin1String("foreign") && ::chown(QFile::encodeName(path).constData(), 65534, 65534) != 0)
            QSKIP("another user's file needs root to make");

        manifest() << offered(name, server.url(QStringLiteral("packages/small.pkg")).toString(), size);
        dlrApp()->CheckForDownload(0);
        QCOMPARE(manifest().at(0).downloaded, reused);
        QCOMPARE(bool(manifest().at(0).downloadFile), reused);
        if (refused)
            QVERIFY(!dlrApp()->DownloadProduct(0));
    }

    void transfer_data()
    {
        QTest::addColumn<QString>("name");  // the package on the server; Replaced.pkg changes after the first try
        QTest::addColumn<QString>("query"); // its fault switches; "refused": a closed port; else an address of its own
        QTest::addColumn<qint64>("size");   // the offer's FileSize
        QTest::addColumn<int>("limit");     // the file size limit while the first try runs
        QTest::addColumn<QString>("reason");
        QTest::addColumn<int>("failures"); // tries that fail with the reason
        QTest::addColumn<bool>("rest");    // each retry asks for the rest only

        // Unless a row says otherwise: Product.pkg as offered, failing once, each retry for the rest only.
        const auto row = [](const char* tag, const QString& query, const QString& reason, int failures = 1,
                            bool rest = true, qint64 size = 300000, int limit = 0, const QString& name = "Product.pkg") {
            QTest::newRow(tag) << name << query << size << limit << reason << failures << rest;
        };
        const QString cut = DlrNetworkError(QNetworkReply::RemoteHostClosedError);
        const QString timedOut = DlrNetworkError(QNetworkReply::TimeoutError);
        const QString tooLarge = QStringLiteral("Could not write %1/%2.vlumdownload: File too large");
        row("whole", "", "", 0);
        row("dropped mid-download", "drop_after=100000&fault_times=1", cut);
        row("404", "status=404&fault_times=1", DlrNetworkError(QNetworkReply::ContentNotFoundError));
        row("500", "status=500&fault_times=1", DlrNetworkError(QNetworkReply::InternalServerError));
        row("refused", "refused", DlrNetworkError(QNetworkReply::ConnectionRefusedError));
        // Fetched from nowhere but the web, and nothing written for them.
        const QString notWeb = QStringLiteral("Not downloading from %1: packages come over http or https only");
        row("not a url", "not a url at all", notWeb.arg("not a url at all"));
        row("local file", "file:///etc/passwd", notWeb.arg("file:///etc/passwd"));
        row("data address", "data:,PK", notWeb.arg("data:,PK"));
        // The network layer calls these complete; only the byte count tells.
        row("no length, closed early", "no_length=1&drop_after=100000&fault_times=1",
            "Download incomplete: 100000 of 300000 bytes");
        row("shorter than offered", "", "Download incomplete: 300000 of 300001 bytes", 1, false, 300001);
        row("longer than offered", "", "Download larger than expected: 300000 of 299999 bytes", 1, false, 299999);
        row("silent after the headers", "stall_after=0&fault_times=1", timedOut);
        row("silent mid-body", "stall_after=100000&fault_times=1", timedOut);
        // The cause, not the abort it led to; data that did not reach the
        // disk never gets the final name.
        row("disk full while copying", "", tooLarge.arg(downloads(), "Product.pkg"), 1, false, 300000, 64000);
        // Small enough to sit in the file's buffer until it is flushed.
        row("disk full only at flush", "", tooLarge.arg(downloads(), "small.pkg"), 1, false, 3000, 2000, "small.pkg");
        row("cut at ten offsets", "drop_after=6000000&fault_times=10", cut, 10, true, 64 << 20, 0, "Big.pkg");
        row("package replaced in between", "drop_after=100000&fault_times=1", cut, 1, false, 300000, 0, "Replaced.pkg");
    }

    // The reason reaches the user and the partial file keeps its temporary
    // name; Retry continues it, by a range of the same file only, to the
    // server's package byte for byte under its own name.
    void transfer()
    {
        QFETCH(QString, name);
        QFETCH(QString, query);
        QFETCH(qint64, size);
        QFETCH(int, limit);
        QFETCH(QString, reason);
        QFETCH(int, failures);
        QFETCH(bool, rest);
        const QString final = downloads() + '/' + name;
        QString source = server.url(QStringLiteral("packages/") + name + '?' + query).toString();
        if (query == QLatin1String("refused"))
            source = QStringLiteral("https://127.0.0.1:%1/packages/Product.pkg").arg(freePort());
        else if (!query.isEmpty() && !query.contains(QLatin1Char('=')))
            source = query;
        const QStringList partial{name + QStringLiteral(".vlumdownload")};
        const bool fetched = !reason.startsWith(QLatin1String("Not downloading"));
        manifest() << offered(name, source, size);
        qint64 received = 0;
        for (int tries = 0; tries < failures; ++tries) {
            {
                std::optional<FileSizeLimit> full;
                if (limit > 0 && tries == 0)
                    full.emplace(limit);
                QCOMPARE(download(&received), reason);
            }
            QCOMPARE(QDir(downloads()).entryList(QDir::Files), fetched ? partial : QStringList());
            QVERIFY(!manifest().at(0).downloaded);
            QVERIFY(!manifest().at(0).downloadFile);
            if (limit > 0)
                QVERIFY(QFileInfo(final + QStringLiteral(".vlumdownload")).size() <= limit);
            if (name == QLatin1String("Replaced.pkg")) {
                QByteArray other = server.package(name);
                std::reverse(other.begin(), other.end());
                server.writeCatalogFile(QStringLiteral("packages/") + name, other); // a new ETag
            }
            // Retry gets the package as it is: the faults stay while fault_times says.
            if (!query.contains(QLatin1String("fault_times")))
                manifest()[0].DownloadURL = server.url(QStringLiteral("packages/") + name);
            manifest()[0].FileSize = server.package(name).size();
        }
        QCOMPARE(download(&received), QString());
        QCOMPARE(readFile(final), server.package(name));
        QCOMPARE(QDir(downloads()).entryList(QDir::Files), QStringList{name});
        QVERIFY(manifest().at(0).downloaded);
        QCOMPARE(manifest().at(0).downloadFile->fileName(), final);
        QVERIFY(!manifest().at(0).downloadFile->isOpen());
        if (rest)
            QVERIFY2(received <= size * 11 / 10, qPrintable(QStringLiteral("%1 bytes received").arg(received)));
    }

    // A new manifest while a package is arriving: the reply is ended at
    // once instead of stalling behind its full read buffer.
    void manifestEmptiedMidDownload()
    {
        manifest() << offered(QStringLiteral("Big.pkg"), server.url(QStringLiteral("packages/Big.pkg")).toString(), 64 << 20);
        QSignalSpy failed(dlrApp(), &DlrApp::failedDownload);
        QNetworkReply* reply = dlrApp()->DownloadProduct(0);
        QVERIFY(reply);
        connect(reply, &QNetworkReply::downloadProgress, this, [this] { manifest().clear(); });
        QTRY_COMPARE_WITH_TIMEOUT(failed.count(), 1, 15000);
        QCOMPARE(failed.first().first().toString(), QStringLiteral("index out of range in Download"));
        QVERIFY(!dlrApp()->downloadReply);
    }
};

int main(int argc, char** argv)
{
    return runWithDlrApp<TestNetwork>(argc, argv, {});
}

#include "tst_network.moc"
