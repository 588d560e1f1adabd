#include "DlrDownload.h"

#include "DlrApp.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QVBoxLayout>

DlrDownload::DlrDownload(QWidget* parent)
    : QWizardPage(parent)
{
    auto* column = new QVBoxLayout(this);

    auto* row = new QHBoxLayout;
    artwork = new QLabel(this);
    artwork->setObjectName(QStringLiteral("downloadArtwork"));
    row->addStretch();
    row->addWidget(artwork);
    row->addStretch();
    column->addLayout(row);

    // Each product owns an equal share of the bar: the first half for its
    // download, the second for its installation.
    progressBar = new QProgressBar(this);
    progressBar->setMinimum(0);
    progressBar->setMaximum(1000);
    column->addWidget(progressBar);

    status = new QLabel(QStringLiteral("Download/Installing"), this);
    status->setObjectName(QStringLiteral("downloadStatus"));
    column->addWidget(status);

    amount = new QLabel(this);
    amount->setObjectName(QStringLiteral("downloadAmount"));
    column->addWidget(amount);

    artwork->setPixmap(nextWUWPixmap());

    setSubTitle(tr(" "));
    setPixmap(QWizard::BannerPixmap, dlrApp()->LoadPixmapResource("downloadBanner.png"));
}

QPixmap DlrDownload::nextWUWPixmap()
{
    const DlrApp* app = dlrApp();
    QPixmap picture;
    do {
        const QByteArray name = QStringLiteral("whileUWait-%1.png").arg(whileUWaitIndex).toLatin1();
        picture = app->LoadPixmapResource(name.constData());
        ++whileUWaitIndex;
    } while (picture.isNull() && whileUWaitIndex < 20);

    if (!picture.isNull())
        return picture;
    whileUWaitIndex = 2;
    return app->LoadPixmapResource("whileUWait-1.png");
}
