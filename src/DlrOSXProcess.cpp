#include "DlrOSXProcess.h"

#include "DlrPlatform.h"
#include "DlrWorker.h"
#include "DlrdClient.h"

#include <QDebug>
#include <QThread>

DlrOSXProcess::DlrOSXProcess() = default;

// The worker's signals reach this object only through queued connections,
// which Qt removes, together with any calls already queued, when this
// object is destroyed; the worker reads on and cleans up after itself.
DlrOSXProcess::~DlrOSXProcess() = default;

void DlrOSXProcess::start(const QString& program, const QStringList& arguments, QIODevice::OpenMode mode)
{
    Q_UNUSED(mode)

    if (!DlrdClient::s_client) {
        DlrdClient::s_client = new DlrdClient; // lives until the process ends
        DlrdClient::s_client->Init();
    }
    if (!DlrdClient::s_client->initialized) {
        qDebug() << "Failed to communicate with helper service";
        // Most often the helper was never set up: say where it was looked for and what sets it up.
        failure = QStringLiteral("nothing answers on the helper's socket %1").arg(DlrPlatform::HelperSocketPath());
        const QString setUp = DlrPlatform::HelperInstallProgram();
        if (!setUp.isEmpty())
            failure += QStringLiteral("; as root, %1 sets the helper up as a system service").arg(setUp);
        emit error(QProcess::FailedToStart);
        return;
    }

    QList<QByteArray> argv{program.toUtf8()};
    for (const QString& argument : arguments)
        argv << argument.toUtf8();

    int fd = -1;
    int pid = -1;
    if (DlrdClient::s_client->ExecuteCommand(argv, fd, pid) != 0) {
        qDebug() << "Failed to launch" << program << arguments;
        failure = QStringLiteral("the helper refused to run it (its log says why)");
        emit error(QProcess::FailedToStart);
        return;
    }

    // Both delete themselves once the output has ended.
    QThread* thread = new QThread;
    worker = new DlrWorker(fd);
    worker->moveToThread(thread);
    connect(worker, &DlrWorker::error, this, &DlrOSXProcess::workerError);
    connect(thread, &QThread::started, worker, &DlrWorker::process);
    connect(worker, &DlrWorker::finished, this, &DlrOSXProcess::workerFinished);
    connect(worker, &DlrWorker::finished, thread, &QThread::quit);
    connect(worker, &DlrWorker::finished, worker, &QObject::deleteLater);
    connect(thread, &QThread::finished, thread, &QObject::deleteLater);
    connect(worker, &DlrWorker::gotOutput, this, &DlrOSXProcess::workerHasOutput);
    thread->start(QThread::InheritPriority);
    emit started();
}

void DlrOSXProcess::setProcessEnvironment(const QProcessEnvironment& environment)
{
    Q_UNUSED(environment)
    qDebug() << "No environment processing on OS X";
}

QByteArray DlrOSXProcess::readAllStandardOutput()
{
    QByteArray piece;
    piece.swap(output);
    return piece;
}

QByteArray DlrOSXProcess::readAllStandardError()
{
    return QByteArray();
}

void DlrOSXProcess::workerError(QString err)
{
    qDebug().noquote() << "Subprocess error" << err;
    emit error(QProcess::UnknownError);
}

void DlrOSXProcess::workerFinished()
{
    qDebug() << "Subprocess finished";
    emit finished(0, QProcess::NormalExit);
}

void DlrOSXProcess::workerHasOutput(QByteArray ba)
{
    output = ba;
    emit readyReadStandardOutput();
}
