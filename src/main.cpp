#include "DlrApp.h"
#include "DlrLog.h"

int main(int argc, char** argv)
{
    DlrApp app(argc, argv);
    DlrInitializeLogging();
    if (app.Start())
        return 1;
    return app.exec();
}
