#include "DlrFreeSpace.h"

#include "DlrApp.h"
#include "DlrHumanBytes.h"
#include "DlrMachineAssay.h"
#include "DlrSelectionRules.h"

#include <QDir>

QString DlrFreeSpace::Shortage()
{
    return QStringLiteral("You do not have enough free disk space to download the selected products");
}

QString DlrFreeSpace::Figures() const
{
    return QStringLiteral("Needed %1 for selected downloads. There is %2 of available space on %3")
        .arg(DlrHumanBytes(needed), DlrHumanBytes(available), folder);
}

DlrFreeSpace DlrMeasureFreeSpace(const QList<int>& indices)
{
    DlrApp* app = dlrApp();
    const QDir* folder = app->GetDownloadDir();
    DlrFreeSpace space;
    space.needed = DlrSpaceNeeded(app->manifest, indices);
    space.available = DlrMachineAssay::GetAvailableDisk(*folder);
    space.folder = folder->absolutePath();
    return space;
}
