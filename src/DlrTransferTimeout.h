#pragma once

#include <QObject>
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

private:
    DlrTransferTimeout(QNetworkReply* reply, int seconds);
    void expire();

    QTimer timer;
    bool expired = false;
};
