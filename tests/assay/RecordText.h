#pragma once

#include "DlrApp.h"
#include "DlrMachineAssay.h"

#include <QStringList>

// One assayed record as a line, for comparing whole records at once:
// name|version|build id|Maya version|location.
inline QString recordText(const AssayedProduct& product)
{
    QStringList fields;
    for (const char* key : {"ProductName", "Version", "BuildId", "MayaVersion", "Location"})
        fields << product.value(QLatin1String(key));
    return fields.join(QLatin1Char('|'));
}

// What a new survey finds, one line a record, with the product root shown as "~".
inline QStringList surveyedRecords(const QString& productRoot)
{
    dlrApp()->DoAssay();
    QStringList records;
    for (const AssayedProduct& product : dlrApp()->assay->FindAssayedProductByVersion(QString(), QString()))
        records << recordText(product).replace(productRoot, QStringLiteral("~"));
    return records;
}
