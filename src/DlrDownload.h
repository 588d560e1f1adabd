#pragma once

#include <QPixmap>
#include <QWizardPage>

class QLabel;
class QProgressBar;

// Third page: downloads and installs the chosen products one by one.
class DlrDownload : public QWizardPage
{
    Q_OBJECT

public:
    explicit DlrDownload(QWidget* parent);

private:
    // The next picture of the "while you wait" sequence: numbered from 1,
    // gaps skipped, nothing above 19, starting over after the last one.
    QPixmap nextWUWPixmap();

    QLabel* artwork = nullptr;
    QProgressBar* progressBar = nullptr;
    QLabel* status = nullptr;
    QLabel* amount = nullptr;
    int whileUWaitIndex = 1;
};
