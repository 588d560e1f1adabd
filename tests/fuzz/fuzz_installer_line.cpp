// What the download page makes of one read of the package installer's
// output: a bar fraction within 0..1, or a plain ASCII text.

#include "FuzzSupport.h"

#include "DlrInstallerLine.h"

#include <cmath>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const DlrInstallerLine line = DlrReadInstallerLine(QByteArray(reinterpret_cast<const char*>(data), int(size)));
    switch (line.kind) {
    case DlrInstallerLine::Progress:
        VLUM_FUZZ_CHECK(std::isfinite(line.fraction) && line.fraction >= 0 && line.fraction <= 1);
        break;
    case DlrInstallerLine::Status:
    case DlrInstallerLine::Success:
    case DlrInstallerLine::Failure:
        for (const QChar c : line.text)
            VLUM_FUZZ_CHECK(c.unicode() > 0 && c.unicode() < 0x80);
        break;
    case DlrInstallerLine::Nothing:
        break;
    }
    return 0;
}
