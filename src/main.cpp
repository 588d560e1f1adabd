#include "DlrApp.h"
#include "DlrLog.h"
#include "DlrUnattended.h"

int main(int argc, char** argv)
{
    DlrPrepareHeadless(argc, argv);
    DlrApp app(argc, argv);
    DlrInitializeLogging();
    if (app.Start())
        return 1;
    return app.exec();
}
