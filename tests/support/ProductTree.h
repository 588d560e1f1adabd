#pragma once

// Builds installed-product folders under a root: banner programs (small
// shell scripts), build-id files and plug-in bundles.

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>

class ProductTree
{
public:
    explicit ProductTree(const QString& root)
        : root(root)
    {
    }

    QString path(const QString& relative) const { return root + QLatin1Char('/') + relative; }

    bool file(const QString& relative, const QByteArray& content,
              QFile::Permissions permissions = QFile::ReadOwner | QFile::WriteOwner)
    {
        QFile out(path(relative));
        return folder(QFileInfo(relative).path()) && out.open(QIODevice::WriteOnly) && out.write(content) == content.size()
            && out.setPermissions(permissions);
    }

    // A program running the given shell commands.
    bool script(const QString& relative, const QByteArray& commands)
    {
        return file(relative, "#!/bin/sh\n" + commands + "\n",
                    QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadOther | QFile::ExeOther);
    }

    // A program printing a version banner on standard error, as the
    // renderer and the queue application do when given -version.
    bool banner(const QString& relative, const QString& version, const QString& buildId)
    {
        return script(relative, "echo 'Velluma " + version.toUtf8() + " (x86_64) linked Nov  5 2019 10:31:07 @"
                                    + buildId.toUtf8() + "' >&2");
    }

    bool folder(const QString& relative) { return QDir().mkpath(path(relative)); }

    // The Maya plug-in bundle that marks a folder as built for Maya.
    bool plugin(const QString& product) { return folder(product + QStringLiteral("/plug-ins/Velluma_for_Maya.bundle")); }

    const QString root;
};
