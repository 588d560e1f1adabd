#include "DlrUnattendedLog.h"

#include <QJsonDocument>

DlrUnattendedLog::DlrUnattendedLog(bool json, std::FILE* out)
    : json(json)
    , out(out)
{
}

QByteArray DlrUnattendedLog::Format(bool json, const QString& event, const QString& product, const QString& message,
                                    const QJsonObject& fields)
{
    if (json) {
        QJsonObject object = fields;
        object.insert(QStringLiteral("event"), event);
        if (!product.isEmpty())
            object.insert(QStringLiteral("product"), product);
        object.insert(QStringLiteral("message"), message);
        return QJsonDocument(object).toJson(QJsonDocument::Compact);
    }
    QString line = event + QStringLiteral(": ");
    if (!product.isEmpty())
        line += product + QStringLiteral(": ");
    line += message;
    // Names and reasons come from the server: one event stays one line.
    for (QChar& c : line) {
        if (c.category() == QChar::Other_Control)
            c = QLatin1Char(' ');
    }
    return line.toUtf8();
}

void DlrUnattendedLog::Event(const QString& event, const QString& product, const QString& message,
                             const QJsonObject& fields) const
{
    const QByteArray line = Format(json, event, product, message, fields) + '\n';
    std::fwrite(line.constData(), 1, size_t(line.size()), out);
    // A script reading the pipe sees each event when it happens.
    std::fflush(out);
}
