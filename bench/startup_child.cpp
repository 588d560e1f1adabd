// Start-up probe: does exactly what main() does, then writes the moment the
// wizard's first frame is on screen (CLOCK_MONOTONIC, nanoseconds) on
// standard output and leaves with status 0. bench/startup.py compares it with
// the moment it spawned this process.

#include "DlrApp.h"
#include "DlrLog.h"
#include "DlrMainWindow.h"

#include <QEvent>
#include <QWindow>

#include <cstdio>
#include <ctime>

namespace {

long long monotonicNanoseconds()
{
    timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

// Both the offscreen and the xcb platform send the wizard's window an Expose
// once it is visible, and the window paints and flushes its first frame while
// handling it. The probe therefore lets that Expose be delivered in full and
// stamps afterwards: "shown" means content on screen, not merely mapped.
class FirstFrameProbe : public QObject
{
public:
    bool stamped() const { return stamped_; }

    bool eventFilter(QObject* watched, QEvent* event) override
    {
        // Installed on the application, so it sees every event: keep the
        // common path to one comparison.
        if (stamped_ || delivering_ || event->type() != QEvent::Expose)
            return false;
        DlrMainWindow* wizard = dlrApp()->mainWindow.get();
        QWindow* window = wizard ? wizard->windowHandle() : nullptr;
        if (!window || watched != window || !window->isExposed())
            return false;

        delivering_ = true;
        QCoreApplication::sendEvent(window, event);
        delivering_ = false;

        std::printf("%lld\n", monotonicNanoseconds());
        std::fflush(stdout);
        stamped_ = true;
        QCoreApplication::exit(0);
        return true; // already delivered above
    }

private:
    bool stamped_ = false;
    bool delivering_ = false;
};

} // namespace

int main(int argc, char** argv)
{
    DlrApp app(argc, argv);
    DlrInitializeLogging();
    // Watching the application rather than the window catches an Expose even
    // if it were delivered while Start() is still running.
    FirstFrameProbe probe;
    app.installEventFilter(&probe);
    if (app.Start())
        return 1;
    if (probe.stamped())
        return 0; // exit() is a no-op before the event loop runs
    return app.exec();
}
