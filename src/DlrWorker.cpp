#include "DlrWorker.h"

#include <cerrno>
#include <unistd.h>

DlrWorker::DlrWorker(int fd) : fd(fd) {}

DlrWorker::~DlrWorker()
{
    if (fd != -1)
        ::close(fd);
}

void DlrWorker::process()
{
    buffer = std::make_unique<QByteArray>();
    // One byte per call, so that each line goes out the moment its line
    // feed arrives, however slowly the command writes.
    for (;;) {
        char byte;
        const ssize_t n = ::read(fd, &byte, 1);
        if (n == 1) {
            buffer->append(byte);
            if (byte == '\n') {
                emit gotOutput(*buffer);
                buffer->clear();
            }
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            emit error(QStringLiteral("Reading caused error"));
        if (!buffer->isEmpty())
            emit gotOutput(*buffer);
        break;
    }
    ::close(fd);
    fd = -1;
    emit finished();
}
