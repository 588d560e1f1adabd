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
    };

    bool listen();
    void accept();
    // False when the client is to be dropped.
    bool serve(Client& client);
    void announceTermination();

    const DlrHelperOptions& options;
    DlrHelperRequests requests;
    int listener = -1;
    std::list<Client> clients;
};
