#include "DlrInstallerLine.h"

#include "InstallerOutput.h"

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
    static const QRegularExpression kProgress(QLatin1String(InstallerOutput::kLead)
                                              + QLatin1String(InstallerOutput::kPercent) + QStringLiteral("([0-9.]+)"));
    const QRegularExpressionMatch progress = kProgress.match(line.plain);
    if (progress.hasMatch()) {
        // Read as a float; digits and points that make no number ("1.2.3",
        // or past a float's range) count as 0.
        bool ok = false;
        const float percent = progress.capturedView(1).toFloat(&ok);
        line.kind = DlrInstallerLine::Progress;
        line.fraction = ok ? qBound(0.0, double(percent), 100.0) / 100.0 : 0.0;
        return line;
    }

    QString text = line.plain;
    text.remove(QLatin1String(InstallerOutput::kLead));
    text.remove(QLatin1String(InstallerOutput::kPhase));
    text.remove(QLatin1String(InstallerOutput::kStatus));
    line.text = text;
    const QLatin1String failure(InstallerOutput::kFailure);
    if (line.plain.startsWith(QLatin1String(InstallerOutput::kSuccess))) {
        line.kind = DlrInstallerLine::Success;
    } else if (line.plain.startsWith(failure)) {
        line.kind = DlrInstallerLine::Failure;
        line.reason = line.plain.mid(failure.size());
    } else {
        line.kind = DlrInstallerLine::Status;
    }
    return line;
}
