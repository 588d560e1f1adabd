// Writes seeds for fuzz_wire with the real encoder: the requests and replies
// the client and the helper exchange, one file each, in fuzz_wire's input
// form (a byte for the descriptors that ride along, then the frames).
//   fuzz_wire_seeds <folder>

#include "DlrdWire.h"

#include <QDir>
#include <QFile>

#include <cstdio>
#include <limits>
#include <fcntl.h>
#include <unistd.h>

namespace {

bool write(const QString& path, const QList<QPair<quint32, DlrdMessage>>& messages)
{
    QByteArray frames;
    QVector<int> fds;
    for (const auto& message : messages) {
        if (!DlrdEncodeFrame(message.first, message.second, frames, fds))
            return false;
    }
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(QByteArray(1, char(fds.size())) + frames) > 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: fuzz_wire_seeds <folder>\n");
        return 2;
    }
    const QDir folder(QString::fromLocal8Bit(argv[1]));
    const int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);

    DlrdMessage version;
    version.SetInt64("message", 66001);
    DlrdMessage open;
    open.SetInt64("message", 66002);
    open.SetString("filepath", "/home/ann/Downloads/Velluma-CoreServer-22.0.pkg");
    open.SetInt64("fileoflag", O_RDONLY);
    open.SetInt64("filemode", 0644);
    DlrdMessage execute;
    execute.SetInt64("message", 66003);
    execute.SetStringArray("argv", {"/opt/velluma/libexec/installer", "-verboseR", "-target", "/", "-package",
                                    "/home/ann/Downloads/Velluma-CoreServer-22.0.pkg"});
    DlrdMessage versionReply;
    versionReply.SetInt64("apiversion", 7);
    versionReply.SetString("buildversion", "1.0");
    DlrdMessage openReply;
    openReply.SetDescriptor("fd", devNull);
    DlrdMessage openError;
    openError.SetString("fileopenerror", "not below an allowed folder");
    DlrdMessage executeReply;
    executeReply.SetInt64("childpid", 4242);
    executeReply.SetDescriptor("fd", devNull);
    DlrdMessage execError;
    execError.SetInt64("childpid", -1);
    execError.SetString("execerror", "no such program");
    DlrdMessage terminating;
    terminating.SetString("event", "terminating");
    DlrdMessage empty;
    DlrdMessage edges;
    edges.SetInt64("min", std::numeric_limits<qint64>::min());
    edges.SetString("empty", "");
    edges.SetStringArray("none", {});
    edges.SetStringArray("blanks", {"", ""});
    edges.SetString(QByteArray(255, 'k'), "longest key");

    const bool ok = write(folder.filePath(QStringLiteral("version")), {{1, version}})
        && write(folder.filePath(QStringLiteral("open")), {{2, open}})
        && write(folder.filePath(QStringLiteral("execute")), {{3, execute}})
        && write(folder.filePath(QStringLiteral("version-reply")), {{1, versionReply}})
        && write(folder.filePath(QStringLiteral("open-reply")), {{2, openReply}})
        && write(folder.filePath(QStringLiteral("open-error")), {{2, openError}})
        && write(folder.filePath(QStringLiteral("execute-reply")), {{3, executeReply}})
        && write(folder.filePath(QStringLiteral("exec-error")), {{3, execError}})
        && write(folder.filePath(QStringLiteral("two-frames")), {{0, terminating}, {9, empty}})
        && write(folder.filePath(QStringLiteral("edges")), {{0xffffffff, edges}})
        && write(folder.filePath(QStringLiteral("descriptors")), {{5, openReply}, {6, executeReply}});
    ::close(devNull);
    if (!ok)
        std::fprintf(stderr, "fuzz_wire_seeds: could not write into %s\n", argv[1]);
    return ok ? 0 : 1;
}
