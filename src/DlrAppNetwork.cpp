// The application object's server side: the shared network manager, the
// routing of finished replies, the TLS policy and the manifest request.

#include "DlrApp.h"

#include "DlrManifestHandler.h"
#include "DlrNetworkError.h"
#include "DlrTransferTimeout.h"

#include <QDebug>
#include <QFile>
#include <QFileInfo>
#include <QHttpMultiPart>
#include <QMessageBox>
#include <QNetworkAccessManager>
#include <QNetworkProxyFactory>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QSslConfiguration>

namespace {

// The system's proxy settings (on Linux http_proxy, https_proxy and
// no_proxy) for every request. Qt's application-wide factory never proxies
// a loopback address whatever the environment says; this one leaves that
// to no_proxy, as other network tools do.
class SystemProxyFactory : public QNetworkProxyFactory
{
public:
    QList<QNetworkProxy> queryProxy(const QNetworkProxyQuery& query) override
    {
        return systemProxyForQuery(query);
    }
};

// The PEM certificates of a regular file; a FIFO or a device named by
// mistake must not stall the run, nor a huge file fill the memory.
QList<QSslCertificate> readCertificates(const QString& path)
{
    QFile file(path);
    if (!QFileInfo(path).isFile() || !file.open(QIODevice::ReadOnly))
        return {};
    return QSslCertificate::fromData(file.read(4 << 20), QSsl::Pem);
}

} // namespace

QNetworkAccessManager* DlrApp::getNetworkManager()
{
    if (networkManager)
        return networkManager;
    networkManager = new QNetworkAccessManager(this);
    networkManager->setProxyFactory(new SystemProxyFactory);
    connect(networkManager, SIGNAL(finished(QNetworkReply*)), this, SLOT(finishedReply(QNetworkReply*)));
    return networkManager;
}

void DlrApp::finishedReply(QNetworkReply* reply)
{
    if (!reply) {
        qDebug() << "Oy! null reply";
        return;
    }
    if (reply == manifestReply)
        replyFromManifestRequest(reply);
    else if (reply == downloadReply)
        finishedDownload(reply);
}

bool DlrApp::TrustKnownRootsOnly(QString& why)
{
    QList<QSslCertificate> roots = QSslConfiguration::systemCaCertificates();
    const QDir certs(resourcePath("../Resources", "certs"));
    for (const QString& name : certs.entryList({QStringLiteral("*.pem")}, QDir::Files))
        roots += readCertificates(certs.filePath(name));
    if (!caFile.isEmpty()) {
        const QList<QSslCertificate> named = readCertificates(caFile);
        if (named.isEmpty()) {
            why = QStringLiteral("no certificate could be read from %1 (cafile)").arg(caFile);
            return false;
        }
        roots += named;
    }
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    tls.setCaCertificates(roots);
    QSslConfiguration::setDefaultConfiguration(tls);
    return true;
}

void DlrApp::manifestSslErrors(QList<QSslError> errors)
{
    if (manifestReply)
        sslErrors(manifestReply, errors);
}

void DlrApp::downloadSslErrors(QList<QSslError> errors)
{
    if (downloadReply)
        sslErrors(downloadReply, errors);
}

void DlrApp::sslErrors(QNetworkReply* reply, const QList<QSslError>& errors)
{
    if (sslErrorsAccepted) {
        reply->ignoreSslErrors();
        return;
    }
    // Nobody to ask, nor to notice a stranger's root: the safe answer is no.
    // The vendor's own roots were trusted when the run began.
    if (certificatePolicy == DlrCertificatePolicy::Refuse) {
        emit certificateRefused(errors);
        return;
    }
    // Our own servers are signed by a root the system need not know.
    if (errors.size() == 1 && errors.first().error() == QSslError::SelfSignedCertificateInChain) {
        reply->ignoreSslErrors();
        return;
    }

    // The handshake is decided when this slot returns, so the user answers
    // here, in a nested event loop, for as long as they need.
    const QPointer<QNetworkReply> asked(reply);
    const DlrTransferTimeout::Hold noStallWhileAsking(reply);
    QMessageBox box(QMessageBox::Critical, QString(),
                    QStringLiteral("There was issue with the SSL connection. Continue anyway?"),
                    QMessageBox::Ok | QMessageBox::Cancel);
    box.setDefaultButton(QMessageBox::Ok);
    if (errors.size() == 1) {
        box.setInformativeText(errors.first().errorString());
    } else {
        box.setInformativeText(QStringLiteral("There were multiple issues with the SSL connection"));
        QStringList details;
        for (const QSslError& error : errors) {
            qDebug() << "ssl error:" << error.errorString();
            details << error.errorString();
        }
        box.setDetailedText(details.join(QStringLiteral("---")));
    }
    if (box.exec() == QMessageBox::Ok) {
        if (asked)
            reply->ignoreSslErrors();
        sslErrorsAccepted = true;
    }
}

