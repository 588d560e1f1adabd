#pragma once

#include "DlrMachineAssay.h"

#include <QXmlDefaultHandler>

// Reads the system profiler's property list as it streams past and keeps
// two facts: the physical memory (as DlrAttrMemory) and one "Maya" record
// per Maya installation in the install history. It looks only at the tag
// just opened and the text after it; the nesting is counted only to see
// where the document ends.
class kelProfileHandler : public QXmlDefaultHandler
{
public:
    // Both tables belong to the assay; this handler only adds to them.
    kelProfileHandler(QList<AssayedProduct>& products, QHash<DlrAttrNames, QString>& properties);
    ~kelProfileHandler() override;

    bool startElement(const QString& namespaceURI, const QString& localName, const QString& qName,
                      const QXmlAttributes& attributes) override;
    bool endElement(const QString& namespaceURI, const QString& localName, const QString& qName) override;
    bool characters(const QString& text) override;
    bool fatalError(const QXmlParseException& exception) override;

    // The root element has closed: nothing after it can add a fact, so
    // there is nothing more to wait for.
    bool DocumentEnded() const { return ended; }

private:
    enum State {
        Idle = 0,
        KeyOpened = 1,    // the next text is a key name
        MemoryValue = 2,  // the key was "physical_memory"
        ItemName = 3,     // the key was "_name"
    };

    QList<AssayedProduct>& products;
    QHash<DlrAttrNames, QString>& properties;
    int state = Idle;
    int depth = 0; // elements open
    bool ended = false;
};
