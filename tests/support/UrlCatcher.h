#pragma once

// Stands in for the browser: records every address the program opens.

#include <QList>
#include <QObject>
#include <QUrl>

class UrlCatcher : public QObject
{
    Q_OBJECT
public:
    QList<QUrl> opened;
public slots:
    void open(const QUrl& url) { opened << url; }
};
