#include "DlrdClientXPC.h"

#include "DlrPlatform.h"
#include "DlrdBless.h"
#include "DlrdClient.h"

#include <QObject>
#include <QString>
#include <QStringList>

#include <syslog.h>
#include <unistd.h>

namespace {

// Long enough for a user to type a password at the prompt.
constexpr int kBlessTimeoutMs = 120000;
constexpr int kReasonBufferSize = 256;

enum { VersionKind, OpenKind, ExecuteKind };

bool isUtf8(const QByteArray& bytes)
{
    return QString::fromUtf8(bytes).toUtf8() == bytes;
}

} // namespace

DlrdClientXPC::DlrdClientXPC(DlrdClient* owner) : owner(owner), replyQueue(std::make_unique<QObject>())
{
    // Rights and installation first; the connection is made whatever their
    // outcome, and only then does a failed step make requests fail.
    InstallService();

    std::unique_ptr<DlrdConnection> made = DlrdConnection::Create(DlrPlatform::HelperSocketPath());
    if (!made) {
        setState(NoConnection);
        return;
    }
    made->SetEventHandler([this](DlrdConnection::Event event, const DlrdMessage& message) {
        handleEvent(event, message);
    });
    DlrdConnection* started = made.get();
    {
        std::lock_guard<std::mutex> guard(lock);
        connection = std::move(made);
    }
    started->Resume();
}

DlrdClientXPC::~DlrdClientXPC()
{
    std::unique_ptr<DlrdConnection> ending;
    {
        std::lock_guard<std::mutex> guard(lock);
        ending.swap(connection);
    }
    // Waits for the event handler, which takes `lock`: so outside of it.
    ending.reset();
    replyQueue.reset();
}

int DlrdClientXPC::InstallService()
{
    // A helper of ours that already answers needs neither rights nor setup,
    // and nothing is installed: nothing to log either.
    if (!DlrdHelperAnswers(DlrPlatform::HelperSocketPath())) {
        const QByteArray label = DlrPlatform::HelperLabel().toUtf8();
        const QString authorizer = DlrdAuthorizationProgram();
        if (authorizer.isEmpty()) {
            setState(NotAuthorised);
            return -1;
        }
        const QStringList arguments{DlrPlatform::HelperProgram(), DlrPlatform::PackageInstallerProgram(),
                                    DlrPlatform::HelperSocketPath(), DlrPlatform::HelperLabel()};
        QByteArray reason;
        switch (DlrdBless(authorizer, DlrPlatform::HelperInstallProgram(), arguments, kBlessTimeoutMs, reason)) {
        case DlrdBlessResult::Installed:
            syslog(LOG_NOTICE, "Installed helper: %s", label.constData());
            break;
        case DlrdBlessResult::NotAuthorised:
            setState(NotAuthorised);
            return -1;
        case DlrdBlessResult::Failed:
            setState(NotInstalled);
            if (reason.isEmpty())
                syslog(LOG_NOTICE, "Failed to install helper for unknown reason");
            else if (reason.size() < kReasonBufferSize && isUtf8(reason))
                syslog(LOG_NOTICE, "Failed to install helper: %s", reason.constData());
            else
                syslog(LOG_NOTICE, "Failed to install helper");
            return -1;
        }
    }
    return 0;
}

int DlrdClientXPC::GetState() const
{
    std::lock_guard<std::mutex> guard(lock);
    return state;
}

void DlrdClientXPC::setState(int value)
{
    std::lock_guard<std::mutex> guard(lock);
    state = value;
}

void DlrdClientXPC::ConnectionDropped()
{
    std::unique_ptr<DlrdConnection> ending;
    {
        std::lock_guard<std::mutex> guard(lock);
        state = Dropped;
        ending.swap(connection);
    }
    ending.reset();
}

int DlrdClientXPC::send(const DlrdMessage& request, DlrdConnection::Handler handler)
{
    // Held across the send, so the event handler cannot release the
    // connection under us.
    std::lock_guard<std::mutex> guard(lock);
    if (state != Ready || !connection)
        return -1;
    connection->SendWithReply(request, replyQueue.get(), std::move(handler));
    return 0;
}

