#pragma once

#include "DlrHelperOptions.h"
#include "DlrHelperRequests.h"
#include "DlrdWire.h"

#include <list>
#include <sys/types.h>

// The helper's socket and its clients: one thread, one poll loop. A client
// that sends something we cannot read loses its connection; nobody else
// notices.
class DlrHelperServer
{
public:
    explicit DlrHelperServer(const DlrHelperOptions& options);
    ~DlrHelperServer();

    // Serves until SIGTERM or SIGINT; returns the exit status.
    int Run();

private:
    struct Client {
        int fd;
        uid_t uid;
        pid_t pid;
        DlrdFrameReader frames;
        // When a client that owes us a complete request is dropped (ms of
        // the monotonic clock); 0 while it owes nothing.
        qint64 deadline;
    };

    bool listen();
    void accept();
    // False when the client is to be dropped.
    bool serve(Client& client);
    void announceTermination();
    // Drops the clients past their deadline; the ms until the next one, or -1.
    int dropLateClients();
    int rootClients() const;

    const DlrHelperOptions& options;
    DlrHelperRequests requests;
    int listener = -1;
    std::list<Client> clients;
};
