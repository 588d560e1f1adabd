#pragma once

#include <QObject>
#include <QPointer>
#include <QTimer>

class QNetworkReply;

// Ends a reply that has moved no byte, either way, for a while. Qt's own
// transfer timeout ends it as "canceled", which the user cannot tell from
// a deliberate stop; this one lets the engines report a timeout.
class DlrTransferTimeout : public QObject
{
    Q_OBJECT

public:
    // Watches the reply until it is destroyed; the watch is its child.
    static void Watch(QNetworkReply* reply, int seconds);
    // True when the watch of this reply aborted it.
    static bool Expired(const QNetworkReply* reply);

    // While it lives, the reply's watch counts nothing: a reply waiting for
    // the user's answer to a question about it is not stalled. The watch
    // starts afresh when the hold ends.
    class Hold
    {
    public:
        Q_DISABLE_COPY(Hold)
        explicit Hold(QNetworkReply* reply);
        ~Hold();

    private:
        QPointer<DlrTransferTimeout> watch; // gone with its reply
    };

private:
    DlrTransferTimeout(QNetworkReply* reply, int seconds);
    static DlrTransferTimeout* of(const QNetworkReply* reply);
    void restart();
    void expire();

    QTimer timer;
    bool expired = false;
    bool held = false;
};
