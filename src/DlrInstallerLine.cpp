#include "DlrInstallerLine.h"

#include <cmath>

DlrInstallerLine DlrReadInstallerLine(const QByteArray& bytes)
{
    // Typographic characters (an ellipsis in UTF-8) are dropped, not decoded.
    QByteArray plain;
    plain.reserve(bytes.size());
    for (const char byte : bytes) {
        if (static_cast<unsigned char>(byte) < 0x80)
            plain += byte;
    }
    plain = plain.trimmed();
    const int nul = plain.indexOf('\0');
    if (nul >= 0)
        plain.truncate(nul);

    DlrInstallerLine line;
    line.plain = QString::fromLatin1(plain);
    // "installer:%42.5" anywhere moves the bar, and only the bar.
    static const QByteArray kProgress("installer:%");
    const int at = plain.indexOf(kProgress);
    if (at >= 0) {
        int end = at + kProgress.size();
        while (end < plain.size() && !std::isspace(static_cast<unsigned char>(plain.at(end))))
            ++end;
        const QByteArray number = plain.mid(at + kProgress.size(), end - at - kProgress.size());
        bool ok = false;
        const double percent = number.toDouble(&ok);
        if (ok && std::isfinite(percent)) {
            line.kind = DlrInstallerLine::Progress;
            line.fraction = qBound(0.0, percent, 100.0) / 100.0;
        }
        return line;
    }

    QString text = line.plain;
    text.remove(QStringLiteral("installer:"));
    text.remove(QStringLiteral("PHASE:"));
    text.remove(QStringLiteral("STATUS:"));
    line.kind = DlrInstallerLine::Status;
    line.text = text;
    return line;
}
