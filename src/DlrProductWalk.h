#pragma once

#include <QList>
#include <QObject>
#include <QPointer>
#include <QProcess>
#include <QString>
#include <QTimer>

#include <functional>
#include <memory>

class DlrOSXProcess;
class QNetworkReply;
struct DlrInstallerLine;

// Takes the products of `downloadIndices` one at a time: a package already
// complete on disk is kept, any other is downloaded through the engine; a
// ".pkg" is then handed to the package installer through the helper, and
// anything else is delivered as a download only. Every product ends with
// one productEnded, the walk with one finished, unless the driver abandons
// it. Whoever drives it hands it the engine's ends (EngineCompleted,
// EngineFailed), decides what a failed download leads to (Retry or
// GiveUp) and what the user sees, and does not delete the walk from one of
// its signals.
class DlrProductWalk : public QObject
{
    Q_OBJECT

public:
    enum Outcome {
        Installed,
        DownloadedOnly,   // not a package
        NotInstalled,     // `cannotInstall` says why
        DownloadFailed,   // the engine refused it, or the driver gave up
        InstallFailed,    // the installer did not report success; `reason` says why, if it did
        InstallerNotStarted, // `reason` is the process object's
    };
    Q_ENUM(Outcome)

    struct Result {
        Outcome outcome = Installed;
        QString reason;
        int exitCode = 0;
        QProcess::ExitStatus exitStatus = QProcess::NormalExit;
    };

    explicit DlrProductWalk(QObject* parent = nullptr);
    ~DlrProductWalk() override;

    // The steps the walk takes. By default the download engine and the
    // package installer through the helper; a step reports back through the
    // engine's signals (download) or the Installer* calls below (install).
    // The download step answers false when the download cannot start.
    std::function<bool(int manifestIndex)> download;
    std::function<void(const QString& package)> install;

    // Why packages are only downloaded on this machine; empty: installed.
    QString cannotInstall;

    // Walks `downloadIndices` from the first product.
    void Start();
    // After downloadFailed: the same product again, or the next one.
    void Retry();
    void GiveUp(const QString& reason);
    // Stops where it is, for good: no further step and no further signal; a
    // running download is aborted, a running installer left to end.
    void Abandon();

    int Position() const { return position; }
    bool IsDownloading() const { return state == Downloading; }
    int CurrentIndex() const;
    QString CurrentName() const;

    // What the engine reports, for the product being downloaded.
    void EngineCompleted(int manifestIndex);
    void EngineFailed(const QString& reason, int manifestIndex);
    // What an install step reports.
    void InstallerOutput(const QByteArray& bytes);
    void InstallerEnded(int exitCode, QProcess::ExitStatus exitStatus);
    void InstallerCannotStart(const QString& why);

signals:
    void alreadyDownloaded(const QString& path);
    // Counted from the start of the file, a resumed download's earlier bytes
    // included; `total` is 0 or less when unknown.
    void downloadProgress(qint64 received, qint64 total);
    void downloadCompleted(const QString& path);
    void downloadFailed(const QString& reason);
    void installing(const QString& package);
    void installerLine(const DlrInstallerLine& line);
    void productEnded(const DlrProductWalk::Result& result);
    void finished();

private slots:
    void engineProgress(qint64 received, qint64 total);
    void step();

private:
    enum State { Idle, Downloading, AwaitingDecision, Installing };

    bool startDownload(int manifestIndex);
    void startInstall(const QString& package);
    void installPackage();
    void end(const Result& result);

    State state = Idle;
    int position = -1;
    unsigned walks = 0; // Start and Abandon each end what came before
    QTimer next; // the next step, from the event loop
    QPointer<QNetworkReply> reply; // owned by the download engine
    std::unique_ptr<DlrOSXProcess> installer;
    bool succeeded = false;
    QString failure;
};
