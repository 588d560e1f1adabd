#pragma once

#include "DlrExitStatus.h"
#include "DlrProductWalk.h"
#include "DlrSelectionRules.h"
#include "DlrUnattendedLog.h"

#include <QElapsedTimer>
#include <QList>
#include <QObject>
#include <QSslError>

struct DlrInstallerLine;

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
    void downloadFailed(const QString& reason);
    void downloadProgress(qint64 received, qint64 total);
    void installerLine(const DlrInstallerLine& line);
    void productEnded(const DlrProductWalk::Result& result);

private:
    // The offers to take, in order; false with the first unknown name.
    bool pickOffers(QString& unknown);
    bool enoughSpace();
    void summarize();
    void end(DlrExitStatus outcome);

    DlrUnattendedLog log;
    DlrSelectionRules rules;
    QList<int> picked;
    DlrProductWalk walk;
    int retries = 0; // of the current product's download
    QString noInstaller; // why packages are only downloaded; empty: installed
    QElapsedTimer sinceProgress;
    bool installUnverified = false; // the installer warned it checked no signature

    int installed = 0;
    int unverified = 0; // of those installed
    int deliveredOnly = 0; // not packages: a download is all they need
    int downloadFailures = 0;
    int notInstalled = 0;
    bool ended = false;
};
