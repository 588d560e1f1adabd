#pragma once

#include "DlrManifestElement.h"

#include <QApplication>
#include <QDir>
#include <QIcon>
#include <QList>
#include <QPixmap>
#include <QSslError>
#include <QString>
#include <QUrl>

#include <memory>

class DlrMachineAssay;
class DlrMainWindow;
class DlrUnattended;
class QNetworkAccessManager;
class QNetworkReply;
class QSettings;

// What the TLS policy does with certificate problems a user could be asked
// about: ask (the wizard), or refuse them (nobody is there to answer).
enum class DlrCertificatePolicy {
    Ask,
    Refuse,
};

// Server endpoints known to GetURL.
enum DlrLocation {
    ManifestLocation = 1,
};

// The one application object: owns the configuration, the server and
// download state and the wizard window. Pages reach it through dlrApp() and
// read or write its members directly; the server code answers them through
// the signals below.
class DlrApp : public QApplication
{
    Q_OBJECT

public:
    DlrApp(int& argc, char** argv);
    ~DlrApp() override;

    // Builds and shows the wizard. Returns false when the event loop is to
    // run, true when the process should end at once with status 1.
    bool Start();
    bool isGui() const { return true; }

    QUrl GetURL(DlrLocation location) const;
    // The vendor's success page, opened by Finish when the manifest names none.
    static QUrl DefaultSuccessURL();
    // The settings file in use when it holds a password that users other
    // than this process's can read; empty otherwise.
    QString ExposedPasswordFile() const;

    // Surveys the machine (blocking) and keeps the survey in `assay`.
    void DoAssay();

    // Images and the style sheet are files in the bundle's Resources folder;
    // a missing file gives a null pixmap, an empty icon or the default look.
    QIcon LoadIconResource(const char* name) const;
    QPixmap LoadPixmapResource(const char* name) const;
    void loadStylesheet(const char* name);

    // Server communication. Every request goes through one manager; the
    // outcome reaches the pages through the signals below.
    QNetworkAccessManager* getNetworkManager();
    // From now on a certificate chain must end in a root of the system's
    // store, of the bundle's Resources/certs/ or of `caFile`: nobody is
    // there to notice a stranger's. False, with why, when `caFile` holds no
    // certificate.
    bool TrustKnownRootsOnly(QString& why);
    void RequestManifest(const QUrl& url, const QString& user, const QString& pass, const QString& platform);

    // Downloads, one at a time, into the download folder.
    QDir* GetDownloadDir();
    void CheckForDownload(int manifestIndex);
    QNetworkReply* DownloadProduct(int manifestIndex);
    QString getDownloadPath(int manifestIndex);
    // Where an offer's package lives in the download folder under its plain
    // final name; empty when its Name could leave the folder.
    QString getFinalPath(const DlrManifestElement& offer);
    static QString getFinalNameFromTempName(const QString& tempName);
    // Why a transfer that ended without a network error is not the whole
    // package: the bytes written against the total the server announced
    // (-1: none) and the offer's size (0: unknown). Empty when they agree.
    static QString DownloadShortfall(qint64 written, qint64 announced, qint64 fileSize);
    // Bytes the download in flight found in its file and did not fetch
    // again: its progress counts them.
    qint64 DownloadResumedAt() const { return transfer.offset; }
    // Packages, and the success page, come from http or https addresses only.
    static bool IsWebAddress(const QUrl& url);

    std::unique_ptr<DlrMainWindow> mainWindow;
    // The run without a window (-unattended), in place of mainWindow.
    std::unique_ptr<DlrUnattended> unattendedRun;
    // The offers of the current manifest; a manifest index is a position here.
    QList<DlrManifestElement> manifest;

    // Configuration: defaults, then the settings file, the environment and
    // the command line, each overriding the one before.
    QString manifestServer;
    QString manifestServerScheme;
    QString manifestUrl;
    QString appDirPath;
    QString user;
    qint32 logLevel = 2;
    QString pass;
    const bool gui = true;
    QString alternateManifestFile;
    QString appendManifestFile;
    bool dumpManifest = false;
    // Seconds a request may go without moving a byte before it fails
    // (settings key "transfertimeout").
    int transferTimeout = 30;
    // -unattended, -json, -products, -cafile: the run without a window. Unknown
    // options are kept, since that run refuses them.
    bool unattended = false;
    bool jsonEvents = false;
    bool productsNamed = false;
    QStringList products;
    QString caFile;
    QStringList unknownOptions;

    // Server and download state.
    QNetworkAccessManager* networkManager = nullptr; // child of this object
    QNetworkReply* manifestReply = nullptr;          // not owned
    QNetworkReply* downloadReply = nullptr;          // not owned
    int downloadIndex = -1;
    std::unique_ptr<char[]> downloadBuffer;
    std::unique_ptr<QDir> downloadDir;
    bool sslErrorsAccepted = false;
    DlrCertificatePolicy certificatePolicy = DlrCertificatePolicy::Ask;
    // Why the last manifest request got no answer from the server (the
    // network error's text); empty when it did.
    QString manifestNetworkError;

    QList<int> downloadIndices;
    DlrMachineAssay* assay = nullptr; // process-wide singleton, not owned
    QUrl successURL;
    // The settings file in use. Its values are read by DlrReadSettingsFile,
    // never through this object, which would decode Qt's binary encodings.
    std::unique_ptr<QSettings> settings;

signals:
    void validManifestReply();
    void invalidManifestReply(const QString& reason);
    void failedDownload(const QString& reason, int manifestIndex);
    void finishedDownload(int manifestIndex);
    // The policy refused the server's certificate; the request fails.
    void certificateRefused(const QList<QSslError>& errors);

private slots:
    void finishedReply(QNetworkReply* reply);
    void downloadReadyRead();
    void downloadSslErrors(QList<QSslError> errors);
    void manifestSslErrors(QList<QSslError> errors);

private:
    // The download in flight: bytes its file held when the reply began (a
    // resumed download), bytes in the file now, whether the response's
    // status has been looked at, whether its body is thrown away, and why
    // its file did not take the data, if it did not.
    struct Transfer {
        qint64 offset = 0;
        qint64 written = 0;
        bool started = false;
        bool discarding = false;
        QString writeError;
    } transfer;

    void sslErrors(QNetworkReply* reply, const QList<QSslError>& errors);
    void replyFromManifestRequest(QNetworkReply* reply);
    void alternateManifest();
    void appendManifest();
    void loadLocalManifest(const QString& path, const char* loading, const char* added);
    void finishedDownload(QNetworkReply* reply);
    void getDownloadBuffer();
    bool startDownloadBody(DlrManifestElement& offer, QFile& file);
    QString completeDownloadFile(QFile& file);
    void dropDownloadFile(int manifestIndex, const QSharedPointer<QFile>& file);

    void loadSettings();
    void parseEnvironment();
    void parseCommandLineArguments();
    QString resourcePath(const char* folder, const char* name) const;
};

// The application object, as every page and engine reaches it.
inline DlrApp* dlrApp()
{
    return static_cast<DlrApp*>(QCoreApplication::instance());
}
