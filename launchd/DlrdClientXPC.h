#pragma once

#include "DlrdConnection.h"

#include <QByteArray>
#include <QList>

#include <memory>
#include <mutex>

class DlrdClient;
class QObject;

// The transport under DlrdClient: installs the helper as a system service
// and owns the connection to it. Requests are sent without waiting; their
// replies reach the owner on the GUI thread.
class DlrdClientXPC
{
public:
    explicit DlrdClientXPC(DlrdClient* owner);
    ~DlrdClientXPC();
    DlrdClientXPC(const DlrdClientXPC&) = delete;
    DlrdClientXPC& operator=(const DlrdClientXPC&) = delete;

    // Connection states; any but Ready makes every request fail at once.
    enum {
        Ready = 0,
        NoConnection = 1,
        Interrupted = 2,
        Dropped = 3,
        UnexpectedEvent = 4,
        NotAuthorised = 5,
        NotInstalled = 6,
    };

    // Request codes of the "message" key.
    enum { VersionRequest = 66001, OpenFileRequest = 66002, ExecuteRequest = 66003 };

    int InstallService();
    int QueryVersion();
    int OpenFile(const char* path, int oflag, quint16 mode);
    int ExecuteCommand(const QList<QByteArray>& argv);
    void ConnectionDropped();

    int GetState() const;

private:
    int send(const DlrdMessage& request, DlrdConnection::Handler handler);
    void setState(int value);
    void handleEvent(DlrdConnection::Event event, const DlrdMessage& message);
    // True when `event` is an error; logs and drops the connection for the
    // two that end it.
    bool failedReply(DlrdConnection::Event event, const char* request);

    DlrdClient* owner;
    int state = Ready;                           // guarded by lock: the event handler's thread writes it
    std::unique_ptr<DlrdConnection> connection;  // guarded by lock, likewise
    int apiVersion = -1;
    QByteArray buildVersion;

    mutable std::mutex lock;
    // Replies run on the GUI thread through this object's event queue; it
    // dies with the transport, and so do replies still queued for it.
    std::unique_ptr<QObject> replyQueue;
    // One serial per request kind, so that a reply that comes after its
    // request gave up is not taken for the reply to the next one.
    quint64 sent[3] = {0, 0, 0};
};
