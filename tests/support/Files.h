#pragma once

// Whole-file reads and writes for the suites' fixtures and checks.

#include <QDir>
#include <QFile>
#include <QFileInfo>

// The file's bytes; empty when it cannot be read.
inline QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Writes `bytes` to `path`, making the folders on the way.
inline bool writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return QDir().mkpath(QFileInfo(path).path()) && file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}
