#include "DlrdWire.h"

#include <QtEndian>

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/uio.h>

namespace {

void fail(QString* why, const char* text)
{
    if (why)
        *why = QString::fromLatin1(text);
}

template <typename T>
void put(QByteArray& out, T value)
{
    char bytes[sizeof(T)];
    qToBigEndian(value, bytes);
    out.append(bytes, int(sizeof(T)));
}

// Reads numbers and byte runs off a frame body; any read past the end
// leaves it failed, so the caller checks once at the end.
class Cursor
{
public:
    Cursor(const char* data, int size) : data(data), size(size) {}

    template <typename T>
    T take()
    {
        if (!has(int(sizeof(T))))
            return T();
        const T value = qFromBigEndian<T>(data + pos);
        pos += int(sizeof(T));
        return value;
    }

    QByteArray bytes(quint32 count)
    {
        if (count > quint32(kDlrdMaxFrame) || !has(int(count)))
            return QByteArray();
        const QByteArray value(data + pos, int(count));
        pos += int(count);
        return value;
    }

    bool ok() const { return good; }
    bool atEnd() const { return pos == size; }

private:
    bool has(int count)
    {
        if (good && size - pos >= count)
            return true;
        good = false;
        return false;
    }

    const char* data;
    int size;
    int pos = 0;
    bool good = true;
};

} // namespace

bool DlrdEncodeFrame(quint32 id, const DlrdMessage& message, QByteArray& frame, QVector<int>& descriptors,
                     QString* why)
{
    const auto& values = message.Values();
    if (values.size() > 0xffff) {
        fail(why, "too many entries");
        return false;
    }
    QByteArray body;
    QVector<int> fds;
    put<quint32>(body, id);
    put<quint16>(body, 0); // descriptor count, filled in below
    put<quint16>(body, quint16(values.size()));
    for (auto it = values.constBegin(); it != values.constEnd(); ++it) {
        const QByteArray& key = it.key();
        if (key.isEmpty() || key.size() > 255) {
            fail(why, "bad key length");
            return false;
        }
        put<quint16>(body, quint16(key.size()));
        body.append(key);
        body.append(char(it->kind));
        switch (it->kind) {
        case DlrdMessage::Int64Kind:
            put<qint64>(body, it->integer);
            break;
        case DlrdMessage::StringKind:
            put<quint32>(body, quint32(it->text.size()));
            body.append(it->text);
            break;
        case DlrdMessage::StringArrayKind:
            put<quint32>(body, quint32(it->texts.size()));
            for (const QByteArray& text : it->texts) {
                put<quint32>(body, quint32(text.size()));
                body.append(text);
            }
            break;
        case DlrdMessage::DescriptorKind:
            if (!it->descriptor || fds.size() >= kDlrdMaxDescriptors) {
                fail(why, "bad or too many descriptors");
                return false;
            }
            put<quint16>(body, quint16(fds.size()));
            fds.append(it->descriptor->fd);
            break;
        }
        // Checked as we go, so a huge array is not built in full first.
        if (body.size() > kDlrdMaxFrame) {
            fail(why, "frame too long");
            return false;
        }
    }
    qToBigEndian<quint16>(quint16(fds.size()), body.data() + 4);
    put<quint32>(frame, quint32(body.size()));
    frame.append(body);
    descriptors += fds;
    return true;
}

