// The helper's wire format on byte buffers, and descriptors over a real
// socket pair.

#include "DlrdWire.h"

#include <QtEndian>
#include <QtTest>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

using Descriptors = QVector<std::shared_ptr<const DlrdDescriptor>>;

namespace {

// Writes frames by hand, so that the tests can say exactly which rule a
// broken frame breaks.
class Frame
{
public:
    Frame& u8(quint8 v) { return raw(QByteArray(1, char(v))); }
    Frame& u16(quint16 v) { return number(v); }
    Frame& u32(quint32 v) { return number(v); }
    Frame& i64(qint64 v) { return number(v); }
    Frame& raw(const QByteArray& bytes)
    {
        body += bytes;
        return *this;
    }
    Frame& key(const QByteArray& name, quint8 kind) { return u16(quint16(name.size())).raw(name).u8(kind); }
    // Header: id 1, then the counts.
    static Frame Header(quint16 fds, quint16 entries) { return Frame().u32(1).u16(fds).u16(entries); }
    QByteArray Bytes() const { return Frame().u32(quint32(body.size())).body + body; }

private:
    template <typename T>
    Frame& number(T v)
    {
        char b[sizeof(T)];
        qToBigEndian(v, b);
        body.append(b, int(sizeof(T)));
        return *this;
    }
    QByteArray body;
};

QByteArray encode(quint32 id, const DlrdMessage& message)
{
    QByteArray frame;
    QVector<int> fds;
    if (!DlrdEncodeFrame(id, message, frame, fds))
        return QByteArray();
    return frame;
}

} // namespace

Q_DECLARE_METATYPE(DlrdDecodeResult)

class TestTransport : public QObject
{
    Q_OBJECT

private slots:
    // A value that changes on the way (sign, byte order, empty entries,
    // bytes above 0x7f) would reach the helper as a different request.
    void roundTrip()
    {
        DlrdMessage message;
        message.SetInt64("message", 66003);
        message.SetInt64("min", std::numeric_limits<qint64>::min());
        message.SetInt64("negative", -1);
        message.SetString("empty", "");
        message.SetString("text", "Installing Velluma\xe2\x80\xa6");
        message.SetStringArray("argv", {"/x/installer", "", "-package", "/tmp/a b.pkg"});
        message.SetStringArray("none", {});

        const QByteArray frame = encode(0xfffffffe, message);
        QVERIFY(!frame.isEmpty());
        Descriptors none;
        quint32 id = 0;
        DlrdMessage decoded;
        int length = 0;
        QCOMPARE(DlrdDecodeFrame(frame, none, id, decoded, length), DlrdDecodeResult::Complete);
        QCOMPARE(id, 0xfffffffeu);
        QCOMPARE(length, frame.size());
        QCOMPARE(decoded.Keys(), message.Keys());
        QCOMPARE(decoded.Int64("message"), 66003);
        QCOMPARE(decoded.Int64("min"), std::numeric_limits<qint64>::min());
        QCOMPARE(decoded.Int64("negative"), -1);
        QVERIFY(decoded.String("empty") && decoded.String("empty")->isEmpty());
        QCOMPARE(*decoded.String("text"), QByteArray("Installing Velluma\xe2\x80\xa6"));
        QCOMPARE(decoded.StringArray("argv"), message.StringArray("argv"));
        QVERIFY(decoded.Has("none", DlrdMessage::StringArrayKind));
        // A value read as the wrong kind is absent, not reinterpreted.
        QCOMPARE(decoded.String("message"), nullptr);
        QCOMPARE(decoded.Int64("text"), 0);
    }

    // Reading a frame before all of it arrived must wait, never guess; and
    // a frame must not swallow the one after it.
    void partialFrames()
    {
        DlrdMessage first;
        first.SetStringArray("argv", {"a", "bc"});
        DlrdMessage second;
        second.SetInt64("message", 66001);
        const QByteArray one = encode(1, first);
        const QByteArray stream = one + encode(2, second);

        Descriptors none;
        for (int cut = 0; cut < one.size(); ++cut) {
            quint32 id = 0;
            DlrdMessage decoded;
            int length = 0;
            QCOMPARE(DlrdDecodeFrame(stream.left(cut), none, id, decoded, length), DlrdDecodeResult::NeedMore);
        }
        quint32 id = 0;
        DlrdMessage decoded;
        int length = 0;
        QCOMPARE(DlrdDecodeFrame(stream, none, id, decoded, length), DlrdDecodeResult::Complete);
        QCOMPARE(length, one.size());
        QCOMPARE(DlrdDecodeFrame(stream.mid(length), none, id, decoded, length), DlrdDecodeResult::Complete);
        QCOMPARE(id, 2u);
        QCOMPARE(decoded.Int64("message"), 66001);
    }

