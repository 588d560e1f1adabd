#pragma once

#include "DlrSelectionRules.h"

#include <QList>
#include <QWizardPage>

class QCheckBox;
class QListWidget;

// Second page: surveys the machine, fetches the manifest, decides which
// offers suit this machine and lets the user confirm them with tick boxes.
class DlrSelection : public QWizardPage, public DlrSelectionRules
{
    Q_OBJECT

public:
    explicit DlrSelection(QWidget* parent);

    void initializePage() override;
    bool isComplete() const override;
    bool validatePage() override;

    bool isProductEnabled(int row);

    bool assayDone = false;
    bool manifestReady = false;

public slots:
    void inspectAssay();
    void invalidManifest(const QString& reason);
    void validManifest();
    void buildList(bool includeHidden);

private:
    QListWidget* productList = nullptr; // owned through the page's layout
    QCheckBox* showAll = nullptr;
};
