#include "DlrManifestHandler.h"

#include "DlrApp.h"
#include "DlrConstants.h"

#include <QBuffer>
#include <QDebug>
#include <QFile>
#include <QHash>
#include <QXmlInputSource>
#include <QXmlSimpleReader>

DlrManifestHandler::DlrManifestHandler(QList<DlrManifestElement>& manifest, QUrl& successURL)
    : manifest(manifest)
    , successURL(successURL)
{
}

DlrManifestHandler::~DlrManifestHandler() = default;

bool DlrManifestHandler::startElement(const QString&, const QString& localName, const QString&,
                                      const QXmlAttributes&)
{
    static const QHash<QString, Field> fields{
        {QStringLiteral("Name"), NameField},
        {QStringLiteral("BuildID"), BuildIdField},
        {QStringLiteral("SimpleName"), SimpleNameField},
        {QStringLiteral("DownloadURL"), DownloadUrlField},
        {QStringLiteral("FileSize"), FileSizeField},
        {QStringLiteral("DefaultBehavior"), DefaultBehaviorField},
        {QStringLiteral("VersionMajor"), VersionMajorField},
        {QStringLiteral("VersionMinor"), VersionMinorField},
        {QStringLiteral("VersionBeta"), VersionBetaField},
        {QStringLiteral("DLRSuccessURL"), SuccessUrlField},
    };

    if (++depth > DlrXmlMaxDepth) {
        qDebug() << "Manifest nested deeper than" << DlrXmlMaxDepth << "elements";
        return false;
    }
    if (localName == QLatin1String("ProductInfo")) {
        manifest.append(DlrManifestElement());
        currentField = NoField;
    } else {
        currentField = fields.value(localName, NoField);
    }
    return true;
}

bool DlrManifestHandler::endElement(const QString&, const QString&, const QString&)
{
    --depth;
    return true;
}

bool DlrManifestHandler::characters(const QString& ch)
{
    if (manifest.isEmpty()) {
        // The success page may be named before any offer; offer fields may not.
        if (currentField == NoField || currentField == SuccessUrlField)
            return true;
        qDebug() << "Unexpected empty manifest cdata found";
        return false;
    }

    // Only the first piece of text after a start tag counts, so an empty
    // element takes the white space that follows it.
    DlrManifestElement& offer = manifest.last();
    switch (currentField) {
    case NoField:
        break;
    case NameField:
        offer.Name = ch;
        break;
    case BuildIdField:
        offer.BuildID = ch;
        break;
    case SimpleNameField:
        offer.SimpleName = ch;
        break;
    case DownloadUrlField:
        offer.DownloadURL = QUrl(ch, QUrl::TolerantMode);
        break;
    case FileSizeField: {
        bool ok = false;
        const qint64 size = ch.toLongLong(&ok, 10);
        // 0 stands for unknown: a negative size would lower the space needed.
        offer.FileSize = ok && size > 0 ? size : 0;
        break;
    }
    case DefaultBehaviorField:
        offer.DefaultBehavior = ch;
        break;
    case VersionMajorField:
        if (!ch.isEmpty())
            offer.version.major = ch;
        break;
    case VersionMinorField:
        if (!ch.isEmpty())
            offer.version.minor = ch;
        break;
    case VersionBetaField:
        if (!ch.isEmpty())
            offer.version.beta = ch.trimmed();
        break;
    case SuccessUrlField:
        successURL = QUrl(ch, QUrl::TolerantMode);
        break;
    }
    currentField = NoField;
    return true;
}

bool DlrManifestHandler::fatalError(const QXmlParseException& exception)
{
    qWarning() << "Fatal error on line" << exception.lineNumber() << ", column" << exception.columnNumber()
               << ":" << exception.message();
    return false;
}

bool DlrReadManifest(QXmlInputSource& source, QList<DlrManifestElement>& offers, QUrl& successURL)
{
    QXmlSimpleReader reader;
    DlrManifestHandler handler(offers, successURL);
    reader.setContentHandler(&handler);
    reader.setErrorHandler(&handler);
    return reader.parse(source);
}

bool DlrReadManifest(const QByteArray& document, QList<DlrManifestElement>& offers, QUrl& successURL)
{
    QXmlInputSource source;
    source.setData(document);
    return DlrReadManifest(source, offers, successURL);
}

bool DlrManifestHandler::Parse(QList<DlrManifestElement>& manifest, QXmlInputSource& source)
{
    return DlrReadManifest(source, manifest, dlrApp()->successURL);
}

bool DlrManifestHandler::Parse(QList<DlrManifestElement>& manifest, const QByteArray& document)
{
    return DlrReadManifest(document, manifest, dlrApp()->successURL);
}

bool DlrManifestHandler::ParseFile(QList<DlrManifestElement>& manifest, const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    QXmlInputSource source(&file);
    return Parse(manifest, source);
}
