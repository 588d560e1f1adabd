#include "DlrMainWindow.h"

#include "DlrApp.h"
#include "DlrDownload.h"
#include "DlrFinished.h"
#include "DlrLogin.h"
#include "DlrSelection.h"

DlrMainWindow::DlrMainWindow()
    : QWizard(nullptr)
{
    setWindowTitle(QStringLiteral("Velluma Installer"));
    setWizardStyle(QWizard::ModernStyle);
    setPixmap(QWizard::BannerPixmap, dlrApp()->LoadPixmapResource("banner.png"));

    // addPage hands each page to the wizard, which deletes it.
    addPage(new DlrLogin(this));
    addPage(new DlrSelection(this));
    addPage(new DlrDownload(this));
    addPage(new DlrFinished(this));

    setButtonLayout({QWizard::Stretch, QWizard::BackButton, QWizard::NextButton,
                     QWizard::FinishButton});
}

DlrMainWindow::~DlrMainWindow() = default;

QSize DlrMainWindow::sizeHint() const
{
    return QSize(800, 400);
}
