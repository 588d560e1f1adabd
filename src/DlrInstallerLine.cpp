#include "DlrInstallerLine.h"

#include <QRegularExpression>

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
    // The first "installer:%" followed by digits and points moves the bar,
    // and only the bar; "installer:%abc" is a status like any other.
    static const QRegularExpression kProgress(QStringLiteral("installer:%([0-9.]+)"));
    const QRegularExpressionMatch progress = kProgress.match(line.plain);
    if (progress.hasMatch()) {
        // Read as a float; digits and points that make no number ("1.2.3",
        // or past a float's range) count as 0.
        bool ok = false;
        const float percent = progress.capturedRef(1).toFloat(&ok);
        line.kind = DlrInstallerLine::Progress;
        line.fraction = ok ? qBound(0.0, double(percent), 100.0) / 100.0 : 0.0;
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
