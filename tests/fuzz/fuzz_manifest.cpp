// The manifest reader as the program runs it on the server's reply, and the
// offer fields it fills as the selection reads them.

#include "FuzzSupport.h"

#include "DlrManifestElement.h"
#include "DlrManifestHandler.h"

#include <QRegExp>

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray document(reinterpret_cast<const char*>(data), int(size));
    QList<DlrManifestElement> offers;
    QUrl successURL;
    DlrReadManifest(document, offers, successURL);

    for (const DlrManifestElement& offer : qAsConst(offers)) {
        // A negative size would lower the space needed.
        VLUM_FUZZ_CHECK(offer.FileSize >= 0);
        int buildId = 0;
        offer.GetBuildId(buildId);
        QString version;
        offer.GetVersion(version);
        float number = 0;
        offer.GetVersion(number);
        offer.HasPlainName();
        offer.GetIsCoreServer();
        offer.GetIsVellumaForMaya();
        offer.GetIsVWSForMaya();
        offer.GetIsHarrow();
        DlrManifestElement copy = offer;
        copy.GetMajorVersion();
    }
    QRegExp any(QStringLiteral(".*"));
    DlrManifestElement::FindHighestVersionOfProduct(offers, any);
    return 0;
}
