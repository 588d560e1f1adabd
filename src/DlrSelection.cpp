#include "DlrSelection.h"

#include "DlrApp.h"
#include "DlrExitStatus.h"
#include "DlrHumanBytes.h"
#include "DlrMachineAssay.h"
#include "DlrFreeSpace.h"

#include <QCheckBox>
#include <QDebug>
#include <QListWidget>
#include <QMessageBox>
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
    connect(showAll, &QCheckBox::clicked, this, &DlrSelection::buildList);

    connect(dlrApp(), &DlrApp::validManifestReply, this, &DlrSelection::validManifest);
    connect(dlrApp(), &DlrApp::invalidManifestReply, this, &DlrSelection::invalidManifest);
}

void DlrSelection::initializePage()
{
    qDebug() << "Selection";
    assayDone = false;
    manifestReady = false;
    // Each visit starts from nothing: no rows or ticks of an earlier
    // manifest, and "Show All" only once there is something to show.
    productList->clear();
    showAll->setChecked(false);
    showAll->setEnabled(false);

    qDebug() << "Doing assay...";
    dlrApp()->DoAssay();
    inspectAssay();
}

void DlrSelection::inspectAssay()
{
    qDebug() << "Assay completed";
    assayDone = true;
    emit completeChanged();

    DlrApp* app = dlrApp();
    app->RequestManifest(app->GetURL(ManifestLocation), app->user, app->pass, QStringLiteral("osx"));
}

bool DlrSelection::isComplete() const
{
    return assayDone && manifestReady;
}

void DlrSelection::invalidManifest(const QString& reason)
{
    QMessageBox box(QMessageBox::Critical, QString(), QStringLiteral("Could not get a product list from Oktavo"),
                    QMessageBox::Ok, this);
    box.setDefaultButton(QMessageBox::Ok);
    box.setInformativeText(reason);
    // The reason alone does not tell a refused connection from a bad reply.
    box.setDetailedText(dlrApp()->manifestNetworkError);
    box.exec();
    QCoreApplication::exit(DlrExitNoProductList);
}

void DlrSelection::validManifest()
{
    chosenIndices.clear();
    hiddenIndices.clear();
    dlrApp()->downloadIndices.clear();

    QString reason;
    DlrMachineAssay* assay = dlrApp()->assay;
    if (assay && assay->FindMachineProperty(DlrAttrCannotInstallReason, reason)) {
        QMessageBox box(QMessageBox::Critical, QString(),
                        QStringLiteral("Cannot complete the installation on this machine"),
                        QMessageBox::Ok | QMessageBox::Cancel, this);
        box.setDefaultButton(QMessageBox::Cancel);
        box.setInformativeText(reason + QStringLiteral(" Press OK to conitue download only or Cancel to exit this application"));
        if (box.exec() != QMessageBox::Ok) {
            QCoreApplication::exit(DlrExitGaveUp);
            return;
        }
    }

    chooseDownloads();
    qDebug() << "Chose" << chosenIndices.size() << "to download";
    qDebug() << "There are " << hiddenIndices.size() << "hidden";

    buildList(false);
    showAll->setEnabled(true);
    manifestReady = true;
    emit completeChanged();
}

void DlrSelection::buildList(bool includeHidden)
{
    // Ticks follow the row, so the rows that stay keep what the user set.
    QList<bool> ticked;
    for (int row = 0; row < productList->count(); ++row)
        ticked << (productList->item(row)->checkState() == Qt::Checked);
    productList->clear();

    QList<qint32> shown = chosenIndices;
    if (includeHidden)
        shown += hiddenIndices;
    QStringList text;
    for (qint32 index : qAsConst(shown))
        text << QString::number(index);
    qDebug() << "building a list with" << text.join(QStringLiteral(", "));

    // Rows measured before the style sheet applies come out cramped.
    productList->ensurePolished();
    DlrApp* app = dlrApp();
    for (int row = 0; row < shown.size(); ++row) {
        const qint32 index = shown.at(row);
        if (index < 0 || index >= app->manifest.size()) {
            qCritical() << "internal error building selection list";
            return;
        }
        const DlrManifestElement& offer = app->manifest.at(index);
        qDebug() << "Adding " << offer.Name << "with label " << offer.matchName();
        auto* item = new QListWidgetItem(offer.matchName(), productList);
        const bool tick = row < ticked.size() ? ticked.at(row) : row < chosenIndices.size();
        item->setCheckState(tick ? Qt::Checked : Qt::Unchecked);
        app->CheckForDownload(index);
    }
}

bool DlrSelection::isProductEnabled(int row)
{
    QListWidgetItem* item = productList->item(row);
    if (!item) {
        qDebug() << "Failed getting checkbox from table";
        return false;
    }
    return item->checkState() == Qt::Checked;
}

bool DlrSelection::validatePage()
{
    DlrApp* app = dlrApp();

    // Row r stands for entry r of the chosen offers followed by the hidden
    // ones; hidden offers count only while they are listed.
    const QList<qint32> displayed = chosenIndices + hiddenIndices;
    QList<int> picked;
    for (int row = 0; row < displayed.size(); ++row) {
        if (row >= chosenIndices.size() && row >= productList->count())
            break;
        if (!isProductEnabled(row))
            continue;
        const qint32 index = displayed.at(row);
        if (index < 0 || index >= app->manifest.size()) {
            qDebug() << "manifest index out of range" << index << "from selection" << row;
            return false;
        }
        picked << index;
    }

    if (picked.isEmpty()) {
        QMessageBox box(QMessageBox::Critical, QString(), QStringLiteral("There were no products to install"),
                        QMessageBox::Ok, this);
        box.exec();
        QCoreApplication::exit(DlrExitNormal);
        return false;
    }

    const DlrFreeSpace space = DlrMeasureFreeSpace(picked);
    if (!space.Enough()) {
        QMessageBox box(QMessageBox::Critical, QString(), DlrFreeSpace::Shortage(), QMessageBox::Ok, this);
        box.setInformativeText(space.Figures());
        box.exec();
        return false;
    }

    qDebug() << "We have enough space" << DlrHumanBytes(space.available) << "to continue. Needed"
             << DlrHumanBytes(space.needed);
    app->downloadIndices = picked;
    return true;
}
