#pragma once

#include "DlrExitStatus.h"
#include "DlrSelectionRules.h"
#include "DlrUnattendedLog.h"

#include <QElapsedTimer>
#include <QList>
#include <QObject>
#include <QProcess>
#include <QSslError>

#include <memory>

class DlrOSXProcess;

// Called first thing in main: a run without a window (unattended, or just
// the usage text) needs no display.
void DlrPrepareHeadless(int argc, char** argv);

// The whole flow without a window, for an administrator's script: the
// configured credentials, the survey, the manifest, the offers the rules
// choose (or those -products names), the free-space check, then each
// download and installation in turn through the same engine, helper and
// installer as the wizard. Where the wizard would ask, it takes the safe
// answer and says so. Every event is a line of DlrUnattendedLog; the run
// ends the event loop with its exit status.
class DlrUnattended : public QObject
{
    Q_OBJECT

public:
    static constexpr int kRetries = 3; // per download, each resuming the last

    DlrUnattended();
    ~DlrUnattended() override;

    // Starts the run once the event loop is running.
    void Begin();

private slots:
    void certificateRefused(const QList<QSslError>& errors);
    void run();
    void validManifest();
    void invalidManifest(const QString& reason);
    void downloadCompleted(int manifestIndex);
    void downloadFailed(const QString& reason, int manifestIndex);
    void downloadProgress(qint64 received, qint64 total);
    void startDownload();
    void installerOutput();
    void installerError(QProcess::ProcessError error);
    void installerFinished();

private:
    // The offers to take, in order; false with the first unknown name.
    bool pickOffers(QString& unknown);
    bool enoughSpace();
    void install();
    void installEnded(bool success, const QString& reason);
    void nextProduct();
    void summarize();
    void end(DlrExitStatus outcome);
    int currentIndex() const;
    QString currentName() const;

    DlrUnattendedLog log;
    DlrSelectionRules rules;
    QList<int> picked;
    int position = -1;
    int retries = 0;
    QString noInstaller; // why packages are only downloaded; empty: installed
    QElapsedTimer sinceProgress;
    std::unique_ptr<DlrOSXProcess> installer;
    bool installSucceeded = false;
    bool installUnverified = false; // the installer warned it checked no signature
    QString installerReason;

    int installed = 0;
    int unverified = 0; // of those installed
    int deliveredOnly = 0; // not packages: a download is all they need
    int downloadFailures = 0;
    int notInstalled = 0;
    bool ended = false;
};
