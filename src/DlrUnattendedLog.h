#pragma once

#include <QJsonObject>
#include <QString>

#include <cstdio>

// The unattended run's events on standard output, one line each: for a
// log, "<event>: [<product>: ]<message>"; for a script (-json), the same as
// a JSON object with "event", "product", "message" and the event's fields.
class DlrUnattendedLog
{
public:
    explicit DlrUnattendedLog(bool json, std::FILE* out = stdout);

    void Event(const QString& event, const QString& product, const QString& message,
               const QJsonObject& fields = {}) const;

    // The line as written, without its newline.
    static QByteArray Format(bool json, const QString& event, const QString& product, const QString& message,
                             const QJsonObject& fields);

private:
    bool json;
    std::FILE* out;
};
