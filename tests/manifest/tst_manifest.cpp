// The offer record's version and family rules, and the manifest reader.

#include "../support/TestMain.h"

#include "DlrManifestHandler.h"

#include <QRegExp>

namespace {

DlrManifestElement offer(const QString& name, const QString& simpleName = QString())
{
    DlrManifestElement element;
    element.Name = name;
    element.SimpleName = simpleName;
    return element;
}

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

} // namespace

class TestManifest : public QObject
{
    Q_OBJECT

private slots:
    void families_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("simpleName");
        QTest::addColumn<QString>("expected"); // C core, M for Maya, W workshop, H harrow

        QTest::newRow("simple name hides name") << "Velluma for Maya" << "Velluma Workshop" << "";
        QTest::newRow("workshop for maya is both") << "Velluma Workshop for Maya 2020" << "" << "MW";
        QTest::newRow("case-sensitive") << "harrow coreserver" << "" << "";
        QTest::newRow("core and harrow") << "CoreServer with Harrow" << "" << "CH";
    }

    void families()
    {
        QFETCH(QString, name);
        QFETCH(QString, simpleName);
        QFETCH(QString, expected);
        const DlrManifestElement element = offer(name, simpleName);
        QString got;
        if (element.GetIsCoreServer())
            got += 'C';
        if (element.GetIsVellumaForMaya())
            got += 'M';
        if (element.GetIsVWSForMaya())
            got += 'W';
        if (element.GetIsHarrow())
            got += 'H';
        QCOMPARE(got, expected);
    }

    void decimalVersion_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("failed");
        QTest::addColumn<QString>("version");
        QTest::addColumn<float>("number");

        QTest::newRow("leftmost wins") << "Product 21.7 and 22.0" << false << "21.7" << 21.7f;
        QTest::newRow("one digit major") << "Product 9.5" << true << "" << 0.0f;
        QTest::newRow("three digit major") << "Product 100.5" << true << "" << 0.0f;
        QTest::newRow("long minor") << "Product-21.10.pkg" << false << "21.10" << 21.1f;
    }

    void decimalVersion()
    {
        QFETCH(QString, name);
        QFETCH(bool, failed);
        QFETCH(QString, version);
        QFETCH(float, number);
        const DlrManifestElement element = offer(name);
        if (failed)
            QTest::ignoreMessage(QtDebugMsg, qPrintable(QStringLiteral("Product with no version \"%1\"").arg(name)));
        QString text = QStringLiteral("untouched");
        QCOMPARE(element.GetVersion(text), failed);
        QCOMPARE(text, failed ? QStringLiteral("untouched") : version);
        if (!failed) {
            float value = -1;
            QVERIFY(!element.GetVersion(value));
            QCOMPARE(value, number);
        }
    }

    void structuredVersion_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("givenMajor");
        QTest::addColumn<QString>("givenBeta");
        QTest::addColumn<QStringList>("expected");

        QTest::newRow("beta from name") << "Product-22.0b2.pkg" << QString() << QString()
                                        << QStringList{"22", "0", "b2"};
        QTest::newRow("beta kept when name has none") << "Product-21.7.pkg" << QString() << "b9"
                                                      << QStringList{"21", "7", "b9"};
        QTest::newRow("name replaces a lone major") << "Product-21.7.pkg" << "30" << QString()
                                                    << QStringList{"21", "7", ""};
        QTest::newRow("no version stays null") << "Product 21.7" << QString() << QString()
                                               << QStringList{QString(), QString(), QString()};
    }

    void structuredVersion()
    {
        QFETCH(QString, name);
        QFETCH(QString, givenMajor);
        QFETCH(QString, givenBeta);
        QFETCH(QStringList, expected);
        DlrManifestElement element = offer(name);
        element.version.major = givenMajor;
        element.version.beta = givenBeta;
        const DlrManifestElement::VersionStruct& version = element.GetVersion();
        QCOMPARE(version.major, expected.at(0));
        QCOMPARE(version.minor, expected.at(1));
        QCOMPARE(version.beta, expected.at(2));
        QCOMPARE(version.major.isNull(), expected.at(0).isNull());

        // Once known, the version is not read from the name again.
        element.Name = QStringLiteral("Other-30.1.pkg");
        if (!expected.at(0).isNull())
            QCOMPARE(element.GetVersion().major, expected.at(0));
        const DlrManifestElement::VersionStruct major = element.GetMajorVersion();
        QCOMPARE(major.minor, QStringLiteral("0"));
        QVERIFY(major.beta.isEmpty());
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
            offers << offer(name);
        QRegExp tool(QStringLiteral("Tool"));
        if (names.contains(QStringLiteral("Tool")))
            QTest::ignoreMessage(QtDebugMsg, "Product with no version \"Tool\"");
        QCOMPARE(DlrManifestElement::FindHighestVersionOfProduct(offers, tool), expected);
    }

    // Copies share one file object, which goes with the last of them.
    void sharedDownloadFile()
    {
        QPointer<QFile> watch;
        {
            QList<DlrManifestElement> list{offer("A.pkg")};
            list[0].downloadFile = QSharedPointer<QFile>::create(QStringLiteral("/tmp/x"));
            watch = list[0].downloadFile.data();
            DlrManifestElement copy = list.first();
            list.clear();
            QVERIFY(watch);
            QCOMPARE(copy.downloadFile.data(), watch.data());
        }
        QVERIFY(!watch);
    }

    void readsTwoOffers()
    {
        QList<DlrManifestElement> list;
        dlrApp()->successURL = QUrl(QStringLiteral("https://example.test/before"));
        QVERIFY(DlrManifestHandler::Parse(list, QByteArray(kTwoOffers)));
        QCOMPARE(list.size(), 2);

        const DlrManifestElement& core = list.at(0);
        QCOMPARE(core.Name, QStringLiteral("Velluma-CoreServer-22.0b2.pkg"));
        QCOMPARE(core.BuildID, QStringLiteral("4321"));
        QCOMPARE(core.SimpleName, QStringLiteral("Velluma CoreServer 22.0"));
        QCOMPARE(core.DownloadURL, QUrl(QStringLiteral("https://127.0.0.1/packages/core.pkg")));
        QCOMPARE(core.FileSize, Q_INT64_C(5000000000));
        QCOMPARE(core.DefaultBehavior, QStringLiteral("automatic"));
        QCOMPARE(core.version.major, QStringLiteral(" 22 "));
        QCOMPARE(core.version.minor, QStringLiteral("0"));
        QCOMPARE(core.version.beta, QStringLiteral("b2"));

        const DlrManifestElement& harrow = list.at(1);
        QCOMPARE(harrow.FileSize, Q_INT64_C(0));
        QCOMPARE(harrow.DownloadURL, QUrl(QStringLiteral("not a url at all"), QUrl::TolerantMode));
        QCOMPARE(harrow.DefaultBehavior, QStringLiteral("show"));
        // The empty VersionBeta took the white space after it, trimmed.
        QVERIFY(!harrow.version.beta.isNull() && harrow.version.beta.isEmpty());
        // The empty SimpleName took the white space up to the next tag.
        QCOMPARE(harrow.SimpleName, QStringLiteral("\n    "));
        QCOMPARE(dlrApp()->successURL, QUrl(QStringLiteral("https://example.test/second")));

        // A second document appends.
        QVERIFY(DlrManifestHandler::Parse(list, QByteArray(kTwoOffers)));
        QCOMPARE(list.size(), 4);
    }

    void readerFaults_data()
    {
        QTest::addColumn<QByteArray>("document");
        QTest::addColumn<bool>("parsed");
        QTest::addColumn<int>("offers");
        QTest::addColumn<QString>("debugLine");

        QTest::newRow("no offers") << QByteArray("<Manifest><Other>text</Other></Manifest>") << true << 0 << "";
        QTest::newRow("success page before offers")
            << QByteArray("<M><DLRSuccessURL>https://example.test/early</DLRSuccessURL>"
                          "<ProductInfo><Name>A</Name></ProductInfo></M>")
            << true << 1 << "";
        QTest::newRow("field before offers")
            << QByteArray("<M><Name>A</Name><ProductInfo><Name>B</Name></ProductInfo></M>") << false << 0
            << "Unexpected empty manifest cdata found";
        QTest::newRow("malformed keeps what was read")
            << QByteArray("<M><ProductInfo><Name>A</Name></ProductInfo><ProductInfo><Name>B</Nam") << false << 2
            << "";
        QTest::newRow("not xml") << QByteArray("\x01\x02 binary garbage") << false << 0 << "";
        // Refused before Qt's reader runs out of stack.
        QTest::newRow("nested past the limit")
            << "<M><ProductInfo><Name>A</Name></ProductInfo>" + QByteArray("<a>").repeated(100000) << false << 1
            << "Manifest nested deeper than 256 elements";
    }

    void readerFaults()
    {
        QFETCH(QByteArray, document);
        QFETCH(bool, parsed);
        QFETCH(int, offers);
        QFETCH(QString, debugLine);

        if (!debugLine.isEmpty())
            QTest::ignoreMessage(QtDebugMsg, qPrintable(debugLine));
        if (!parsed)
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^Fatal error on line \\d+ , column \\d+ : \".+\"$"));
        const QUrl before(QStringLiteral("https://example.test/kept"));
        dlrApp()->successURL = before;
        QList<DlrManifestElement> list;
        QCOMPARE(DlrManifestHandler::Parse(list, document), parsed);
        QCOMPARE(list.size(), offers);
        QCOMPARE(dlrApp()->successURL, before);
    }
};

int main(int argc, char** argv)
{
    return runWithDlrApp<TestManifest>(argc, argv, {});
}

#include "tst_manifest.moc"