    void malformed_data()
    {
        QTest::addColumn<QByteArray>("frame");
        QTest::addColumn<int>("descriptorsAvailable");

        QTest::newRow("length over the limit, judged before the body arrives")
            << QByteArray("\0\1\0\1", 4) /* 64 KiB + 1 */ << 0;
        QTest::newRow("length shorter than a header") << QByteArray("\0\0\0\x04" "abcd", 8) << 0;
        QTest::newRow("unknown value kind") << Frame::Header(0, 1).key("k", 9).i64(1).Bytes() << 0;
        QTest::newRow("empty key") << Frame::Header(0, 1).key("", 1).i64(1).Bytes() << 0;
        QTest::newRow("same key twice")
            << Frame::Header(0, 2).key("k", 1).i64(1).key("k", 1).i64(2).Bytes() << 0;
        QTest::newRow("string longer than the frame")
            << Frame::Header(0, 1).key("k", 2).u32(100).raw("abc").Bytes() << 0;
        QTest::newRow("NUL inside a string") << Frame::Header(0, 1).key("k", 2).u32(3).raw(QByteArray("a\0b", 3)).Bytes()
                                              << 0;
        QTest::newRow("array count larger than its elements")
            << Frame::Header(0, 1).key("k", 3).u32(0xffffffff).u32(1).raw("x").Bytes() << 0;
        QTest::newRow("more entries announced than present") << Frame::Header(0, 2).key("k", 1).i64(1).Bytes() << 0;
        QTest::newRow("bytes after the last entry") << Frame::Header(0, 1).key("k", 1).i64(1).u8(0).Bytes() << 0;
        QTest::newRow("descriptors announced but not received")
            << Frame::Header(1, 1).key("fd", 4).u16(0).Bytes() << 0;
        QTest::newRow("descriptor index beyond the frame's")
            << Frame::Header(1, 1).key("fd", 4).u16(1).Bytes() << 2;
        QTest::newRow("one descriptor named by two entries")
            << Frame::Header(1, 2).key("a", 4).u16(0).key("b", 4).u16(0).Bytes() << 1;
        QTest::newRow("more descriptors than a frame may carry")
            << Frame::Header(kDlrdMaxDescriptors + 1, 0).Bytes() << kDlrdMaxDescriptors + 1;
    }

    // Each of these must end the connection rather than be read as
    // something else, wait forever, or read past the buffer.
    void malformed()
    {
        QFETCH(QByteArray, frame);
        QFETCH(int, descriptorsAvailable);

        Descriptors received;
        for (int i = 0; i < descriptorsAvailable; ++i)
            received.append(std::make_shared<const DlrdDescriptor>(::open("/dev/null", O_RDONLY | O_CLOEXEC)));
        quint32 id = 0;
        DlrdMessage decoded;
        int length = 0;
        QString why;
        QCOMPARE(DlrdDecodeFrame(frame, received, id, decoded, length, &why), DlrdDecodeResult::Malformed);
        QVERIFY(!why.isEmpty());
        QCOMPARE(received.size(), descriptorsAvailable); // nothing taken by a frame we refused
    }

    // A message too big for one frame is refused by the sender, whole.
    void encodeRefusesOversized()
    {
        DlrdMessage message;
        message.SetStringArray("argv", QList<QByteArray>() << QByteArray(kDlrdMaxFrame, 'x'));
        QByteArray frame("kept");
        QVector<int> fds;
        QVERIFY(!DlrdEncodeFrame(1, message, frame, fds));
        QCOMPARE(frame, QByteArray("kept"));
    }

    // Descriptors must arrive with the frame that names them, even when the
    // frame's bytes come in pieces, and stay usable after the sender closed
    // its copy.
    void descriptorsOverSocket()
    {
        int pair[2];
        QCOMPARE(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
        int pipeFds[2];
        QCOMPARE(::pipe2(pipeFds, O_CLOEXEC), 0);

        DlrdMessage message;
        message.SetInt64("childpid", 42);
        QVERIFY(message.SetDescriptor("fd", pipeFds[0]));
        ::close(pipeFds[0]);
        QVERIFY(DlrdSendMessage(pair[0], 7, message));
        message = DlrdMessage(); // the sender's copy is gone too

        DlrdFrameReader reader;
        quint32 id = 0;
        DlrdMessage received;
        DlrdDecodeResult result = DlrdDecodeResult::NeedMore;
        while (result == DlrdDecodeResult::NeedMore) {
            QCOMPARE(reader.ReadAvailable(pair[1]), DlrdFrameReader::Ok);
            result = reader.Next(id, received);
        }
        QCOMPARE(result, DlrdDecodeResult::Complete);
        QCOMPARE(id, 7u);
        QCOMPARE(received.Int64("childpid"), 42);
        const int fd = received.DupDescriptor("fd");
        QVERIFY(fd >= 0);
        QCOMPARE(::write(pipeFds[1], "ok", 2), ssize_t(2));
        ::close(pipeFds[1]);
        char text[3] = {};
        QCOMPARE(::read(fd, text, 2), ssize_t(2));
        QCOMPARE(QByteArray(text), QByteArray("ok"));
        ::close(fd);

        // Then a frame written a byte at a time.
        DlrdMessage next;
        next.SetString("event", "terminating");
        const QByteArray bytes = encode(0, next);
        for (int i = 0; i < bytes.size(); ++i) {
            QCOMPARE(reader.Next(id, received), DlrdDecodeResult::NeedMore);
            QCOMPARE(::write(pair[0], bytes.constData() + i, 1), ssize_t(1));
            QCOMPARE(reader.ReadAvailable(pair[1]), DlrdFrameReader::Ok);
        }
        QCOMPARE(reader.Next(id, received), DlrdDecodeResult::Complete);
        QCOMPARE(*received.String("event"), QByteArray("terminating"));
        QVERIFY(!reader.HasPartialFrame());

        ::close(pair[0]);
        QCOMPARE(reader.ReadAvailable(pair[1]), DlrdFrameReader::Closed);
        ::close(pair[1]);
    }
};

QTEST_GUILESS_MAIN(TestTransport)
#include "tst_transport.moc"