void DlrApp::RequestManifest(const QUrl& url, const QString& user, const QString& pass, const QString& platform)
{
    manifest.clear();

    if (!alternateManifestFile.isEmpty()) {
        qDebug() << "Loading manifest from disk ONLY";
        alternateManifest();
        emit validManifestReply();
        return;
    }

    qDebug() << "Requesting manifest from " << url;

    auto* body = new QHttpMultiPart(QHttpMultiPart::FormDataType);
    const auto addField = [body](const char* name, const QString& value) {
        QHttpPart part;
        part.setRawHeader("Content-Disposition", QByteArray("form-data; name=\"") + name + '"');
        part.setBody(value.toUtf8());
        body->append(part);
    };
    addField("platform", platform);
    QString escapedUser = user;
    addField("username", escapedUser.replace(QLatin1Char('&'), QLatin1String("&amp;")));
    addField("userpass", pass);

    manifestReply = getNetworkManager()->post(QNetworkRequest(url), body);
    body->setParent(manifestReply);
    DlrTransferTimeout::Watch(manifestReply, transferTimeout);
    connect(manifestReply, SIGNAL(sslErrors(QList<QSslError>)), this, SLOT(manifestSslErrors(QList<QSslError>)));
}

void DlrApp::replyFromManifestRequest(QNetworkReply* reply)
{
    const QNetworkReply::NetworkError error =
        DlrTransferTimeout::Expired(reply) ? QNetworkReply::TimeoutError : reply->error();
    manifestNetworkError = error == QNetworkReply::NoError ? QString() : DlrNetworkError(error);
    const QByteArray validation = reply->rawHeader("Validation");
    if (validation.startsWith("Approved")) {
        qDebug() << "Manifest request approved";
        const QByteArray body = reply->readAll();
        if (dumpManifest) {
            QFile dump(GetDownloadDir()->filePath(QStringLiteral("manifest.xml")));
            if (dump.open(QIODevice::WriteOnly | QIODevice::Truncate))
                dump.write(body);
        }
        const bool parsed = DlrManifestHandler::Parse(manifest, body);
        appendManifest();
        if (!parsed) {
            qDebug() << "Bad Wolf:\n" << body;
            emit invalidManifestReply(QStringLiteral("bad manifest reply"));
        } else {
            emit validManifestReply();
        }
    } else if (validation.startsWith("Error")) {
        qDebug() << "Manifest request denied";
        QString reason = QStringLiteral("Manifest request denied");
        if (validation.size() > 5)
            reason = QString::fromUtf8(validation.constData()).mid(5).trimmed();
        emit invalidManifestReply(reason);
    } else {
        qDebug() << "Crikey! unknown manifest Validation" << validation;
        emit invalidManifestReply(QStringLiteral("Unknown manifest Validation"));
    }

    qDebug() << QString::fromUtf8(reply->readAll());
    manifestReply = nullptr;
    reply->deleteLater();
}

void DlrApp::alternateManifest()
{
    loadLocalManifest(alternateManifestFile, "Loading alternate manifest", "added alt manifest");
}

void DlrApp::appendManifest()
{
    if (appendManifestFile.isEmpty())
        appendManifestFile = qEnvironmentVariable("DLR_APPEND_MANIFEST_FILE");
    loadLocalManifest(appendManifestFile, "Appending alternate manifest", "appended alt manifest");
}

void DlrApp::loadLocalManifest(const QString& path, const char* loading, const char* added)
{
    if (path.isEmpty())
        return;
    qDebug() << loading << path;
    if (DlrManifestHandler::ParseFile(manifest, path))
        qDebug() << added;
    else
        qDebug() << "failed to parse alt manifest";
}
