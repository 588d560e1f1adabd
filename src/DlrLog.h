#pragma once

#include <QString>
#include <QtGlobal>

// Every diagnostic goes to the system log (ident "Velluma Installer", copied
// to standard error). Debug and warning lines are dropped unless the
// application object asks for debug logging.
void DlrInitializeLogging();

// Called first thing in the application object's destructor: from here on
// the handler no longer asks it for its level and writes everything.
void DlrFinalizeLogging();

void DlrLogMessageHandler(QtMsgType type, const QMessageLogContext& context, const QString& message);
