#pragma once

#include <QList>
#include <QWizardPage>

class QCheckBox;
class QListWidget;

// Second page: the products on offer for this machine, with tick boxes.
class DlrSelection : public QWizardPage
{
    Q_OBJECT

public:
    explicit DlrSelection(QWidget* parent);

private:
    bool assayDone = false;
    bool manifestReady = false;
    QListWidget* productList = nullptr; // owned through the page's layout
    QCheckBox* showAll = nullptr;
    QList<int> chosenIndices;
    QList<int> hiddenIndices;
};
