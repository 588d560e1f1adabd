#pragma once

#include <QWizard>

// The only top-level window: the wizard with its four pages, in order
// login, selection, download and finished.
class DlrMainWindow : public QWizard
{
    Q_OBJECT

public:
    enum PageId {
        LoginPage = 0,
        SelectionPage = 1,
        DownloadPage = 2,
        FinishedPage = 3,
    };

    DlrMainWindow();
    ~DlrMainWindow() override;

    QSize sizeHint() const override;
};
