// One download through the wizard's engine, for bench/download.py:
//   bench_download_child <url> <size> <ca.pem>
// Saves into $HOME/Downloads and prints "seconds=<s> maxrss_kb=<kb>".

#include "DlrApp.h"

#include <QElapsedTimer>
#include <QSslConfiguration>

#include <cstdio>
#include <sys/resource.h>

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s <url> <size> <ca.pem>\n", argv[0]);
        return 2;
    }
    int appArgc = 1;
    DlrApp app(appArgc, argv);

    QSslConfiguration config = QSslConfiguration::defaultConfiguration();
    config.addCaCertificates(QString::fromLocal8Bit(argv[3]));
    QSslConfiguration::setDefaultConfiguration(config);

    DlrManifestElement offer;
    offer.Name = QStringLiteral("bench.pkg");
    offer.DownloadURL = QUrl(QString::fromLocal8Bit(argv[1]));
    offer.FileSize = QByteArray(argv[2]).toLongLong();
    app.manifest << offer;

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
    clock.start();
    if (!app.DownloadProduct(0))
        return 1;
    app.exec();

    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    std::printf("seconds=%.3f maxrss_kb=%ld\n", double(clock.nsecsElapsed()) / 1e9, usage.ru_maxrss);
    return status;
}
