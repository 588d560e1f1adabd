#pragma once

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
    QListWidget* productList = nullptr; // owned through the page's layout
    QCheckBox* showAll = nullptr;
};
