#include "DlrLog.h"

#include "DlrApp.h"

#include <syslog.h>

#include <cstdlib>

namespace {

// Written on the GUI thread only, before the event loop starts and after it
// ends; the handler reads it from any thread without locking.
bool logActive = false;

} // namespace

void DlrInitializeLogging()
{
    openlog("Velluma Installer", LOG_PID | LOG_PERROR, LOG_USER);
    logActive = true;
    qInstallMessageHandler(DlrLogMessageHandler);
}

void DlrFinalizeLogging()
{
    logActive = false;
}

void DlrLogMessageHandler(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    Q_UNUSED(context)

    if (logActive && (type == QtDebugMsg || type == QtWarningMsg)) {
        const DlrApp* app = dlrApp();
        if (app && static_cast<int>(type) < app->logLevel)
            return;
    }

    const QByteArray text = message.toLocal8Bit();
    switch (type) {
    case QtDebugMsg:
        syslog(LOG_ERR, "Debug: %s\n", text.constData());
        break;
    case QtWarningMsg:
        syslog(LOG_ERR, "Warning: %s\n", text.constData());
        break;
    case QtCriticalMsg:
        syslog(LOG_CRIT, "Critical: %s\n", text.constData());
        break;
    case QtFatalMsg:
        syslog(LOG_ALERT, "Fatal: %s\n", text.constData());
        std::abort();
    case QtInfoMsg:
        syslog(LOG_ERR, "Info: %s\n", text.constData());
        break;
    }
}
