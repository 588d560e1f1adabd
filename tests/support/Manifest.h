#pragma once

// Manifests as the vendor's server sends them, record by record.

#include <QByteArrayList>
#include <QString>

// One offer's ProductInfo record, its texts escaped. An empty version
// leaves the version fields out; a null address is one where nothing
// listens.
inline QByteArray offer(const QString& version, const QString& name, const QString& simple, const QString& build,
                        const QString& behavior = QStringLiteral("automatic"), const QString& size = QStringLiteral("1000"),
                        const QString& url = QString())
{
    QString fields = QStringLiteral("<Name>%1</Name><SimpleName>%2</SimpleName><BuildID>%3</BuildID>"
                                    "<DefaultBehavior>%4</DefaultBehavior><FileSize>%5</FileSize>"
                                    "<DownloadURL>%6</DownloadURL>")
                         .arg(name.toHtmlEscaped(), simple.toHtmlEscaped(), build, behavior, size,
                              (url.isNull() ? "https://127.0.0.1:9/packages/" + name : url).toHtmlEscaped());
    if (!version.isEmpty())
        fields += QStringLiteral("<VersionMajor>%1</VersionMajor><VersionMinor>%2</VersionMinor>")
                      .arg(version.section(QLatin1Char('.'), 0, 0), version.section(QLatin1Char('.'), 1));
    return "<ProductInfo>" + fields.toUtf8() + "</ProductInfo>\n";
}

inline QByteArray manifest(const QByteArrayList& offers)
{
    return "<Manifest>\n" + offers.join() + "</Manifest>\n";
}
