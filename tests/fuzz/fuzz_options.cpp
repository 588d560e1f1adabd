// The command line and the settings file, read as the application object
// reads them.
//
// Input: one byte n, then n arguments, each ended by a NUL (the last may end
// with the input); what follows the n-th NUL is the settings file.

#include "FuzzSupport.h"

#include "DlrOptions.h"

#include <QFile>
#include <QTemporaryDir>

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    const QByteArray input(reinterpret_cast<const char*>(data + 1), int(size - 1));
    QStringList arguments;
    int at = 0;
    while (arguments.size() < data[0] && at < input.size()) {
        int end = input.indexOf('\0', at);
        if (end < 0)
            end = input.size();
        arguments << QString::fromUtf8(input.mid(at, end - at));
        at = end + 1;
    }

    const DlrOptions options = DlrParseArguments(arguments);
    for (const QString& unknown : options.unknownOptions)
        VLUM_FUZZ_CHECK(unknown.startsWith(QLatin1Char('-')));
    VLUM_FUZZ_CHECK(!options.transferTimeout);

    static const QTemporaryDir scratch;
    VLUM_FUZZ_CHECK(scratch.isValid());
    const QString path = scratch.filePath(QStringLiteral("vluminstaller.ini"));
    QFile file(path);
    const QByteArray text = input.mid(at);
    VLUM_FUZZ_CHECK(file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(text) == text.size());
    file.close();
    const DlrOptions settings = DlrReadSettingsFile(path);
    VLUM_FUZZ_CHECK(settings.unknownOptions.isEmpty() && !settings.usageAsked);
    if (settings.transferTimeout)
        VLUM_FUZZ_CHECK(*settings.transferTimeout >= 1 && *settings.transferTimeout <= 24 * 3600);
    return 0;
}
