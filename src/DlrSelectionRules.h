#pragma once

#include <QList>
#include <QString>

class DlrManifestElement;
struct DlrBridgeHost;

// The rules that decide which offers of the manifest suit this machine.
// They read the manifest list and the assay of the application object and
// fill chosenIndices and hiddenIndices; reasons go to the debug log. The
// selection page lists what they decide; the unattended run takes it as is.
class DlrSelectionRules
{
public:
    enum SelectionDecision {
        Selected,        // appended to chosenIndices
        NotSelected,     // no reason to select it
        AlreadyInstalled // this exact build is on the machine
    };

    void chooseDownloads();
    void SelectApplicableOffers(const QList<DlrManifestElement*>& offers);
    SelectionDecision AttemptSelectVCSFromOffers(const QList<DlrManifestElement*>& offers);
    SelectionDecision AttemptSelectVfMFromOffer(DlrManifestElement* offer, const QString& bridgeVer);
    SelectionDecision AttemptSelectVfKFromOffer(DlrManifestElement* offer, const QString& bridgeVer);

    // Manifest indices: chosen ones are listed ticked, hidden ones only
    // under "Show All"; an offer in neither is not offered at all.
    QList<qint32> chosenIndices;
    QList<qint32> hiddenIndices;

private:
    SelectionDecision attemptSelectBridge(DlrManifestElement* offer, const QString& bridgeVer,
                                          const DlrBridgeHost& host);
    // The offer's position in the manifest list, or -1.
    static int manifestIndexOf(const DlrManifestElement* offer);
};

// The free space the packages at `indices` need in the download folder:
// room for each package and for what it installs. An unknown size adds
// nothing, and a sum past what fits stays at the largest need.
qint64 DlrSpaceNeeded(const QList<DlrManifestElement>& manifest, const QList<int>& indices);
