// The assay object: where it looks, and the questions the selection rules
// ask it afterwards. The survey itself is in DlrOSXAssay.cpp.

#include "DlrMachineAssay.h"

#include "DlrPlatform.h"

#include <QDebug>
#include <QRegExp>

#include <algorithm>

DlrMachineAssay* DlrMachineAssay::s_assay = nullptr;

DlrMachineAssay* DlrMachineAssay::Singleton()
{
    // Lives until the process ends: pages keep pointers to it.
    if (!s_assay)
        s_assay = new DlrMachineAssay;
    return s_assay;
}

DlrMachineAssay::DlrMachineAssay()
{
    setupPossibleLocations();
    buildIdFilePath = QStringLiteral("etc/buildid.txt");

    // A developer's tree named by VLUMTREE or VWSTREE is an installation
    // folder; the folder holding it is searched like the product root.
    for (const char* variable : {"VLUMTREE", "VWSTREE"}) {
        if (!qEnvironmentVariableIsSet(variable))
            continue;
        const QString value = QString::fromUtf8(qgetenv(variable));
        qDebug().noquote() << QStringLiteral("found %1 set at").arg(QLatin1String(variable)) << value;
        QDir root(value);
        root.cdUp();
        if (root.exists() && !possibleLocations.contains(root.absolutePath(), Qt::CaseSensitive))
            possibleLocations << root.absolutePath();
    }
}

void DlrMachineAssay::setupPossibleLocations()
{
    vlrenderPath = QStringLiteral("bin/vlrender");
    vwsVlrenderPath = QStringLiteral("vlumtree/bin/vlrender");
    mayaPluginPath = QStringLiteral("plug-ins/Velluma_for_Maya.bundle");
    homeQueuePath = QStringLiteral("bin/HomeQueue.app/Contents/MacOS/HomeQueue");
    possibleLocations << QDir(DlrPlatform::ProductRoot()).absolutePath();
}

bool DlrMachineAssay::FindMachineProperty(DlrAttrNames name, QString& value) const
{
    const auto found = properties.constFind(name);
    if (found == properties.constEnd())
        return false;
    value = found.value();
    return true;
}

bool DlrMachineAssay::FindMachineProperty(DlrAttrNames name, int& value) const
{
    QString text;
    if (!FindMachineProperty(name, text))
        return false;
    bool ok = false;
    const int number = text.toInt(&ok, 10);
    if (!ok)
        return false;
    value = number;
    return true;
}

void DlrMachineAssay::GetProducts(const QString& name, QList<AssayedProduct>& list) const
{
    list.clear();
    for (const AssayedProduct& product : products) {
        if (product.value(QStringLiteral("ProductName")) == name)
            list << product;
    }
    // Versions compare as decimal fractions, so 2016.5 lies between 2016
    // and 2017; an unreadable version counts as 0.
    std::sort(list.begin(), list.end(), [](const AssayedProduct& a, const AssayedProduct& b) {
        return b.value(QStringLiteral("Version")).toFloat() < a.value(QStringLiteral("Version")).toFloat();
    });
}

QList<AssayedProduct> DlrMachineAssay::FindAssayedProductByVersion(const QString& namePattern,
                                                                   const QString& versionPattern) const
{
    const QRegExp name(namePattern, Qt::CaseSensitive, QRegExp::RegExp);
    const QRegExp version(versionPattern, Qt::CaseSensitive, QRegExp::RegExp);
    QList<AssayedProduct> found;
    for (const AssayedProduct& product : products) {
        if (name.indexIn(product.value(QStringLiteral("ProductName"))) >= 0
            && version.indexIn(product.value(QStringLiteral("Version"))) >= 0)
            found << product;
    }
    return found;
}

bool DlrMachineAssay::FindHighestBuildOfProduct(const QString& namePattern, const QString& version,
                                                AssayedProduct& product) const
{
    const QRegExp name(namePattern, Qt::CaseSensitive, QRegExp::RegExp);
    int best = -1;
    int bestBuildId = 0;
    for (int i = 0; i < products.size(); ++i) {
        const AssayedProduct& candidate = products.at(i);
        if (name.indexIn(candidate.value(QStringLiteral("ProductName"))) < 0)
            continue;
        if (!version.isEmpty() && candidate.value(QStringLiteral("Version")) != version)
            continue;
        bool ok = false;
        const int buildId = candidate.value(QStringLiteral("BuildId")).toInt(&ok, 10);
        // Strictly greater: the first of equal builds wins, and 0 never does.
        if (ok && buildId > bestBuildId) {
            bestBuildId = buildId;
            best = i;
        }
    }
    if (best < 0)
        return false;
    product = products.at(best);
    return true;
}

void DlrMachineAssay::GetBuildId(const AssayedProduct& product, int& buildId)
{
    buildId = product.value(QStringLiteral("BuildId")).toInt(nullptr, 10);
}

void DlrMachineAssay::GetEnv(const QString& name, QString& value, const QString* defaultValue, bool* found)
{
    const QByteArray key = name.toLocal8Bit();
    const bool exists = qEnvironmentVariableIsSet(key.constData());
    if (found)
        *found = exists;
    if (exists)
        value = QString::fromUtf8(qgetenv(key.constData()));
    else if (defaultValue)
        value = *defaultValue;
}

bool DlrMachineAssay::FindExecutable(const QString& name, QString& path)
{
    QString searchPath;
    GetEnv(QStringLiteral("PATH"), searchPath);
    const QStringList folders = searchPath.split(QLatin1Char(':'), Qt::SkipEmptyParts);
    for (const QString& folder : folders) {
        const QDir dir(folder);
        // Only existence counts: the caller runs it and learns the rest.
        if (dir.exists(name)) {
            path = dir.absoluteFilePath(name);
            return true;
        }
    }
    return false;
}

QString DlrMachineAssay::GetUserDownloadPath()
{
    return QDir(QDir::homePath()).absolutePath() + QStringLiteral("/Downloads");
}
