#include "DlrdConnection.h"

#include "DlrdWire.h"

#include <QMetaObject>
#include <QObject>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

const char* const DlrdConnection::ErrorDescriptionKey = "XPCErrorDescription";

namespace {

struct Pending {
    QObject* queue;
    DlrdConnection::Handler handler;
};

bool socketAddress(const QString& path, sockaddr_un& address)
{
    const QByteArray bytes = path.toLocal8Bit();
    if (bytes.isEmpty() || size_t(bytes.size()) >= sizeof address.sun_path)
        return false;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, bytes.constData(), size_t(bytes.size()));
    return true;
}

// Connects without ever blocking: a helper too busy to accept counts as
// answering (EAGAIN), since its queue of connections is full, not empty.
int connectNow(int fd, const sockaddr_un& address)
{
    const int flags = ::fcntl(fd, F_GETFL);
    ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    const int rc = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int error = rc == 0 ? 0 : errno;
    ::fcntl(fd, F_SETFL, flags);
    return error;
}

DlrdMessage errorDictionary(const char* description)
{
    DlrdMessage error;
    error.SetString(DlrdConnection::ErrorDescriptionKey, description);
    return error;
}

void post(const Pending& pending, DlrdConnection::Event event, const DlrdMessage& message)
{
    DlrdConnection::Handler handler = pending.handler;
    QMetaObject::invokeMethod(
        pending.queue, [handler, event, message] { handler(event, message); }, Qt::QueuedConnection);
}

} // namespace

struct DlrdConnection::State {
    enum Phase { Idle, Connected, Dead };

    sockaddr_un address{};
    int fd = -1;

    // Guards everything below; never held while a handler runs.
    std::mutex lock;
    std::condition_variable changed;
    Phase phase = Idle;
    bool resumed = false;
    bool cancelled = false;
    bool finished = false; // the background thread will call nothing more
    std::thread::id reader;
    quint32 nextId = 1;
    std::map<quint32, Pending> pending;
    Handler eventHandler;

    // Keeps the frames of two senders from interleaving.
    std::mutex sendLock;

    ~State()
    {
        if (fd >= 0)
            ::close(fd);
    }

    // The background thread: waits for the first send's connect, then reads
    // frames until the peer goes away or we are cancelled.
    static void run(std::shared_ptr<State> self) { self->readLoop(); }

    void readLoop();
    void dispatch(quint32 id, const DlrdMessage& message);
    void becomeInvalid(const char* why);
    bool isCancelled()
    {
        std::lock_guard<std::mutex> guard(lock);
        return cancelled;
    }
};

void DlrdConnection::State::readLoop()
{
    {
        std::unique_lock<std::mutex> guard(lock);
        changed.wait(guard, [this] { return phase != Idle || cancelled; });
    }

    const char* why = "Connection invalid";
    DlrdFrameReader frames;
    while (!isCancelled()) {
        {
            std::lock_guard<std::mutex> guard(lock);
            if (phase == Dead)
                break;
        }
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, -1) < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        if (frames.ReadAvailable(fd) != DlrdFrameReader::Ok)
            break;
        quint32 id = 0;
        DlrdMessage message;
        DlrdDecodeResult result;
        while ((result = frames.Next(id, message)) == DlrdDecodeResult::Complete && !isCancelled())
            dispatch(id, message);
        if (result == DlrdDecodeResult::Malformed) {
            why = "Connection invalid: malformed message";
            break;
        }
    }
    becomeInvalid(why);

    std::lock_guard<std::mutex> guard(lock);
    finished = true;
    changed.notify_all();
}

void DlrdConnection::State::dispatch(quint32 id, const DlrdMessage& message)
{
    std::unique_lock<std::mutex> guard(lock);
    if (id != 0) {
        // A reply nobody waits for any more is dropped.
        const auto it = pending.find(id);
        if (it == pending.end())
            return;
        const Pending waiting = it->second;
        pending.erase(it);
        guard.unlock();
        post(waiting, Message, message);
        return;
    }
    const QByteArray* event = message.String("event");
    if (event && *event == "terminating") {
        std::map<quint32, Pending> waiting;
        waiting.swap(pending);
        guard.unlock();
        for (const auto& entry : waiting)
            post(entry.second, TerminationImminent, errorDictionary("Connection terminated"));
        return;
    }
    const Handler handler = eventHandler;
    guard.unlock();
    if (handler)
        handler(Message, message);
}

