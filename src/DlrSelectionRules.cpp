// The rules that decide which offers of the manifest suit this machine:
// the newest core server, the bridges for host applications that are
// installed, and the rest by what the manifest says about showing them.

#include "DlrSelectionRules.h"

#include "DlrApp.h"
#include "DlrMachineAssay.h"
#include "DlrManifestElement.h"
#include "OfferTree.h"

#include <QDebug>
#include <QRegExp>
#include <QRegularExpression>
#include <QSet>

#include <limits>

// What differs between the host applications a bridge is built for.
struct DlrBridgeHost {
    const char* installedPrefix; // pattern start for an installed bridge's name
    const char* product;         // the host's name in the assay
    const char* noneInstalled;
    const char* agnostic;
    const char* matched;
};

namespace {

const DlrBridgeHost kMaya{"Maya.*", "Maya", "No Mayas present in the assay.",
                          "Found a maya for a maya-agnostic offer",
                          "Found a matching maya version for the offer requesting"};
const DlrBridgeHost kKatana{"Katana.*", "Katana", "No katanas present in the assay.",
                            "Found a katana for a katana-agnostic offer",
                            "Found a matching katana version for the offer requesting"};

// Bridge package names: VellumaFor<host>, then two segments that are each
// a product version (-22.0, -22.0b2) or an optional host version
// (-maya2018), then an optional _<build>- tail.
const QRegularExpression& bridgePattern()
{
    static const QRegularExpression pattern = [] {
        QRegularExpression compiled(
            QStringLiteral("^(?P<product>VellumaFor(?P<bridgeProduct>[A-Za-z]+))"
                           "(?:  (?:    -(?P<vlumVer>\\d+\\.\\d+)    (?P<beta>[A-Za-z0-9]+)?  )"
                           "|(?:    (?:-(?P<bridgeVer>[A-Za-z0-9\\.]+))?  )){2}"
                           "(?:_(?P<buildId>\\d{6,})-)?"),
            QRegularExpression::CaseInsensitiveOption | QRegularExpression::MultilineOption
                | QRegularExpression::ExtendedPatternSyntaxOption);
        // Compiled here, once, rather than on each offer.
        compiled.optimize();
        return compiled;
    }();
    return pattern;
}

DlrMachineAssay* machine()
{
    DlrApp* app = dlrApp();
    return app->assay ? app->assay : DlrMachineAssay::Singleton();
}

} // namespace

int DlrSelectionRules::manifestIndexOf(const DlrManifestElement* offer)
{
    const QList<DlrManifestElement>& manifest = dlrApp()->manifest;
    for (int i = 0; i < manifest.size(); ++i) {
        if (&manifest.at(i) == offer)
            return i;
    }
    return -1;
}

void DlrSelectionRules::chooseDownloads()
{
    QList<DlrManifestElement>& manifest = dlrApp()->manifest;
    OfferTree tree;
    for (DlrManifestElement& offer : manifest) {
        // Its package could not be kept inside the download folder.
        if (!offer.HasPlainName()) {
            qDebug() << "Not listing" << offer.Name << ": not a plain file name";
            continue;
        }
        tree.InsertOffer(&offer);
    }
    tree.DebugPrint();

    // The newest version is always considered; older ones only where a core
    // server of that version is installed and may want an update.
    const QStringList versions = tree.GetVersions();
    for (int n = 0; n < versions.size(); ++n) {
        const QString& version = versions.at(n);
        if (n > 0) {
            qDebug() << "Attempting to find VCS for v" << version;
            const QString pattern = QStringLiteral("^%1\\.\\d+").arg(QRegularExpression::escape(version));
            const int candidates = machine()->FindAssayedProductByVersion(QStringLiteral("CoreServer"), pattern).size();
            qDebug() << "Found " << candidates << " candidates";
            if (candidates == 0)
                continue;
        }
        SelectApplicableOffers(tree.GetOffersForBuild(version, tree.GetHighestBuildForVersion(version)));
    }

    // Everything not chosen above is listed by its DefaultBehavior. Offers
    // added here as "show" come after every automatic choice.
    const QSet<qint32> automatic(chosenIndices.cbegin(), chosenIndices.cend());
    for (int i = 0; i < manifest.size(); ++i) {
        const DlrManifestElement& offer = manifest.at(i);
        if (!offer.DownloadURL.isValid()) {
            qDebug() << "no url for product " << offer.Name;
            continue;
        }
        // An unknown size (0) is listed only when the rules chose the offer.
        if (automatic.contains(i) || offer.FileSize <= 0 || !offer.HasPlainName())
            continue;
        const QString behavior =
            offer.DefaultBehavior.isEmpty() ? QStringLiteral("automatic") : offer.DefaultBehavior;
        const bool knownFamily = offer.GetIsCoreServer() || offer.GetIsVWSForMaya() || offer.GetIsVellumaForMaya()
            || offer.GetIsHarrow();
        if (knownFamily && behavior == QLatin1String("automatic")) {
            qDebug() << offer.matchName() << "is hidden";
            hiddenIndices << i;
        } else if (behavior == QLatin1String("show")) {
            // Spelt as the log has always read (log readers match the texts);
            // the package's lintian overrides answer for them.
            qDebug() << offer.matchName() << "is speficied as shown";
            chosenIndices << i;
        } else {
            qDebug() << offer.matchName() << "is specifed hidden";
            hiddenIndices << i;
        }
    }
}