DlrdDecodeResult DlrdDecodeFrame(const QByteArray& buffer, QVector<std::shared_ptr<const DlrdDescriptor>>& descriptors,
                                 quint32& id, DlrdMessage& message, int& frameLength, QString* why)
{
    if (buffer.size() < 4)
        return DlrdDecodeResult::NeedMore;
    const quint32 length = qFromBigEndian<quint32>(buffer.constData());
    // Judged before the body arrives: a bad length must not make us wait
    // for, or buffer, megabytes.
    if (length < quint32(kDlrdFrameHeader - 4) || length > quint32(kDlrdMaxFrame)) {
        fail(why, "bad frame length");
        return DlrdDecodeResult::Malformed;
    }
    if (quint32(buffer.size()) - 4 < length)
        return DlrdDecodeResult::NeedMore;

    // From the frame's start, past the length read above: GCC, seeing the
    // shared empty array of an empty QByteArray behind constData() + 4, would
    // warn on Qt 6.
    Cursor in(buffer.constData(), int(length) + 4);
    in.take<quint32>();
    const quint32 frameId = in.take<quint32>();
    const quint16 fdCount = in.take<quint16>();
    const quint16 entries = in.take<quint16>();
    if (fdCount > kDlrdMaxDescriptors || fdCount > descriptors.size()) {
        fail(why, "descriptors missing");
        return DlrdDecodeResult::Malformed;
    }

    DlrdMessage decoded;
    quint32 descriptorsNamed = 0; // one bit per index
    for (int i = 0; i < entries && in.ok(); ++i) {
        const QByteArray key = in.bytes(in.take<quint16>());
        const quint8 kind = in.take<quint8>();
        if (!in.ok() || key.isEmpty() || key.size() > 255 || decoded.Values().contains(key)) {
            fail(why, "bad key");
            return DlrdDecodeResult::Malformed;
        }
        switch (kind) {
        case DlrdMessage::Int64Kind:
            decoded.SetInt64(key, in.take<qint64>());
            break;
        case DlrdMessage::StringKind: {
            const QByteArray text = in.bytes(in.take<quint32>());
            if (text.contains('\0')) {
                fail(why, "NUL in string");
                return DlrdDecodeResult::Malformed;
            }
            decoded.SetString(key, text);
            break;
        }
        case DlrdMessage::StringArrayKind: {
            const quint32 count = in.take<quint32>();
            QList<QByteArray> texts;
            // Every element takes at least four bytes, which bounds the loop.
            for (quint32 n = 0; n < count && in.ok(); ++n) {
                texts.append(in.bytes(in.take<quint32>()));
                if (texts.last().contains('\0')) {
                    fail(why, "NUL in string");
                    return DlrdDecodeResult::Malformed;
                }
            }
            decoded.SetStringArray(key, texts);
            break;
        }
        case DlrdMessage::DescriptorKind: {
            const quint16 index = in.take<quint16>();
            if (index >= fdCount) {
                fail(why, "descriptor index out of range");
                return DlrdDecodeResult::Malformed;
            }
            // The sender gives each entry a descriptor of its own; one shared
            // would make a message that no frame can carry again.
            if (descriptorsNamed & (1u << index)) {
                fail(why, "descriptor named twice");
                return DlrdDecodeResult::Malformed;
            }
            descriptorsNamed |= 1u << index;
            decoded.AdoptDescriptor(key, descriptors.at(index));
            break;
        }
        default:
            fail(why, "unknown value kind");
            return DlrdDecodeResult::Malformed;
        }
    }
    if (!in.ok() || !in.atEnd()) {
        fail(why, in.ok() ? "bytes after the last entry" : "entry runs past the frame");
        return DlrdDecodeResult::Malformed;
    }
    descriptors.remove(0, fdCount);
    id = frameId;
    message = decoded;
    frameLength = int(length) + 4;
    return DlrdDecodeResult::Complete;
}

bool DlrdSendMessage(int socket, quint32 id, const DlrdMessage& message, QString* why)
{
    QByteArray frame;
    QVector<int> fds;
    if (!DlrdEncodeFrame(id, message, frame, fds, why)) {
        errno = EMSGSIZE;
        return false;
    }
    int sent = 0;
    while (sent < frame.size()) {
        iovec iov{frame.data() + sent, size_t(frame.size() - sent)};
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kDlrdMaxDescriptors)];
        if (sent == 0 && !fds.isEmpty()) {
            const size_t bytes = sizeof(int) * size_t(fds.size());
            msg.msg_control = control;
            msg.msg_controllen = CMSG_SPACE(bytes);
            cmsghdr* c = CMSG_FIRSTHDR(&msg);
            c->cmsg_level = SOL_SOCKET;
            c->cmsg_type = SCM_RIGHTS;
            c->cmsg_len = CMSG_LEN(bytes);
            std::memcpy(CMSG_DATA(c), fds.constData(), bytes);
        }
        const ssize_t n = ::sendmsg(socket, &msg, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            fail(why, "send failed");
            return false;
        }
        sent += int(n);
    }
    return true;
}

DlrdFrameReader::Status DlrdFrameReader::ReadAvailable(int socket, QString* why)
{
    char bytes[16 * 1024];
    iovec iov{bytes, sizeof bytes};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kDlrdMaxDescriptors)];
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;

    ssize_t n;
    do
        n = ::recvmsg(socket, &msg, MSG_CMSG_CLOEXEC);
    while (n < 0 && errno == EINTR);
    if (n < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            return Ok;
        fail(why, "receive failed");
        return Failed;
    }
    // Take ownership of whatever arrived before judging it, so nothing leaks.
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS)
            continue;
        const int count = int((c->cmsg_len - CMSG_LEN(0)) / sizeof(int));
        for (int i = 0; i < count; ++i) {
            int fd;
            std::memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof fd);
            descriptors.append(std::make_shared<const DlrdDescriptor>(fd));
        }
    }
    if (msg.msg_flags & MSG_CTRUNC) {
        fail(why, "descriptors cut off");
        return Failed;
    }
    if (descriptors.size() > 4 * kDlrdMaxDescriptors) {
        fail(why, "too many descriptors");
        return Failed;
    }
    if (n == 0)
        return Closed;
    buffer.append(bytes, int(n));
    return Ok;
}

DlrdDecodeResult DlrdFrameReader::Next(quint32& id, DlrdMessage& message, QString* why)
{
    int length = 0;
    const DlrdDecodeResult result = DlrdDecodeFrame(buffer, descriptors, id, message, length, why);
    if (result == DlrdDecodeResult::Complete)
        buffer.remove(0, length);
    return result;
}
