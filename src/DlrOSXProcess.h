#pragma once

#include <QByteArray>
#include <QIODevice>
#include <QObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

class DlrWorker;

// Runs a command as root through the privileged helper, with the signals
// and enumerations of QProcess. The command's output (standard output and
// standard error joined) arrives line by line as standard output; the exit
// status is not known, so a run always finishes with 0 and NormalExit.
class DlrOSXProcess : public QObject
{
    Q_OBJECT

public:
    DlrOSXProcess();
    ~DlrOSXProcess() override;

    void start(const QString& program, const QStringList& arguments, QIODevice::OpenMode mode);
    void setProcessEnvironment(const QProcessEnvironment& environment);
    QByteArray readAllStandardOutput();
    QByteArray readAllStandardError();
    // Why the last start failed, as QProcess says it, for a person to act on.
    QString errorString() const { return failure; }

signals:
    void error(QProcess::ProcessError error);
    void finished(int exitCode, QProcess::ExitStatus exitStatus);
    void readyReadStandardError();
    void readyReadStandardOutput();
    void started();
    void stateChanged(QProcess::ProcessState newState);

public slots:
    void workerError(QString err);
    void workerFinished();
    void workerHasOutput(QByteArray ba);

private:
    QByteArray output;           // the latest piece of output, until read
    QString failure;
    DlrWorker* worker = nullptr; // deletes itself when done; not used after start
};
