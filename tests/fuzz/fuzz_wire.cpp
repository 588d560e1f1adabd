// The helper's frame decoder and its messages. Bytes come as a stream of
// frames, with as many descriptors as the first byte says (0 to 4, real
// ones) riding along. Every frame that decodes must encode again, and that
// frame must decode to the same message and encode to itself.

#include "FuzzSupport.h"

#include "DlrdWire.h"

#include <cstdint>
#include <fcntl.h>
#include <unistd.h>

namespace {

using Descriptors = QVector<std::shared_ptr<const DlrdDescriptor>>;

bool sameMessage(const DlrdMessage& a, const DlrdMessage& b)
{
    if (a.Keys() != b.Keys())
        return false;
    for (const QByteArray& key : a.Keys()) {
        const DlrdMessage::Value& x = a.Values()[key];
        const DlrdMessage::Value& y = b.Values()[key];
        if (x.kind != y.kind || x.integer != y.integer || x.text != y.text || x.texts != y.texts
            || (x.descriptor ? x.descriptor->fd : -1) != (y.descriptor ? y.descriptor->fd : -1))
            return false;
    }
    return true;
}

// Reads every value the way the helper and the client do.
void readAll(const DlrdMessage& message)
{
    for (const QByteArray& key : message.Keys()) {
        message.Has(key, DlrdMessage::StringKind);
        message.Int64(key);
        message.String(key);
        message.StringArray(key);
        const int fd = message.DupDescriptor(key);
        if (fd >= 0)
            ::close(fd);
    }
}

// The descriptors an encoded frame names, as the receiving side holds them.
Descriptors received(const DlrdMessage& message, const QVector<int>& fds)
{
    Descriptors held;
    for (const int fd : fds) {
        for (const DlrdMessage::Value& value : message.Values()) {
            if (value.descriptor && value.descriptor->fd == fd) {
                held << value.descriptor;
                break;
            }
        }
    }
    return held;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    VLUM_FUZZ_CHECK(devNull >= 0);
    if (size < 1)
        return 0;
    Descriptors descriptors;
    for (int i = 0; i < data[0] % (kDlrdMaxDescriptors + 1); ++i)
        descriptors << std::make_shared<const DlrdDescriptor>(::fcntl(devNull, F_DUPFD_CLOEXEC, 0));
    QByteArray stream(reinterpret_cast<const char*>(data + 1), int(size - 1));

    for (;;) {
        quint32 id = 0;
        DlrdMessage message;
        int length = 0;
        if (DlrdDecodeFrame(stream, descriptors, id, message, length) != DlrdDecodeResult::Complete)
            break;
        VLUM_FUZZ_CHECK(length >= kDlrdFrameHeader && length <= stream.size());
        stream.remove(0, length);
        readAll(message);

        QByteArray frame;
        QVector<int> fds;
        QString why;
        VLUM_FUZZ_CHECK(DlrdEncodeFrame(id, message, frame, fds, &why));
        Descriptors again = received(message, fds);
        VLUM_FUZZ_CHECK(again.size() == fds.size());
        quint32 idAgain = 0;
        DlrdMessage decoded;
        int lengthAgain = 0;
        VLUM_FUZZ_CHECK(DlrdDecodeFrame(frame, again, idAgain, decoded, lengthAgain) == DlrdDecodeResult::Complete);
        VLUM_FUZZ_CHECK(lengthAgain == frame.size() && idAgain == id && again.isEmpty());
        VLUM_FUZZ_CHECK(sameMessage(decoded, message));

        QByteArray frameAgain;
        QVector<int> fdsAgain;
        VLUM_FUZZ_CHECK(DlrdEncodeFrame(idAgain, decoded, frameAgain, fdsAgain));
        VLUM_FUZZ_CHECK(frameAgain == frame && fdsAgain == fds);
    }
    return 0;
}