bool DlrdClientXPC::failedReply(DlrdConnection::Event event, const char* request)
{
    switch (event) {
    case DlrdConnection::Message:
        return false;
    case DlrdConnection::ConnectionInvalid:
        syslog(LOG_NOTICE, "%s: Invalid connection", request);
        ConnectionDropped();
        break;
    case DlrdConnection::TerminationImminent:
        syslog(LOG_NOTICE, "%s: Connection terminated", request);
        ConnectionDropped();
        break;
    case DlrdConnection::ConnectionInterrupted:
        break;
    }
    return true;
}

int DlrdClientXPC::QueryVersion()
{
    DlrdMessage request;
    request.SetInt64("message", VersionRequest);
    const quint64 serial = ++sent[VersionKind];
    return send(request, [this, serial](DlrdConnection::Event event, const DlrdMessage& reply) {
        const bool failed = failedReply(event, "QueryVersion");
        if (serial != sent[VersionKind])
            return;
        if (failed) {
            owner->QueryVersionReply(1, 0, nullptr);
            return;
        }
        apiVersion = int(reply.Int64("apiversion"));
        const QByteArray* build = reply.String("buildversion");
        buildVersion = build ? *build : QByteArray("");
        owner->QueryVersionReply(0, apiVersion, buildVersion.constData());
    });
}

int DlrdClientXPC::OpenFile(const char* path, int oflag, quint16 mode)
{
    DlrdMessage request;
    request.SetInt64("message", OpenFileRequest);
    request.SetString("filepath", QByteArray(path));
    request.SetInt64("fileoflag", qint64(oflag));
    request.SetInt64("filemode", qint64(quint64(mode)));
    const quint64 serial = ++sent[OpenKind];
    return send(request, [this, serial](DlrdConnection::Event event, const DlrdMessage& reply) {
        const bool failed = failedReply(event, "OpenFile");
        if (serial != sent[OpenKind])
            return;
        if (failed) {
            owner->OpenFileReply(1, -1);
            return;
        }
        const int fd = reply.DupDescriptor("fd");
        reply.String("fileopenerror"); // read, not used: the wizard only needs the outcome
        owner->OpenFileReply(fd < 0 ? 1 : 0, fd);
    });
}

int DlrdClientXPC::ExecuteCommand(const QList<QByteArray>& argv)
{
    DlrdMessage request;
    request.SetInt64("message", ExecuteRequest);
    request.SetStringArray("argv", argv);
    const quint64 serial = ++sent[ExecuteKind];
    return send(request, [this, serial](DlrdConnection::Event event, const DlrdMessage& reply) {
        const bool failed = failedReply(event, "ExecuteCommand");
        if (serial != sent[ExecuteKind])
            return;
        if (failed) {
            owner->ExecuteCommandReply(1, -1, -1);
            return;
        }
        const int fd = reply.DupDescriptor("fd");
        const int pid = int(reply.Int64("childpid"));
        if (pid == -1) {
            const QByteArray* why = reply.String("execerror");
            if (why)
                syslog(LOG_NOTICE, "ExecuteCommand failed: %s", why->constData());
            else
                syslog(LOG_NOTICE, "ExecuteCommand failed: no error returned");
        }
        owner->ExecuteCommandReply(pid < 1 ? 1 : 0, fd, pid);
    });
}

void DlrdClientXPC::handleEvent(DlrdConnection::Event event, const DlrdMessage& message)
{
    switch (event) {
    case DlrdConnection::ConnectionInterrupted:
        setState(Interrupted);
        break;
    case DlrdConnection::ConnectionInvalid: {
        for (const QByteArray& key : message.Keys())
            syslog(LOG_NOTICE, "Invalid connection. key=%s", key.constData());
        const QByteArray* description = message.String(DlrdConnection::ErrorDescriptionKey);
        if (description)
            syslog(LOG_NOTICE, "error description=%s", description->constData());
        else
            syslog(LOG_NOTICE, "error description was NOT a string");
        ConnectionDropped();
        break;
    }
    default:
        setState(UnexpectedEvent);
        break;
    }
}