void DlrSelectionRules::SelectApplicableOffers(const QList<DlrManifestElement*>& offers)
{
    // A bridge is only useful beside the core server of its own build.
    if (AttemptSelectVCSFromOffers(offers) == NotSelected) {
        qDebug() << "Could not install or find a matching VCS -- we can't select any matching bridge products";
        return;
    }
    for (DlrManifestElement* offer : offers) {
        const QRegularExpressionMatch match = bridgePattern().match(offer->Name);
        if (!match.hasMatch())
            continue;
        const QString bridgeProduct = match.captured(QStringLiteral("bridgeProduct"));
        const QString bridgeVer = match.captured(QStringLiteral("bridgeVer"));
        const QString host = bridgeProduct.toLower();
        if (host == QLatin1String("maya"))
            AttemptSelectVfMFromOffer(offer, bridgeVer);
        else if (host == QLatin1String("katana"))
            AttemptSelectVfKFromOffer(offer, bridgeVer);
        else
            qDebug() << "No auto selection handler for" << bridgeProduct;
    }
}

DlrSelectionRules::SelectionDecision DlrSelectionRules::AttemptSelectVCSFromOffers(const QList<DlrManifestElement*>& offers)
{
    DlrManifestElement* server = nullptr;
    for (DlrManifestElement* offer : offers) {
        if (offer->matchName().contains(QLatin1String("CoreServer"))) {
            server = offer;
            break;
        }
    }
    QString version;
    // An unreadable version would match any installed server below.
    if (!server || server->GetVersion(version))
        return NotSelected;

    AssayedProduct installed;
    if (!machine()->FindHighestBuildOfProduct(QStringLiteral("CoreServer"), version, installed)) {
        qDebug() << "Selecting VCS" << version << " none installed";
        chosenIndices << manifestIndexOf(server);
        return Selected;
    }
    int offered = 0;
    int present = 0;
    server->GetBuildId(offered);
    DlrMachineAssay::GetBuildId(installed, present);
    if (offered > present) {
        qDebug() << "Selecting VCS" << version << ", found down-rev buildid."
                 << "manifest had " << offered << "installed" << present;
        chosenIndices << manifestIndexOf(server);
        return Selected;
    }
    if (offered == present) {
        qDebug() << "VCS v" << version << " (" << offered << ") is already installed";
        return AlreadyInstalled;
    }
    qDebug() << "No VCS" << version << "to select, found more recent build installed"
             << "manifest had " << offered << "installed" << present;
    return NotSelected;
}

DlrSelectionRules::SelectionDecision DlrSelectionRules::AttemptSelectVfMFromOffer(DlrManifestElement* offer,
                                                                        const QString& bridgeVer)
{
    return attemptSelectBridge(offer, bridgeVer, kMaya);
}

DlrSelectionRules::SelectionDecision DlrSelectionRules::AttemptSelectVfKFromOffer(DlrManifestElement* offer,
                                                                        const QString& bridgeVer)
{
    return attemptSelectBridge(offer, bridgeVer, kKatana);
}

DlrSelectionRules::SelectionDecision DlrSelectionRules::attemptSelectBridge(DlrManifestElement* offer, const QString& bridgeVer,
                                                                  const DlrBridgeHost& host)
{
    // maya2018 names host version 2018; 2018.5 stays as it is.
    QString hostVersion = bridgeVer;
    const int digits = QRegExp(QStringLiteral("\\d.+(\\.\\d+)?")).indexIn(bridgeVer);
    if (digits >= 0)
        hostVersion = bridgeVer.mid(digits);

    const DlrManifestElement::VersionStruct& version = offer->GetVersion();
    const QString offerVersion = version.major + QLatin1Char('.') + version.minor + version.beta;
    const QString installedPattern =
        QLatin1String(host.installedPrefix) + QString(hostVersion).replace(QLatin1Char('.'), QLatin1String("\\."));

    AssayedProduct installed;
    if (machine()->FindHighestBuildOfProduct(installedPattern, offerVersion, installed)) {
        int offered = 0;
        int present = 0;
        offer->GetBuildId(offered);
        DlrMachineAssay::GetBuildId(installed, present);
        if (offered == present) {
            qDebug() << "Offer already installed";
            return AlreadyInstalled;
        }
    }

    QList<AssayedProduct> hosts;
    machine()->GetProducts(QLatin1String(host.product), hosts);
    if (hosts.isEmpty()) {
        qDebug() << host.noneInstalled;
        return NotSelected;
    }
    if (hostVersion.isEmpty()) {
        chosenIndices << manifestIndexOf(offer);
        qDebug() << host.agnostic;
        return Selected;
    }
    for (const AssayedProduct& candidate : qAsConst(hosts)) {
        if (candidate.value(QStringLiteral("Version")) == hostVersion) {
            chosenIndices << manifestIndexOf(offer);
            qDebug() << host.matched << bridgeVer;
            return Selected;
        }
    }
    return NotSelected;
}

qint64 DlrSpaceNeeded(const QList<DlrManifestElement>& manifest, const QList<int>& indices)
{
    qint64 needed = 0;
    for (int index : indices) {
        const qint64 size = qMax<qint64>(0, manifest.at(index).FileSize);
        if (__builtin_add_overflow(needed, size, &needed) || __builtin_add_overflow(needed, size, &needed))
            return std::numeric_limits<qint64>::max();
    }
    return needed;
}
