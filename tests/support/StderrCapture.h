#pragma once

// Collects what this process writes to standard error while it lives:
// system-log lines reach standard error through LOG_PERROR.

#include <QByteArray>
#include <QFile>
#include <QTemporaryFile>

#include <cstdio>
#include <unistd.h>

class StderrCapture
{
public:
    StderrCapture()
    {
        file.open();
        std::fflush(stderr);
        saved = ::dup(2);
        ::dup2(file.handle(), 2);
    }
    ~StderrCapture()
    {
        std::fflush(stderr);
        ::dup2(saved, 2);
        ::close(saved);
    }
    QString Text()
    {
        std::fflush(stderr);
        QFile copy(file.fileName());
        copy.open(QIODevice::ReadOnly);
        return QString::fromLocal8Bit(copy.readAll());
    }

private:
    QTemporaryFile file;
    int saved = -1;
};
