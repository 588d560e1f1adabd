#pragma once

#include "DlrHelperOptions.h"
#include "DlrdMessage.h"

#include <QString>

#include <map>
#include <sys/types.h>

// The three requests the helper answers, each checked against what the
// helper was configured to allow.
class DlrHelperRequests
{
public:
    explicit DlrHelperRequests(const DlrHelperOptions& options) : options(options) {}

    // False, with `why`, for a request that is not one of ours or whose
    // values have the wrong kinds: the caller drops the connection.
    // `uid` is the peer asking.
    bool Answer(const DlrdMessage& request, uid_t uid, DlrdMessage& reply, QString& why);

    // Collects the installers that ended, each freeing its place. Only
    // here: an installer counts until it is collected, whether or not its
    // client is still there.
    void Reap();

private:
    DlrdMessage version() const;
    DlrdMessage openFile(const QByteArray& path, qint64 oflag, qint64 mode) const;
    DlrdMessage execute(const QList<QByteArray>& argv, uid_t uid);

    // Empty when `argv` is the installer run we allow, else why not.
    QString refusal(const QList<QByteArray>& argv) const;

    const DlrHelperOptions& options;
    // The installers running, with the user each runs for.
    std::map<pid_t, uid_t> running;
};
