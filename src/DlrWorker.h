#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

#include <memory>

// Reads a command's output from the descriptor the helper handed over, on
// its own thread, and passes it on one line at a time.
class DlrWorker : public QObject
{
    Q_OBJECT

public:
    explicit DlrWorker(int fd);
    ~DlrWorker() override;

signals:
    void finished();
    void gotOutput(QByteArray buffer);
    void error(QString err);

public slots:
    // Blocks until end-of-file or a read error.
    void process();
    QByteArray* GetBuffer() { return buffer.get(); }

private:
    int fd;                             // -1 once closed
    std::unique_ptr<QByteArray> buffer; // the unfinished line; null before process()
};
