#pragma once

#include "DlrdMessage.h"

#include <QString>

#include <functional>
#include <memory>

class QObject;

// The client end of a conversation with the helper over its stream socket,
// shaped like an XPC connection: messages go out with a reply handler that
// runs on the thread of a given queue object, and the connection's own
// events go to an event handler on the connection's background thread.
//
// The socket is connected at the first send, so a connection made while the
// helper is absent costs nothing until it is used. A peer that goes away,
// or sends something we cannot read, makes the connection invalid: every
// outstanding and later reply gets ConnectionInvalid.
class DlrdConnection
{
public:
    enum Event {
        Message,               // a dictionary
        ConnectionInterrupted, // kept for the event handler's sake; a socket never reports it
        ConnectionInvalid,
        TerminationImminent,   // the helper announced that it is going away
    };
    using Handler = std::function<void(Event event, const DlrdMessage& message)>;

    // Null when no socket can be made.
    static std::unique_ptr<DlrdConnection> Create(const QString& socketPath);
    ~DlrdConnection(); // cancels

    // Error dictionaries carry a description under this key.
    static const char* const ErrorDescriptionKey;

    void SetEventHandler(Handler handler);
    // Starts the background thread; call once, after SetEventHandler.
    void Resume();
    // No event or reply handler runs once this returns (when called from
    // outside the handlers); replies already queued are dropped with their
    // queue object.
    void Cancel();

    // Sends at once. The reply, or the error that stands for it, reaches
    // `handler` through `queue`'s event loop.
    void SendWithReply(const DlrdMessage& message, QObject* queue, Handler handler);

    struct State;

private:
    explicit DlrdConnection(std::shared_ptr<State> state);

    std::shared_ptr<State> state;
};

// True when a helper accepts connections on `socketPath`. Never waits.
bool DlrdHelperAnswers(const QString& socketPath);
