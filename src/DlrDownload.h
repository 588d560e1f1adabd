#pragma once

#include "DlrProductWalk.h"

#include <QElapsedTimer>
#include <QPixmap>
#include <QProcess>
#include <QString>
#include <QWizardPage>

#include <memory>

class DlrOSXProcess;
class QLabel;
class QProgressBar;
struct DlrInstallerLine;

// Third page: walks the chosen products (DlrProductWalk), downloading and
// installing them one by one, all on one progress bar, and guards the way
// back while either is running.
class DlrDownload : public QWizardPage
{
    Q_OBJECT

public:
    explicit DlrDownload(QWidget* parent);
    ~DlrDownload() override;

    void initializePage() override;
    void cleanupPage() override;
    bool isComplete() const override;
    bool validatePage() override;

public slots:
    void back(bool checked);
    void downloadCompleted(int manifestIndex);
    void downloadFailed(const QString& reason, int manifestIndex);
    void downloadProgress(qint64 bytesReceived, qint64 bytesTotal);
    void installerStarts();
    void installerChangedState(QProcess::ProcessState newState);
    void installerError(QProcess::ProcessError error);
    void installerFinished(int exitCode, QProcess::ExitStatus exitStatus);
    void installerReadyStdout();
    void installerReadyStderr();
    void nextWhileUWait();
    // The current product's download is about to be started (again).
    void requestNextDownload();

private:
    void downloadDone();
    // Runs the package installer on the current product's download.
    void startInstaller(const QString& package);
    void showInstallerLine(const DlrInstallerLine& line);
    void askAboutFailedDownload(const QString& reason);
    // Ends the current product; the walk goes on to the next, or to the end.
    void productEnded(const DlrProductWalk::Result& result);
    void allFinished();
    bool confirmGoingBack(const QString& text, const QString& informative);
    void askBeforeLeavingInstall(const QString& name);
    void askBeforeStoppingDownload(const QString& name);
    // The next picture of the "while you wait" sequence: numbered from 1,
    // gaps skipped, nothing above 19, starting over after the last one.
    QPixmap nextWUWPixmap();

    DlrProductWalk walk;
    bool allDone = false;
    QLabel* artwork = nullptr;
    QProgressBar* progressBar = nullptr;
    QLabel* status = nullptr;
    QLabel* amount = nullptr;
    int progressStep = 0;
    QElapsedTimer progressShown; // when the bar and amount last changed
    std::unique_ptr<DlrOSXProcess> installerProcess;
    bool backAfterInstall = false;
    int whileUWaitIndex = 1;
    bool backButtonConnected = false;

    // A confirmation dialog of back() is open; ends that arrive meanwhile
    // are parked here and handed to the walk once it closes.
    bool inBackDialog = false;
    bool installerFinishedInDialog = false;
    int savedExitCode = 0;
    int savedExitStatus = 0;
    bool completedInDialog = false;
    bool failedInDialog = false;
    int pendingIndex = -1;
    QString pendingReason;
};
