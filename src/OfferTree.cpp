#include "OfferTree.h"

#include "DlrManifestElement.h"

#include <QDebug>

#include <algorithm>

namespace {

// Plain text order, highest first.
QStringList descending(QStringList keys)
{
    std::sort(keys.begin(), keys.end());
    std::reverse(keys.begin(), keys.end());
    return keys;
}

} // namespace

void OfferTree::InsertOffer(DlrManifestElement* offer)
{
    offer->GetVersion();
    versions[offer->GetMajorVersion().major][offer->BuildID].append(offer);
}

QStringList OfferTree::GetVersions() const
{
    return descending(versions.keys());
}

QString OfferTree::GetHighestVersion() const
{
    return GetVersions().value(0);
}

QStringList OfferTree::GetBuildsForVersion(const QString& version) const
{
    return descending(versions.value(version).keys());
}

QString OfferTree::GetHighestBuildForVersion(const QString& version) const
{
    return GetBuildsForVersion(version).value(0);
}

QList<DlrManifestElement*> OfferTree::GetOffersForBuild(const QString& version, const QString& build) const
{
    return GetOffersForBuild(versions.value(version), build);
}

QList<DlrManifestElement*> OfferTree::GetOffersForBuild(const BuildMap& builds, const QString& build)
{
    return builds.value(build);
}

OfferTree::BuildMap OfferTree::operator[](const QString& version) const
{
    return versions.value(version);
}

void OfferTree::DebugPrint() const
{
    for (const QString& version : GetVersions()) {
        qDebug() << " v" << version;
        const BuildMap builds = versions.value(version);
        for (const QString& build : GetBuildsForVersion(version)) {
            qDebug() << "  \\_ " << build;
            for (const DlrManifestElement* offer : builds.value(build))
                qDebug() << "      \\_ " << offer->Name;
        }
    }
}
