// The system profile reader, fed the document in pieces cut where the input
// says, as pipe reads cut it. Whatever the cuts, the facts must be those of
// the whole document read at once.
//
// Input: one byte n (low three bits: 0 to 7 cuts), n cut positions of two
// bytes each (little-endian, taken modulo the document's length), then the
// document.

#include "FuzzSupport.h"

#include "DlrProfileReader.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace {

DlrProfileFacts readPieces(const QList<QByteArray>& pieces)
{
    int next = 0;
    return DlrReadProfile([&] { return next < pieces.size() ? pieces.at(next++) : QByteArray(); });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    const size_t cuts = data[0] & 7;
    if (size < 1 + 2 * cuts)
        return 0;
    const QByteArray document(reinterpret_cast<const char*>(data + 1 + 2 * cuts), int(size - 1 - 2 * cuts));
    if (document.isEmpty())
        return 0;

    std::vector<int> at{0, int(document.size())};
    for (size_t i = 0; i < cuts; ++i)
        at.push_back((data[1 + 2 * i] | data[2 + 2 * i] << 8) % document.size());
    std::sort(at.begin(), at.end());
    QList<QByteArray> pieces;
    for (size_t i = 0; i + 1 < at.size(); ++i) {
        // An empty piece is the end of the output.
        if (at[i + 1] > at[i])
            pieces << document.mid(at[i], at[i + 1] - at[i]);
    }

    const DlrProfileFacts whole = readPieces({document});
    const DlrProfileFacts cut = readPieces(pieces);
    VLUM_FUZZ_CHECK(cut.complete == whole.complete);
    VLUM_FUZZ_CHECK(cut.properties == whole.properties);
    VLUM_FUZZ_CHECK(cut.products == whole.products);
    return 0;
}
