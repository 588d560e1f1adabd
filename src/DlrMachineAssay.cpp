#include "DlrMachineAssay.h"

QString DlrMachineAssay::GetUserDownloadPath()
{
    return QDir(QDir::homePath()).absolutePath() + QStringLiteral("/Downloads");
}
