#include "DlrFinished.h"

#include "DlrApp.h"

#include <QDebug>
#include <QDesktopServices>
#include <QHBoxLayout>
#include <QLabel>
#include <QVBoxLayout>

DlrFinished::DlrFinished(QWidget* parent)
    : QWizardPage(parent)
{
    setSubTitle(tr(" "));
    setPixmap(QWizard::BannerPixmap, dlrApp()->LoadPixmapResource("finishedBanner.png"));

    auto* column = new QVBoxLayout(this);
    auto* row = new QHBoxLayout;
    auto* artwork = new QLabel(this);
    artwork->setObjectName(QStringLiteral("finishArtwork"));
    artwork->setPixmap(dlrApp()->LoadPixmapResource("finish-1.png"));
    row->addStretch();
    row->addWidget(artwork);
    row->addStretch();
    column->addLayout(row);
}

void DlrFinished::initializePage()
{
    wizard()->setButtonLayout({QWizard::Stretch, QWizard::FinishButton});
    qDebug() << "Finished!";
}

bool DlrFinished::validatePage()
{
    // The manifest names the page; only a web page is handed to the
    // desktop's opener, which would as readily run a file: or smb: address.
    const QUrl& named = dlrApp()->successURL;
    // Whether a browser could be started does not matter: the run is over.
    QDesktopServices::openUrl(DlrApp::IsWebAddress(named) ? named : DlrApp::DefaultSuccessURL());
    return true;
}
