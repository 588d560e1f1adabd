#pragma once

#include <QNetworkReply>
#include <QString>

// Fixed English text for a network error code, for log lines and for the
// reasons shown to the user.
QString DlrNetworkError(QNetworkReply::NetworkError code);
