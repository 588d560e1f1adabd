#include "DlrHelperRequests.h"

#include "DlrHelperFiles.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr qint64 kApiVersion = 1;
constexpr const char kBuildVersion[] = "velluma-installer-helper " VLUM_VERSION;

enum { VersionRequest = 66001, OpenFileRequest = 66002, ExecuteRequest = 66003 };

// The descriptor the installer finds the package on, with the variable
// that tells it so.
constexpr int kPackageFd = 3;
constexpr char kPackageFdVariable[] = "VLUM_PACKAGE_FD=3";

// Installers that run as root at once: one per user, and a few in all, so
// that clients that ask and leave cannot pile them up.
constexpr size_t kMaxInstallers = 4;

// Whether `pid` is on its way out: its output is closed by then, and a
// client that saw the end may ask again before the end is collected.
bool exiting(pid_t pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return true;
    const QByteArray text = stat.readAll();
    // After the name in parentheses: state, ppid, pgrp, session, tty, tpgid, flags.
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    constexpr qulonglong kExiting = 0x4; // PF_EXITING
    return fields.size() < 7 || fields[0] == "Z" || fields[0] == "X" || (fields[6].toULongLong() & kExiting) != 0;
}

QByteArray resolved(const QByteArray& path)
{
    char buffer[PATH_MAX];
    return ::realpath(path.constData(), buffer) ? QByteArray(buffer) : QByteArray();
}

// Moved above the descriptors the child sets up (0 to kPackageFd), so that
// none is overwritten there.
int raised(int fd)
{
    const int high = ::fcntl(fd, F_DUPFD_CLOEXEC, 10);
    ::close(fd);
    return high;
}

DlrdMessage refused(const QString& why)
{
    syslog(LOG_NOTICE, "refused to run: %s", why.toLocal8Bit().constData());
    DlrdMessage reply;
    reply.SetInt64("childpid", -1);
    reply.SetString("execerror", why.toUtf8());
    return reply;
}

// In the child, between fork and exec: only calls that are safe there.
[[noreturn]] void runChild(const char* program, char* const* argv, char* const* envp, int package, int output,
                           int status)
{
    const int devnull = ::open("/dev/null", O_RDONLY);
    if (devnull < 0 || ::dup2(devnull, 0) < 0 || ::dup2(output, 1) < 0 || ::dup2(output, 2) < 0
        || ::dup2(package, kPackageFd) < 0) {
        const int error = errno;
        (void)!::write(status, &error, sizeof error);
        ::_exit(127);
    }
    // Nothing of the helper's (sockets of other clients) leaks into the
    // child; the status pipe closes itself at exec.
    for (int fd = kPackageFd + 1; fd < 1024; ++fd)
        if (fd != status)
            ::close(fd);
    ::signal(SIGPIPE, SIG_DFL);
    ::signal(SIGCHLD, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::setsid();
    ::execve(program, argv, envp);
    const int error = errno;
    (void)!::write(status, &error, sizeof error);
    ::_exit(127);
}

} // namespace

bool DlrHelperRequests::Answer(const DlrdMessage& request, uid_t uid, DlrdMessage& reply, QString& why)
{
    if (!request.Has("message", DlrdMessage::Int64Kind)) {
        why = QStringLiteral("no integer \"message\"");
        return false;
    }
    switch (request.Int64("message")) {
    case VersionRequest:
        reply = version();
        return true;
    case OpenFileRequest:
        if (!request.Has("filepath", DlrdMessage::StringKind) || !request.Has("fileoflag", DlrdMessage::Int64Kind)
            || !request.Has("filemode", DlrdMessage::Int64Kind)) {
            why = QStringLiteral("open request without path, flags or mode");
            return false;
        }
        reply = openFile(*request.String("filepath"), request.Int64("fileoflag"), request.Int64("filemode"));
        return true;
    case ExecuteRequest:
        if (!request.Has("argv", DlrdMessage::StringArrayKind)) {
            why = QStringLiteral("execute request without argument vector");
            return false;
        }
        reply = execute(request.StringArray("argv"), uid);
        return true;
    default:
        why = QStringLiteral("unknown request %1").arg(request.Int64("message"));
        return false;
    }
}

DlrdMessage DlrHelperRequests::version() const
{
    DlrdMessage reply;
    reply.SetInt64("apiversion", kApiVersion);
    reply.SetString("buildversion", kBuildVersion);
    return reply;
}

DlrdMessage DlrHelperRequests::openFile(const QByteArray& path, qint64 oflag, qint64 mode) const
{
    DlrdMessage reply;
    QString why = QStringLiteral("outside the allowed folders");
    if (oflag < INT_MIN || oflag > INT_MAX || (oflag & O_PATH)) {
        why = QStringLiteral("bad open flags");
    } else {
        // The folder is matched by name; what lies below it is resolved by
        // the kernel beneath the folder we opened at start, in one step.
        for (int i = 0; i < options.allowedFolders.size(); ++i) {
            const QByteArray& folder = options.allowedFolders.at(i);
            const QByteArray prefix = folder == "/" ? folder : folder + '/';
            if (!path.startsWith(prefix) || path.size() == prefix.size())
                continue;
            const int fd = DlrHelperFiles::OpenBeneath(options.allowedFolderFds.at(i), path.mid(prefix.size()),
                                                       int(oflag), mode_t(mode), why);
            if (fd >= 0) {
                reply.SetDescriptor("fd", fd);
                ::close(fd);
                return reply;
            }
            break;
        }
    }
    syslog(LOG_NOTICE, "refused to open %s: %s", path.constData(), why.toLocal8Bit().constData());
    reply.SetString("fileopenerror", why.toUtf8());
    return reply;
}

