#pragma once

// The demo catalog (tools/make-demo-catalog, signed with the build's demo
// key) served by a test's vendor server: the names its three offers for a
// machine with Maya 2018 carry, and its manifest with replacements made.

#include "ChildRun.h"
#include "VendorServer.h"

#include <QDir>
#include <QFile>
#include <QList>
#include <QPair>

namespace DemoCatalog {

const QString kCore = QStringLiteral("Velluma-CoreServer-22.0.1234.pkg");
const QString kBridge = QStringLiteral("VellumaForMaya-22.0-maya2018_1234.pkg");
const QString kScenes = QStringLiteral("VellumaSampleScenes-22.0_1234.pkg");

// Where each of them lands on the machine.
const QString kCoreFolder = QStringLiteral("Velluma CoreServer 22.0");
const QString kBridgeFolder = QStringLiteral("VellumaForMaya-22.0-maya2018");
const QString kScenesFolder = QStringLiteral("Velluma Sample Scenes 22.0");

using Replacements = QList<QPair<QString, QString>>;

// Builds the catalog into `folder` and puts its packages into the server's
// catalog. Gives the manifest as built, or empty with `error` set.
inline QByteArray load(VendorServer& server, const QString& folder, const QString& work, QByteArray& error)
{
    const ChildRun made = runChild(QStringLiteral(VLUM_SOURCE_DIR "/tools/make-demo-catalog"),
                                   {QStringLiteral("--sign-key"), QStringLiteral(VLUM_DEMO_KEY), folder}, work);
    error = made.err;
    if (made.exitCode != 0)
        return QByteArray();
    const QDir packages(folder + QStringLiteral("/packages"));
    for (const QString& name : packages.entryList(QDir::Files)) {
        if (!QFile::copy(packages.filePath(name), server.catalogPath(QStringLiteral("packages/") + name))) {
            error = "cannot copy " + name.toUtf8();
            return QByteArray();
        }
    }
    QFile manifest(folder + QStringLiteral("/manifest.xml"));
    return manifest.open(QIODevice::ReadOnly) ? manifest.readAll() : QByteArray();
}

// The manifest with each (from, to) replacement made in it.
inline QByteArray edited(QByteArray xml, const Replacements& replacements)
{
    for (const auto& replacement : replacements)
        xml.replace(replacement.first.toUtf8(), replacement.second.toUtf8());
    return xml;
}

} // namespace DemoCatalog
