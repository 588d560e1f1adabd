#include "DlrdClient.h"

#include "DlrdClientXPC.h"

#include <QCoreApplication>
#include <QDebug>
#include <QElapsedTimer>
#include <QEventLoop>

#include <unistd.h>

DlrdClient* DlrdClient::s_client = nullptr;

namespace {

constexpr int kReplyTimeoutMs = 1000;
constexpr int kPumpSliceMs = 20;

} // namespace

DlrdClient::DlrdClient() : transport(std::make_unique<DlrdClientXPC>(this)) {}

DlrdClient::~DlrdClient() = default;

void DlrdClient::waitForPending(bool& pending, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (pending && clock.elapsed() < timeoutMs)
        QCoreApplication::processEvents(QEventLoop::AllEvents, kPumpSliceMs);
}

int DlrdClient::Init()
{
    versionPending = true;
    versionError = 0;
    if (transport->QueryVersion() == 0) {
        waitForPending(versionPending, kReplyTimeoutMs);
        if (!versionPending && versionError == 0) {
            initialized = true;
            return 0;
        }
        versionPending = false;
    }
    qDebug() << "Could not get a response from helper after install";
    return -1;
}

int DlrdClient::QueryVersion(int& apiVersionOut, const char*& buildVersionOut)
{
    versionPending = true;
    versionError = 0;
    const int sent = transport->QueryVersion();
    if (sent != 0)
        return sent;
    waitForPending(versionPending, kReplyTimeoutMs);
    if (versionPending || versionError != 0) {
        versionPending = false;
        return -1;
    }
    apiVersionOut = apiVersion;
    buildVersionOut = buildVersion;
    return 0;
}

int DlrdClient::OpenFile(const char* path, int oflag, quint16 mode)
{
    openPending = true;
    openError = 0;
    if (transport->OpenFile(path, oflag, mode) != 0)
        return -1;
    waitForPending(openPending, kReplyTimeoutMs);
    if (openPending || openError != 0) {
        openPending = false;
        return -1;
    }
    return openedFd;
}

int DlrdClient::ExecuteCommand(const QList<QByteArray>& argv, int& fd, int& pid)
{
    executePending = true;
    executeError = 0;
    if (transport->ExecuteCommand(argv) != 0)
        return -1;
    waitForPending(executePending, kReplyTimeoutMs);
    if (executePending || executeError != 0) {
        executePending = false;
        return -1;
    }
    fd = outputFd;
    pid = childPid;
    return 0;
}

void DlrdClient::QueryVersionReply(int error, int apiVersionIn, const char* buildVersionIn)
{
    versionError = error;
    apiVersion = apiVersionIn;
    buildVersion = buildVersionIn;
    versionPending = false;
    if (error == 0)
        qDebug().nospace() << "Helper API version " << apiVersion << ' ' << buildVersion;
    else
        qDebug() << "Failed to get api version";
}

void DlrdClient::OpenFileReply(int error, int fd)
{
    // A descriptor that nobody will take (failed reply, or the request
    // already gave up) is closed here rather than leaked.
    if (fd >= 0 && (error != 0 || !openPending)) {
        ::close(fd);
        fd = -1;
    }
    openError = error;
    openedFd = fd;
    openPending = false;
}

void DlrdClient::ExecuteCommandReply(int error, int fd, int pid)
{
    if (fd >= 0 && (error != 0 || !executePending)) {
        ::close(fd);
        fd = -1;
    }
    executeError = error;
    outputFd = fd;
    childPid = pid;
    executePending = false;
}
