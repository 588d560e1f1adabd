#pragma once

// For suites that drive the real wizard in this process: point the
// application at a local vendor server, run its own event loop until
// something ends it, and watch its log lines as they are written.

#include "VendorServer.h"

#include "DlrApp.h"
#include "DlrMainWindow.h"
#include "DlrSelection.h"

#include <QNetworkAccessManager>
#include <QStringList>
#include <QTimer>
#include <QtTest>

#include <algorithm>
#include <functional>

namespace WizardDriver {

inline void useServer(const VendorServer& server)
{
    DlrApp* app = dlrApp();
    app->alternateManifestFile.clear();
    app->manifestServerScheme = QStringLiteral("https");
    app->manifestServer = QStringLiteral("127.0.0.1:%1").arg(server.port);
    app->manifestUrl = QStringLiteral("forum/currentproducts.php");
    if (app->networkManager)
        app->networkManager->clearConnectionCache();
    app->sslErrorsAccepted = false;
}

// Runs the application's own event loop, starting with `action`, and gives
// the code the run ended with (99: nothing ended it in time). Calling
// QCoreApplication::exit with no loop running would break every later
// nested loop of the process, so exits are always taken here.
inline int runUntilExit(const std::function<void()>& action, int guardMs = 30000)
{
    QObject guard; // its timer goes with it
    QTimer::singleShot(guardMs, &guard, [] { QCoreApplication::exit(99); });
    QTimer::singleShot(0, action);
    return dlrApp()->exec();
}

// A fresh wizard, walked as a user would: login, then the selection page
// until the survey and the product list have filled it.
inline void enterSelection(QScopedPointer<DlrMainWindow>& window)
{
    window.reset(new DlrMainWindow);
    window->show();
    window->next();
    auto* selection = qobject_cast<DlrSelection*>(window->page(DlrMainWindow::SelectionPage));
    QTRY_VERIFY_WITH_TIMEOUT(selection->isComplete(), 20000);
}

// The same walk, then Next, which starts the downloads and installations.
inline void enterDownloads(QScopedPointer<DlrMainWindow>& window)
{
    enterSelection(window);
    window->next();
    // A run with nothing left to fetch or install ends on entering the page.
    QVERIFY(window->currentId() >= int(DlrMainWindow::DownloadPage));
}

} // namespace WizardDriver

// Records every log message while it lives and passes each one on. A
// `tap` sees each message as it is written, while the code that wrote it
// is still running: the moment to look at what the user sees.
class LogWatch
{
public:
    LogWatch()
    {
        current = this;
        previous = qInstallMessageHandler(record);
    }
    ~LogWatch()
    {
        qInstallMessageHandler(previous);
        current = nullptr;
    }
    Q_DISABLE_COPY(LogWatch)

    bool contains(const QString& start) const
    {
        return std::any_of(lines.cbegin(), lines.cend(), [&start](const QString& line) { return line.startsWith(start); });
    }

    QStringList lines;
    std::function<void(const QString&)> tap;

private:
    static void record(QtMsgType type, const QMessageLogContext& context, const QString& message)
    {
        if (current) {
            current->lines << message;
            if (current->tap)
                current->tap(message);
        }
        if (previous)
            previous(type, context, message);
    }

    static inline LogWatch* current = nullptr;
    static inline QtMessageHandler previous = nullptr;
};
