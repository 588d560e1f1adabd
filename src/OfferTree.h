#pragma once

#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

class DlrManifestElement;

// The offers of one manifest grouped by major version and build, so the
// selection rules can ask for the newest version, its newest build and the
// offers of that build. Keys compare as text, and "highest" means last in
// text order. The tree points into the application's manifest list and
// never owns the offers.
class OfferTree
{
public:
    using BuildMap = QMap<QString, QList<DlrManifestElement*>>;

    void InsertOffer(DlrManifestElement* offer);

    // Newest first. The Highest lookups give an empty text when there is
    // nothing to choose from.
    QStringList GetVersions() const;
    QString GetHighestVersion() const;
    QStringList GetBuildsForVersion(const QString& version) const;
    QString GetHighestBuildForVersion(const QString& version) const;

    QList<DlrManifestElement*> GetOffersForBuild(const QString& version, const QString& build) const;
    static QList<DlrManifestElement*> GetOffersForBuild(const BuildMap& builds, const QString& build);

    BuildMap operator[](const QString& version) const;

    void DebugPrint() const;

private:
    QMap<QString, BuildMap> versions;
};
