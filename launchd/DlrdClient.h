#pragma once

#include <QByteArray>
#include <QList>

#include <memory>

class DlrdClientXPC;

// The wizard's side of the conversation with its privileged helper. Every
// request is synchronous: it waits up to a second for the reply, pumping
// the GUI thread's event loop, since that is where replies arrive.
// Requests return 0 (or a descriptor) on success and -1 on failure.
class DlrdClient
{
public:
    DlrdClient();
    ~DlrdClient();
    DlrdClient(const DlrdClient&) = delete;
    DlrdClient& operator=(const DlrdClient&) = delete;

    // The one client of the process, made on first use and never destroyed.
    static DlrdClient* s_client;

    int Init();
    int QueryVersion(int& apiVersion, const char*& buildVersion);
    int OpenFile(const char* path, int oflag, quint16 mode);
    int ExecuteCommand(const QList<QByteArray>& argv, int& fd, int& pid);
    void waitForPending(bool& pending, int timeoutMs);

    // Called by the transport, on the GUI thread, when a reply arrives.
    void QueryVersionReply(int error, int apiVersion, const char* buildVersion);
    void OpenFileReply(int error, int fd);
    void ExecuteCommandReply(int error, int fd, int pid);

    std::unique_ptr<DlrdClientXPC> transport;
    bool initialized = false;
    bool versionPending = false;
    int versionError = 0;
    int apiVersion = 0;
    const char* buildVersion = nullptr; // points into the transport's copy
    bool openPending = false;
    int openedFd = 0;
    int openError = 0;
    bool executePending = false;
    int outputFd = 0;
    int childPid = 0;
    int executeError = 0;
};
