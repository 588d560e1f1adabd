#pragma once

#include "DlrMachineAssay.h"

#include <QByteArray>
#include <QHash>
#include <QList>

#include <functional>

// The facts of the system profiler's property list: the physical memory (as
// DlrAttrMemory) and one "Maya" record per Maya installation.
struct DlrProfileFacts {
    QHash<DlrAttrNames, QString> properties;
    QList<AssayedProduct> products;
    bool complete = false; // the whole document was read
};

// Reads the document as it arrives: `next` gives the next piece of output,
// cut anywhere (inside a character too), and an empty piece at the end.
// What came before a fault in the document is kept.
DlrProfileFacts DlrReadProfile(const std::function<QByteArray()>& next);