void DlrdConnection::State::becomeInvalid(const char* why)
{
    std::unique_lock<std::mutex> guard(lock);
    phase = Dead;
    if (cancelled)
        return;
    std::map<quint32, Pending> waiting;
    waiting.swap(pending);
    const Handler handler = eventHandler;
    guard.unlock();

    const DlrdMessage error = errorDictionary(why);
    for (const auto& entry : waiting)
        post(entry.second, ConnectionInvalid, error);
    if (handler)
        handler(ConnectionInvalid, error);
}

std::unique_ptr<DlrdConnection> DlrdConnection::Create(const QString& socketPath)
{
    auto state = std::make_shared<State>();
    if (!socketAddress(socketPath, state->address))
        return nullptr;
    state->fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (state->fd < 0)
        return nullptr;
    // A helper that stops reading must not stall the GUI thread for long.
    const timeval limit{1, 0};
    ::setsockopt(state->fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    return std::unique_ptr<DlrdConnection>(new DlrdConnection(std::move(state)));
}

DlrdConnection::DlrdConnection(std::shared_ptr<State> state) : state(std::move(state)) {}

DlrdConnection::~DlrdConnection()
{
    Cancel();
}

void DlrdConnection::SetEventHandler(Handler handler)
{
    std::lock_guard<std::mutex> guard(state->lock);
    state->eventHandler = std::move(handler);
}

void DlrdConnection::Resume()
{
    std::lock_guard<std::mutex> guard(state->lock);
    if (state->resumed || state->cancelled)
        return;
    state->resumed = true;
    // Detached and holding its own reference, so that a handler may drop
    // the last handle to this connection from the background thread.
    std::thread reader(&State::run, state);
    state->reader = reader.get_id();
    reader.detach();
}

void DlrdConnection::Cancel()
{
    std::unique_lock<std::mutex> guard(state->lock);
    if (!state->cancelled) {
        state->cancelled = true;
        state->pending.clear();
        ::shutdown(state->fd, SHUT_RDWR); // wakes the reader's poll
        state->changed.notify_all();
    }
    if (!state->resumed || std::this_thread::get_id() == state->reader)
        return;
    state->changed.wait(guard, [this] { return state->finished; });
}

void DlrdConnection::SendWithReply(const DlrdMessage& message, QObject* queue, Handler handler)
{
    const Pending waiting{queue, std::move(handler)};
    quint32 id;
    {
        std::lock_guard<std::mutex> guard(state->lock);
        if (state->cancelled)
            return;
        if (state->phase == State::Idle) {
            if (connectNow(state->fd, state->address) == 0) {
                state->phase = State::Connected;
            } else {
                state->phase = State::Dead;
            }
            state->changed.notify_all();
        }
        if (state->phase == State::Dead) {
            post(waiting, ConnectionInvalid, errorDictionary("Connection invalid"));
            return;
        }
        id = state->nextId++;
        if (state->nextId == 0)
            state->nextId = 1;
        state->pending.emplace(id, waiting);
    }

    std::lock_guard<std::mutex> guard(state->sendLock);
    if (!DlrdSendMessage(state->fd, id, message)) {
        // Whatever went wrong, the stream may now hold half a frame: end it,
        // and the reader fails this and every other outstanding reply.
        ::shutdown(state->fd, SHUT_RDWR);
    }
}

bool DlrdHelperAnswers(const QString& socketPath)
{
    sockaddr_un address;
    if (!socketAddress(socketPath, address))
        return false;
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    const int error = connectNow(fd, address);
    ::close(fd);
    return error == 0 || error == EAGAIN;
}
