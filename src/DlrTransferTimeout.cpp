#include "DlrTransferTimeout.h"

#include <QDebug>
#include <QNetworkReply>

void DlrTransferTimeout::Watch(QNetworkReply* reply, int seconds)
{
    if (reply && seconds > 0)
        new DlrTransferTimeout(reply, seconds);
}

bool DlrTransferTimeout::Expired(const QNetworkReply* reply)
{
    const auto* watch = reply ? reply->findChild<DlrTransferTimeout*>(QString(), Qt::FindDirectChildrenOnly) : nullptr;
    return watch && watch->expired;
}

DlrTransferTimeout::DlrTransferTimeout(QNetworkReply* reply, int seconds)
    : QObject(reply)
{
    timer.setSingleShot(true);
    timer.setInterval(seconds * 1000);
    connect(&timer, &QTimer::timeout, this, &DlrTransferTimeout::expire);
    const auto restart = [this] { timer.start(); };
    connect(reply, &QNetworkReply::downloadProgress, this, restart);
    connect(reply, &QNetworkReply::uploadProgress, this, restart);
    connect(reply, &QNetworkReply::metaDataChanged, this, restart);
    connect(reply, &QNetworkReply::finished, &timer, &QTimer::stop);
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
