#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QVariant>

// The top-level keys of an INI settings file (those before any section and
// in [General]) with their values, as QSettings reads them: the same lines,
// comments, quotes, escapes and comma lists, text as Latin-1. But for one
// thing: a value in one of Qt's binary encodings (@Variant, @DateTime,
// @Rect, @Size, @Point, @Invalid) is not decoded and reads as no value,
// since decoding builds whatever type its bytes name, and some types' readers
// do not survive hostile bytes.
QHash<QString, QVariant> DlrReadIniTopLevel(const QByteArray& data);
