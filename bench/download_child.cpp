// One download for bench/download.py:
//   bench_download_child [--wizard] <url> <size> <ca.pem>
// Saves into $HOME/Downloads and prints "seconds=<s> maxrss_kb=<kb>".
// Plain: the download engine alone. --wizard: the whole program as a user
// sees it: the window with its style sheet, the offer read from a manifest
// file and ticked on the selection page, then fetched by the download page
// with its progress bar and amount moving (timed from Next to the last
// byte). The offer is not a .pkg, so no installer runs afterwards.

#include "DlrApp.h"
#include "DlrLog.h"
#include "DlrMainWindow.h"
#include "DlrSelection.h"

#include <QElapsedTimer>
#include <QFile>
#include <QSslConfiguration>
#include <QTemporaryDir>

#include <cstdio>
#include <cstring>
#include <sys/resource.h>

namespace {

bool writeManifest(const QString& path, const char* url, const char* size)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    file.write(QStringLiteral("<Manifest><ProductInfo><Name>bench.bin</Name><SimpleName>Bench</SimpleName>"
                              "<DownloadURL>%1</DownloadURL><FileSize>%2</FileSize>"
                              "<DefaultBehavior>show</DefaultBehavior></ProductInfo></Manifest>\n")
                   .arg(QString::fromLocal8Bit(url).toHtmlEscaped(), QString::fromLatin1(size))
                   .toUtf8());
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    const bool wizard = argc == 5 && std::strcmp(argv[1], "--wizard") == 0;
    if (argc != 4 && !wizard) {
        std::fprintf(stderr, "usage: %s [--wizard] <url> <size> <ca.pem>\n", argv[0]);
        return 2;
    }
    char** given = argv + (wizard ? 2 : 1);
    int appArgc = 1;
    DlrApp app(appArgc, argv);
    DlrInitializeLogging();

    QSslConfiguration config = QSslConfiguration::defaultConfiguration();
    config.addCaCertificates(QString::fromLocal8Bit(given[2]));
    QSslConfiguration::setDefaultConfiguration(config);

    int status = 1;
    QElapsedTimer clock;
    QObject::connect(&app, qOverload<int>(&DlrApp::finishedDownload), &app, [&](int) {
        status = 0;
        app.quit();
    });
    QObject::connect(&app, &DlrApp::failedDownload, &app, [&](const QString& reason, int) {
        std::fprintf(stderr, "download failed: %s\n", qPrintable(reason));
        app.quit();
    });

    QTemporaryDir work;
    if (wizard) {
        app.alternateManifestFile = work.filePath(QStringLiteral("manifest.xml"));
        if (!writeManifest(app.alternateManifestFile, given[0], given[1]) || app.Start())
            return 1;
        DlrMainWindow* window = app.mainWindow.get();
        window->next();
        const auto* selection = qobject_cast<DlrSelection*>(window->page(DlrMainWindow::SelectionPage));
        QElapsedTimer waited;
        waited.start();
        while (!selection->isComplete() && waited.elapsed() < 30000)
            app.processEvents(QEventLoop::AllEvents, 50);
        if (!selection->isComplete())
            return 1;
        clock.start();
        window->next();
    } else {
        DlrManifestElement offer;
        offer.Name = QStringLiteral("bench.pkg");
        offer.DownloadURL = QUrl(QString::fromLocal8Bit(given[0]));
        offer.FileSize = QByteArray(given[1]).toLongLong();
        app.manifest << offer;
        clock.start();
        if (!app.DownloadProduct(0))
            return 1;
    }
    app.exec();
    const qint64 elapsed = clock.nsecsElapsed();

    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    std::printf("seconds=%.3f maxrss_kb=%ld\n", double(elapsed) / 1e9, usage.ru_maxrss);
    return status;
}
