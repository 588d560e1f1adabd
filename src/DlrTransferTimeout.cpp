#include "DlrTransferTimeout.h"

#include <QDebug>
#include <QNetworkReply>

void DlrTransferTimeout::Watch(QNetworkReply* reply, int seconds)
{
    if (reply && seconds > 0)
        new DlrTransferTimeout(reply, seconds);
}

DlrTransferTimeout* DlrTransferTimeout::of(const QNetworkReply* reply)
{
    return reply ? reply->findChild<DlrTransferTimeout*>(QString(), Qt::FindDirectChildrenOnly) : nullptr;
}

bool DlrTransferTimeout::Expired(const QNetworkReply* reply)
{
    const DlrTransferTimeout* watch = of(reply);
    return watch && watch->expired;
}

DlrTransferTimeout::Hold::Hold(QNetworkReply* reply)
    : watch(of(reply))
{
    if (watch) {
        watch->held = true;
        watch->timer.stop();
    }
}

DlrTransferTimeout::Hold::~Hold()
{
    if (watch) {
        watch->held = false;
        watch->restart();
    }
}

DlrTransferTimeout::DlrTransferTimeout(QNetworkReply* reply, int seconds)
    : QObject(reply)
{
    timer.setSingleShot(true);
    timer.setInterval(seconds * 1000);
    connect(&timer, &QTimer::timeout, this, &DlrTransferTimeout::expire);
    connect(reply, &QNetworkReply::downloadProgress, this, &DlrTransferTimeout::restart);
    connect(reply, &QNetworkReply::uploadProgress, this, &DlrTransferTimeout::restart);
    connect(reply, &QNetworkReply::metaDataChanged, this, &DlrTransferTimeout::restart);
    connect(reply, &QNetworkReply::finished, &timer, &QTimer::stop);
    timer.start();
}

void DlrTransferTimeout::restart()
{
    if (!held && static_cast<QNetworkReply*>(parent())->isRunning())
        timer.start();
}

void DlrTransferTimeout::expire()
{
    auto* reply = static_cast<QNetworkReply*>(parent());
    if (!reply->isRunning())
        return;
    qDebug() << "No data for" << timer.interval() / 1000 << "s, giving up on" << reply->url();
    expired = true;
    // Finishes the reply at once: its owner reads Expired() from there.
    reply->abort();
}
