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
    // Whether a browser could be started does not matter: the run is over.
    QDesktopServices::openUrl(dlrApp()->successURL);
    return true;
}
