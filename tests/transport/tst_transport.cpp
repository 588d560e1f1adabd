// The helper's wire format on byte buffers. Descriptors over real sockets
// are the helper suite's: every file and output it hands over is one.

#include "DlrdWire.h"

#include <QtEndian>
#include <QtTest>

#include <fcntl.h>

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
    // Reading a frame before all of it arrived must wait, never guess; and
    // a frame must not swallow the one after it.
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
        const QByteArray first = encode(0xfffffffe, message);
        const QByteArray stream = first + encode(2, DlrdMessage());

        Descriptors none;
        quint32 id = 0;
        DlrdMessage decoded;
        int length = 0;
        for (int cut = 0; cut < first.size(); ++cut)
            QCOMPARE(DlrdDecodeFrame(stream.left(cut), none, id, decoded, length), DlrdDecodeResult::NeedMore);
        QCOMPARE(DlrdDecodeFrame(stream, none, id, decoded, length), DlrdDecodeResult::Complete);
        QCOMPARE(id, 0xfffffffeu);
        QCOMPARE(length, first.size());
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
        QCOMPARE(DlrdDecodeFrame(stream.mid(length), none, id, decoded, length), DlrdDecodeResult::Complete);
        QCOMPARE(id, 2u);
        QVERIFY(decoded.Keys().isEmpty());
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
};

QTEST_GUILESS_MAIN(TestTransport)
#include "tst_transport.moc"
