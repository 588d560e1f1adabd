#pragma once

// The frames that carry messages over the helper's stream socket.
//
//   u32  length of what follows (big-endian, like every number here),
//        at least kDlrdFrameHeader - 4, at most kDlrdMaxFrame
//   u32  message id: a request's serial, echoed by its reply; 0 for a
//        message the helper sends on its own
//   u16  number of descriptors that travel with the frame (SCM_RIGHTS)
//   u16  number of entries, then for each:
//        u16 key length (1 to 255), key bytes, u8 kind, value:
//          int64         8 bytes, two's complement
//          string        u32 length, bytes (no NUL)
//          string array  u32 count, then count times u32 length and bytes
//          descriptor    u16 index among the frame's descriptors, each
//                        named by one entry at most
//
// A frame that breaks any of these rules is malformed; the connection that
// sent it is closed.

#include "DlrdMessage.h"

#include <QByteArray>
#include <QString>
#include <QVector>

#include <memory>

inline constexpr int kDlrdFrameHeader = 12;
inline constexpr int kDlrdMaxFrame = 64 * 1024;
inline constexpr int kDlrdMaxDescriptors = 4;

enum class DlrdDecodeResult { Complete, NeedMore, Malformed };

// Appends the frame for `message` to `frame`; the descriptors to send with
// it (borrowed from the message) go to `descriptors`, in index order.
// False, with nothing appended, when the frame would exceed the limits.
bool DlrdEncodeFrame(quint32 id, const DlrdMessage& message, QByteArray& frame, QVector<int>& descriptors,
                     QString* why = nullptr);

// Decodes the frame at the start of `buffer`. `descriptors` are those
// received so far, oldest first; a complete frame takes the ones it counts
// from the front. On Complete, `frameLength` is the number of bytes the
// frame took; NeedMore means the buffer holds only part of a frame.
DlrdDecodeResult DlrdDecodeFrame(const QByteArray& buffer, QVector<std::shared_ptr<const DlrdDescriptor>>& descriptors,
                                 quint32& id, DlrdMessage& message, int& frameLength, QString* why = nullptr);

// Writes one whole frame, its descriptors riding with the first byte.
// False (with errno set) when the socket fails or the message is too big.
bool DlrdSendMessage(int socket, quint32 id, const DlrdMessage& message, QString* why = nullptr);

// Gathers bytes and descriptors from a socket and cuts them into messages.
class DlrdFrameReader
{
public:
    enum Status { Ok, Closed, Failed };

    // One receive call. Closed at end-of-file; Failed when the socket fails
    // or descriptors were cut off or piled up.
    Status ReadAvailable(int socket, QString* why = nullptr);

    DlrdDecodeResult Next(quint32& id, DlrdMessage& message, QString* why = nullptr);

    // Bytes of a frame that has not arrived completely.
    bool HasPartialFrame() const { return !buffer.isEmpty(); }

private:
    QByteArray buffer;
    QVector<std::shared_ptr<const DlrdDescriptor>> descriptors;
};
