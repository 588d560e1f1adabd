#pragma once

// Collects what this process writes to standard error while it lives:
// system-log lines reach standard error through LOG_PERROR.

#include "Files.h"

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
        return QString::fromLocal8Bit(readFile(file.fileName()));
    }

private:
    const int saved = ::dup(2);
    QTemporaryFile file;
};
