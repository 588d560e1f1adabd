#include "DlrSelection.h"

#include "DlrApp.h"

#include <QCheckBox>
#include <QListWidget>
#include <QVBoxLayout>

DlrSelection::DlrSelection(QWidget* parent)
    : QWizardPage(parent)
{
    setSubTitle(tr(" "));
    setPixmap(QWizard::BannerPixmap, dlrApp()->LoadPixmapResource("selectionBanner.png"));

    auto* column = new QVBoxLayout(this);
    productList = new QListWidget(this);
    productList->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    column->addWidget(productList);

    showAll = new QCheckBox(QStringLiteral("Show All"), this);
    showAll->setObjectName(QStringLiteral("showAll"));
    column->addWidget(showAll);
}
