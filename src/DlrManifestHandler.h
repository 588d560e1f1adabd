#pragma once

#include "DlrManifestElement.h"

#include <QList>
#include <QtGlobal>

// The SAX classes are deprecated in Qt 5.15 but are what this reader is
// built on; the warning is silenced for this header only.
QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED
#include <QXmlDefaultHandler>

// Turns a manifest document into offers appended to a list: each
// ProductInfo starts an offer, and field elements fill the latest one; a
// DLRSuccessURL after the first offer names the success page.
class DlrManifestHandler : public QXmlDefaultHandler
{
public:
    DlrManifestHandler(QList<DlrManifestElement>& manifest, QUrl& successURL);
    ~DlrManifestHandler() override;

    bool startElement(const QString& namespaceURI, const QString& localName, const QString& qName,
                      const QXmlAttributes& atts) override;
    bool endElement(const QString& namespaceURI, const QString& localName, const QString& qName) override;
    bool characters(const QString& ch) override;
    bool fatalError(const QXmlParseException& exception) override;

    // Reads one document into the list (never clearing it), the success
    // page into the application object's; true when the whole document was
    // read.
    static bool Parse(QList<DlrManifestElement>& manifest, QXmlInputSource& source);
    static bool Parse(QList<DlrManifestElement>& manifest, const QByteArray& document);
    static bool ParseFile(QList<DlrManifestElement>& manifest, const QString& path);

private:
    enum Field {
        NoField = 0,
        NameField,
        BuildIdField,
        SimpleNameField,
        DownloadUrlField,
        FileSizeField,
        DefaultBehaviorField,
        VersionMajorField,
        VersionMinorField,
        VersionBetaField,
        SuccessUrlField,
    };

    QList<DlrManifestElement>& manifest;
    QUrl& successURL;
    Field currentField = NoField;
    int depth = 0; // elements open
};

// One document read into `offers` (appended, never cleared) and
// `successURL` (set only when the document names the page), without the
// application object. True when the whole document was read.
bool DlrReadManifest(QXmlInputSource& source, QList<DlrManifestElement>& offers, QUrl& successURL);
bool DlrReadManifest(const QByteArray& document, QList<DlrManifestElement>& offers, QUrl& successURL);

QT_WARNING_POP