QString DlrHelperRequests::refusal(const QList<QByteArray>& argv) const
{
    static const QList<QByteArray> shape{"-verboseR", "-target", "/", "-package"};
    if (argv.size() != shape.size() + 2)
        return QStringLiteral("only the package installer runs, with -verboseR -target / -package <file>.pkg");
    if (resolved(argv.first()) != options.installer)
        return QStringLiteral("not the package installer: %1").arg(QString::fromUtf8(argv.first()));
    if (argv.mid(1, shape.size()) != shape)
        return QStringLiteral("arguments must be -verboseR -target / -package <file>.pkg");
    const QByteArray& package = argv.last();
    if (!package.endsWith(".pkg") || package.startsWith('-'))
        return QStringLiteral("not a package file: %1").arg(QString::fromUtf8(package));
    return QString();
}

void DlrHelperRequests::Reap()
{
    int status = 0;
    for (pid_t pid; (pid = ::waitpid(-1, &status, WNOHANG)) > 0;) {
        if (running.erase(pid) != 0)
            syslog(LOG_NOTICE, "installer pid %d ended (%s %d)", int(pid),
                   WIFSIGNALED(status) ? "signal" : "status",
                   WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
    }
}

DlrdMessage DlrHelperRequests::execute(const QList<QByteArray>& argv, uid_t uid)
{
    // Judged before anything is opened or started.
    Reap();
    for (auto it = running.begin(); it != running.end();)
        it = exiting(it->first) ? running.erase(it) : std::next(it);
    if (std::any_of(running.begin(), running.end(), [uid](const auto& entry) { return entry.second == uid; }))
        return refused(QStringLiteral("an installation for this user is already running"));
    if (running.size() >= kMaxInstallers)
        return refused(QStringLiteral("too many installations are running"));
    QString why = refusal(argv);
    if (!why.isEmpty())
        return refused(why);
    // The installer gets the package we opened and checked, not its path:
    // nothing can be swapped in between.
    const int package = DlrHelperFiles::OpenPackage(argv.last(), uid, why);
    if (package < 0)
        return refused(QStringLiteral("%1: %2").arg(QString::fromUtf8(argv.last()), why));

    int output[2];
    int status[2];
    if (::pipe2(output, O_CLOEXEC) != 0) {
        const int error = errno;
        ::close(package);
        return refused(QString::fromLocal8Bit(std::strerror(error)));
    }
    if (::pipe2(status, O_CLOEXEC) != 0) {
        const int error = errno;
        ::close(package);
        ::close(output[0]);
        ::close(output[1]);
        return refused(QString::fromLocal8Bit(std::strerror(error)));
    }
    const int packageFd = raised(package);
    output[1] = raised(output[1]);
    status[1] = raised(status[1]);

    // Built before fork: the child must not allocate.
    std::vector<QByteArray> storage(argv.begin(), argv.end());
    std::vector<char*> args;
    for (QByteArray& arg : storage)
        args.push_back(arg.data());
    args.push_back(nullptr);
    // The helper's own environment, never the client's, plus where the
    // package is and which keys to trust.
    std::vector<QByteArray> envStorage;
    for (char** entry = environ; *entry; ++entry) {
        const QByteArray variable(*entry);
        const bool replaced = variable.startsWith("VLUM_PACKAGE_FD=")
            || (!options.trustedKeys.isEmpty() && variable.startsWith("VLUM_TRUSTED_KEYS="));
        if (!replaced)
            envStorage.push_back(variable);
    }
    envStorage.push_back(kPackageFdVariable);
    if (!options.trustedKeys.isEmpty())
        envStorage.push_back("VLUM_TRUSTED_KEYS=" + options.trustedKeys);
    std::vector<char*> env;
    for (QByteArray& variable : envStorage)
        env.push_back(variable.data());
    env.push_back(nullptr);

    const pid_t pid = ::fork();
    if (pid == 0)
        runChild(options.installer.constData(), args.data(), env.data(), packageFd, output[1], status[1]);
    const int forkError = errno;
    ::close(packageFd);
    ::close(output[1]);
    ::close(status[1]);
    if (pid < 0) {
        ::close(output[0]);
        ::close(status[0]);
        return refused(QString::fromLocal8Bit(std::strerror(forkError)));
    }

    // The status pipe reaches end-of-file at a successful exec; before that
    // the child writes why it could not run.
    int childError = 0;
    ssize_t n;
    do
        n = ::read(status[0], &childError, sizeof childError);
    while (n < 0 && errno == EINTR);
    ::close(status[0]);
    if (n > 0) {
        ::close(output[0]);
        // It ends at once, having said why: collected here, never counted.
        while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        return refused(QStringLiteral("could not run %1: %2")
                           .arg(QString::fromUtf8(argv.first()), QString::fromLocal8Bit(std::strerror(childError))));
    }

    running.emplace(pid, uid);
    syslog(LOG_NOTICE, "running %s on %s as pid %d", options.installer.constData(), argv.last().constData(), int(pid));
    DlrdMessage reply;
    reply.SetInt64("childpid", pid);
    reply.SetDescriptor("fd", output[0]);
    ::close(output[0]);
    return reply;
}
