#include "DlrNetworkError.h"

QString DlrNetworkError(QNetworkReply::NetworkError code)
{
    const char* text = nullptr;
    switch (code) {
    case QNetworkReply::NoError:
        text = "no error condition.";
        break;
    case QNetworkReply::ConnectionRefusedError:
        text = "the remote server refused the connection (the server is not accepting requests)";
        break;
    case QNetworkReply::RemoteHostClosedError:
        text = "the remote server closed the connection prematurely, before the entire reply was received and processed";
        break;
    case QNetworkReply::HostNotFoundError:
        text = "the remote host name was not found (DNS did not know the server)";
        break;
    case QNetworkReply::TimeoutError:
        text = "the connection to the remote server timed out";
        break;
    case QNetworkReply::OperationCanceledError:
        text = "the operation was canceled via calls to abort() or close() before it was finished.";
        break;
    case QNetworkReply::SslHandshakeFailedError:
        text = "the SSL/TLS handshake failed and the encrypted channel could not be established. The sslErrors() signal should have been emitted.";
        break;
    case QNetworkReply::TemporaryNetworkFailureError:
        text = "the connection was broken due to disconnection from the network, however the system has initiated roaming to another access point. The request should be resubmitted and will be processed as soon as the connection is re-established.";
        break;
    case QNetworkReply::UnknownNetworkError:
        text = "an unknown network-related error was detected";
        break;
    case QNetworkReply::ProxyConnectionRefusedError:
        text = "the connection to the proxy server was refused (the proxy server is not accepting requests)";
        break;
    case QNetworkReply::ProxyConnectionClosedError:
        text = "the proxy server closed the connection prematurely, before the entire reply was received and processed";
        break;
    case QNetworkReply::ProxyNotFoundError:
        text = "the proxy host name was not found (invalid proxy hostname)";
        break;
    case QNetworkReply::ProxyTimeoutError:
        text = "the connection to the proxy timed out or the proxy did not reply in time to the request sent";
        break;
    case QNetworkReply::ProxyAuthenticationRequiredError:
        text = "the proxy requires authentication in order to honour the request but did not accept any credentials offered (if any)";
        break;
    case QNetworkReply::UnknownProxyError:
        text = "an unknown proxy-related error was detected";
        break;
    case QNetworkReply::ContentAccessDenied:
        text = "the access to the remote content was denied (similar to HTTP error 401)";
        break;
    case QNetworkReply::ContentOperationNotPermittedError:
        text = "the operation requested on the remote content is not permitted";
        break;
    case QNetworkReply::ContentNotFoundError:
        text = "the remote content was not found at the server (similar to HTTP error 404)";
        break;
    case QNetworkReply::AuthenticationRequiredError:
        text = "the remote server requires authentication to serve the content but the credentials provided were not accepted (if any)";
        break;
    case QNetworkReply::ContentReSendError:
        text = "the request needed to be sent again, but this failed for example because the upload data could not be read a second time";
        break;
    case QNetworkReply::UnknownContentError:
        text = "an unknown error related to the remote content was detected";
        break;
    case QNetworkReply::ProtocolUnknownError:
        text = "the Network Access API cannot honor the request because the protocol is not known";
        break;
    case QNetworkReply::ProtocolInvalidOperationError:
        text = "the requested operation is invalid for this protocol";
        break;
    case QNetworkReply::ProtocolFailure:
        text = "a breakdown in protocol was detected (parsing error, invalid or unexpected responses, etc.)";
        break;
    default:
        // Codes newer than this table (8 to 11, 100, 200, 206, 207) and the
        // server error range all fall here.
        break;
    }
    if (text)
        return QString::fromLatin1(text);
    return QStringLiteral("Unknown network error ") + QString::number(static_cast<int>(code));
}
