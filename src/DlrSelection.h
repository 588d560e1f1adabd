#pragma once

#include <QList>
#include <QWizardPage>

class DlrManifestElement;
class QCheckBox;
class QListWidget;
struct DlrBridgeHost;

// Second page: surveys the machine, fetches the manifest, decides which
// offers suit this machine and lets the user confirm them with tick boxes.
class DlrSelection : public QWizardPage
{
    Q_OBJECT

public:
    enum SelectionDecision {
        Selected,        // appended to chosenIndices
        NotSelected,     // no reason to select it
        AlreadyInstalled // this exact build is on the machine
    };

    explicit DlrSelection(QWidget* parent);

    void initializePage() override;
    bool isComplete() const override;
    bool validatePage() override;

    bool isProductEnabled(int row);

    // The selection rules: they read the manifest list and the assay and
    // fill chosenIndices and hiddenIndices; reasons go to the debug log.
    void chooseDownloads();
    void SelectApplicableOffers(const QList<DlrManifestElement*>& offers);
    SelectionDecision AttemptSelectVCSFromOffers(const QList<DlrManifestElement*>& offers);
    SelectionDecision AttemptSelectVfMFromOffer(DlrManifestElement* offer, const QString& bridgeVer);
    SelectionDecision AttemptSelectVfKFromOffer(DlrManifestElement* offer, const QString& bridgeVer);

    bool assayDone = false;
    bool manifestReady = false;
    // Manifest indices: chosen ones are listed ticked, hidden ones only
    // under "Show All"; an offer in neither is not offered at all.
    QList<qint32> chosenIndices;
    QList<qint32> hiddenIndices;

public slots:
    void inspectAssay();
    void invalidManifest(const QString& reason);
    void validManifest();
    void buildList(bool includeHidden);

private:
    SelectionDecision attemptSelectBridge(DlrManifestElement* offer, const QString& bridgeVer,
                                          const DlrBridgeHost& host);
    // The offer's position in the manifest list, or -1.
    static int manifestIndexOf(const DlrManifestElement* offer);

    QListWidget* productList = nullptr; // owned through the page's layout
    QCheckBox* showAll = nullptr;
};
