// Child process for the assay suite: the survey reads its search roots from
// the environment once, when the assay object is made, so every set of
// roots needs a process of its own. Runs the survey as the selection page
// does and prints each record found, in order, as "record <text>".

#include "DlrApp.h"
#include "DlrLog.h"
#include "DlrMachineAssay.h"
#include "RecordText.h"

#include <cstdio>

int main(int argc, char** argv)
{
    DlrApp app(argc, argv);
    DlrInitializeLogging();
    app.DoAssay();
    // Empty patterns match every record.
    for (const AssayedProduct& product : app.assay->FindAssayedProductByVersion(QString(), QString()))
        std::printf("record %s\n", recordText(product).toUtf8().constData());
    return 0;
}
