#pragma once

#include <QWizardPage>

// Last page: artwork and a Finish button that opens the success page.
class DlrFinished : public QWizardPage
{
    Q_OBJECT

public:
    explicit DlrFinished(QWidget* parent);

    void initializePage() override;
    bool validatePage() override;
};
