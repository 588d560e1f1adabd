// The download engine: one package at a time, written under a temporary
// name and renamed to its final name only when complete.

#include "DlrApp.h"

#include "DlrHumanBytes.h"
#include "DlrMachineAssay.h"
#include "DlrNetworkError.h"
#include "DlrTransferTimeout.h"

#include <QDebug>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QTimer>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr qint64 kDownloadChunk = 1024;
// The reply must not hold a whole package in memory when the disk is
// slower than the network; a megabyte costs no throughput.
constexpr qint64 kReplyBufferSize = 1024 * 1024;
const QLatin1String kTempSuffix("vlumdownload");

bool usableDir(const QDir& dir)
{
    return dir.exists() && QFileInfo(dir.absolutePath()).isWritable();
}

// The fallback folder itself when it is ours alone. Where others can write
// (the shared temporary folder) they could take every name ours would get
// and steer the package elsewhere, so the downloads go into a fresh folder
// of our own inside it, made 0700 at once and kept. Null when it cannot be
// made.
std::unique_ptr<QDir> ownFolderIn(const QDir& folder)
{
    const QByteArray path = QFile::encodeName(folder.absolutePath());
    struct stat info {};
    if (::stat(path.constData(), &info) == 0 && info.st_uid == ::geteuid() && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0)
        return std::make_unique<QDir>(folder);
    QByteArray own = path + "/vlum-XXXXXX";
    if (!::mkdtemp(own.data())) {
        qDebug() << "Couldn't make a private download folder in" << folder.absolutePath() << qt_error_string(errno);
        return nullptr;
    }
    qDebug() << "Downloading into the private folder" << own;
    return std::make_unique<QDir>(QFile::decodeName(own));
}

// A file someone else put in the download folder (a shared temporary folder
// is the fallback) is never taken for ours: it must be a regular file, not
// a link, owned by the user running the wizard. Gives its size, or -1.
qint64 ownRegularFileSize(const QString& path)
{
    struct stat info {};
    if (::lstat(QFile::encodeName(path).constData(), &info) != 0 || !S_ISREG(info.st_mode)
        || info.st_uid != ::geteuid())
        return -1;
    return info.st_size;
}

// True when the open file is the one at path (no link swapped in between)
// and one of ours; the checks above, on what was actually opened.
bool isOpenedOwnFile(const QFile& file)
{
    struct stat opened {};
    struct stat named {};
    return ::fstat(file.handle(), &opened) == 0 && ::lstat(QFile::encodeName(file.fileName()).constData(), &named) == 0
        && S_ISREG(opened.st_mode) && opened.st_uid == ::geteuid() && opened.st_nlink == 1
        && opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

bool syncFolderOf(const QString& path)
{
    const int fd = ::open(QFile::encodeName(QFileInfo(path).absolutePath()).constData(),
                          O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool synced = ::fsync(fd) == 0;
    ::close(fd);
    return synced;
}

// The validator a resumed request sends in If-Range: a strong ETag, else
// the Last-Modified date; empty when the server gave neither.
QByteArray validatorOf(const QNetworkReply* reply)
{
    const QByteArray etag = reply->rawHeader("ETag");
    if (!etag.isEmpty() && !etag.startsWith("W/"))
        return etag;
    return reply->rawHeader("Last-Modified");
}

// The first byte a 206 answer covers ("bytes N-M/T"), or -1.
qint64 rangeStartOf(const QNetworkReply* reply)
{
    static const QRegularExpression range(QStringLiteral("^bytes (\\d+)-\\d+/(\\d+|\\*)$"));
    const QRegularExpressionMatch match = range.match(QString::fromLatin1(reply->rawHeader("Content-Range")).trimmed());
    bool ok = false;
    const qint64 start = match.hasMatch() ? match.captured(1).toLongLong(&ok) : -1;
    return ok ? start : -1;
}

// The reply is aborted when the file does not take its data (a full disk),
// and the abort's own error would not tell the user why. `cause` is errno
// just after the failed call: for a failed flush Qt keeps no text of it.
QString writeFailure(const QFile& file, int cause)
{
    return QStringLiteral("Could not write %1: %2").arg(file.fileName(), qt_error_string(cause));
}

// Stands for a download refused before anything is sent or written. It
// fails on the next turn of the event loop, as a network failure does, so
// the product fails the way every other download failure reaches the user.
class RefusedReply : public QNetworkReply
{
public:
    RefusedReply(const QUrl& url, const QString& reason, QObject* parent)
        : QNetworkReply(parent)
    {
        setUrl(url);
        setOperation(QNetworkAccessManager::GetOperation);
        open(QIODevice::ReadOnly); // before the error: opening clears its text
        setError(ProtocolUnknownError, reason);
        QTimer::singleShot(0, this, &RefusedReply::finish);
    }

    void abort() override { finish(); }

protected:
    qint64 readData(char*, qint64) override { return -1; }

private:
    void finish()
    {
        if (isFinished())
            return;
        setFinished(true);
        emit errorOccurred(error());
        emit finished();
    }
};

} // namespace

bool DlrApp::IsWebAddress(const QUrl& url)
{
    // Qt would as readily copy a local file (file:), decode one carried in
    // the address (data:) or try ftp: for an address a manifest names.
    const QString scheme = url.scheme();
    return url.isValid() && (scheme == QLatin1String("http") || scheme == QLatin1String("https"));
}

QString DlrHumanBytes(qint64 bytes)
{
    if (bytes < 1024)
        return QStringLiteral("%1b").arg(bytes);
    if (bytes < 1048576)
        return QStringLiteral("%1KB").arg(double(bytes) / 1024.0, 0, 'f', 3);
    if (bytes < 1073741824)
        return QStringLiteral("%1MB").arg(double(bytes) / 1048576.0, 0, 'f', 2);
    return QStringLiteral("%1GB").arg(double(bytes) / 1073741824.0, 0, 'f', 3);
}

QDir* DlrApp::GetDownloadDir()
{
    if (downloadDir)
        return downloadDir.get();

    QDir downloads(DlrMachineAssay::GetUserDownloadPath());
    if (usableDir(downloads)) {
        downloadDir = std::make_unique<QDir>(downloads);
        return downloadDir.get();
    }
    qDebug() << "No ~/Downloads dir " << downloads.absolutePath() << "Trying temp";
    const QDir temp(QDir::tempPath());
    if (usableDir(temp))
        downloadDir = ownFolderIn(temp);
    if (downloadDir)
        return downloadDir.get();
    qDebug() << "No temp, using . for downloads";
    downloadDir = ownFolderIn(QDir(QString()));
    if (!downloadDir)
        downloadDir = std::make_unique<QDir>(QString());
    return downloadDir.get();
}

QString DlrApp::getFinalPath(const DlrManifestElement& offer)
{
    if (!offer.HasPlainName())
        return QString();
    return GetDownloadDir()->absolutePath() + QLatin1Char('/') + offer.Name;
}

void DlrApp::CheckForDownload(int manifestIndex)
{
    if (manifestIndex < 0 || manifestIndex >= manifest.size()) {
        qDebug() << "index out of range in CheckForDownload" << manifestIndex;
        return;
    }
    DlrManifestElement& offer = manifest[manifestIndex];
    const QString path = getFinalPath(offer);
    if (path.isEmpty()) {
        qDebug() << "Not looking for a download named" << offer.Name;
        return;
    }
    qDebug() << "Looking for download of" << path;
    // An offer of unknown size cannot prove a file on disk complete.
    if (offer.FileSize > 0 && ownRegularFileSize(path) == offer.FileSize) {
        qDebug() << "Found existing download";
        offer.downloadFile = QSharedPointer<QFile>::create(path);
        offer.downloaded = true;
    }
}

QNetworkReply* DlrApp::DownloadProduct(int manifestIndex)
{
    if (downloadReply) {
        qDebug() << "Already downloading something" << manifestIndex;
        return nullptr;
    }
    if (manifestIndex < 0 || manifestIndex >= manifest.size()) {
        qDebug() << "index out of range in Download " << manifestIndex;
        return nullptr;
    }
    DlrManifestElement& offer = manifest[manifestIndex];
    if (offer.downloaded) {
        qDebug() << "Asked to download " << offer.Name << " again";
        return nullptr;
    }
    if (!offer.HasPlainName()) {
        qDebug() << "Refusing to download to" << offer.Name;
        return nullptr;
    }

    if (!IsWebAddress(offer.DownloadURL)) {
        // Nothing is fetched and no file is made: the product fails.
        QString address = offer.DownloadURL.toString(QUrl::RemoveUserInfo);
        if (address.size() > 80)
            address = address.left(77) + QStringLiteral("...");
        const QString reason =
            QStringLiteral("Not downloading from %1: packages come over http or https only").arg(address);
        qDebug() << reason;
        offer.downloadFile.reset();
        transfer.writeError.clear();
        downloadReply = new RefusedReply(offer.DownloadURL, reason, this);
        connect(downloadReply, &QNetworkReply::finished, this, [this, reply = downloadReply] { finishedReply(reply); });
        downloadIndex = manifestIndex;
        return downloadReply;
    }

    // A retry continues the file the failed try left, when it is still ours.
    QString tempPath;
    if (!offer.partialFile.isEmpty() && ownRegularFileSize(offer.partialFile) >= 0) {
        tempPath = offer.partialFile;
        offer.downloadFile = QSharedPointer<QFile>::create(tempPath);
        if (!offer.downloadFile->open(QIODevice::WriteOnly | QIODevice::Append) || !isOpenedOwnFile(*offer.downloadFile)
            || (offer.partialValidator.isEmpty() && !offer.downloadFile->resize(0))) {
            qDebug() << "Couldn't reopen partial download" << tempPath;
            offer.downloadFile->close();
            tempPath.clear();
        }
    }
    if (tempPath.isEmpty()) {
        offer.partialFile.clear();
        offer.partialValidator.clear();
        tempPath = getDownloadPath(manifestIndex);
        offer.downloadFile = QSharedPointer<QFile>::create(tempPath);
        // Never through a link or over a file someone put there meanwhile.
        if (!offer.downloadFile->open(QIODevice::WriteOnly | QIODevice::NewOnly)) {
            qDebug() << "Couldn't open temp file for write" << tempPath << "errcode" << offer.downloadFile->error();
            return nullptr;
        }
    }
    transfer.offset = offer.downloadFile->size();
    transfer.written = transfer.offset;
    transfer.started = false;
    transfer.discarding = false;
    transfer.writeError.clear();

    qDebug() << "downloading " << (offer.SimpleName.isEmpty() ? offer.Name : offer.SimpleName) << "from"
             << offer.DownloadURL << "at" << transfer.offset;
    QNetworkRequest request(offer.DownloadURL);
    // Byte counts and ranges must be those of the file itself.
    request.setRawHeader("Accept-Encoding", "identity");
    if (transfer.offset > 0) {
        request.setRawHeader("Range", "bytes=" + QByteArray::number(transfer.offset) + '-');
        request.setRawHeader("If-Range", offer.partialValidator);
    }
    downloadReply = getNetworkManager()->get(request);
    downloadReply->setReadBufferSize(kReplyBufferSize);
    DlrTransferTimeout::Watch(downloadReply, transferTimeout);
    connect(downloadReply, SIGNAL(sslErrors(QList<QSslError>)), this, SLOT(downloadSslErrors(QList<QSslError>)));
    connect(downloadReply, SIGNAL(readyRead()), this, SLOT(downloadReadyRead()));
    downloadIndex = manifestIndex;
    return downloadReply;
}

QString DlrApp::getDownloadPath(int manifestIndex)
{
    if (manifestIndex < 0 || manifestIndex >= manifest.size()) {
        qDebug() << "index out of range in getDownloadPath" << manifestIndex;
        return QStringLiteral("unkown.vlumdownload");
    }
    const QFileInfo name(getFinalPath(manifest.at(manifestIndex)));
    if (name.fileName().isEmpty()) {
        qDebug() << "No download path for" << manifest.at(manifestIndex).Name;
        return QString();
    }
    const QString base = name.completeBaseName();
    const QString suffix = name.suffix();
    const QString dir = name.absolutePath();
    const auto freeTempName = [&suffix](const QString& stem) {
        const QString finalName = stem + QLatin1Char('.') + suffix;
        const QString tempName = finalName + QLatin1Char('.') + kTempSuffix;
        return QFileInfo::exists(finalName) || QFileInfo::exists(tempName) ? QString() : tempName;
    };

    for (int n = 0; n < 10000; ++n) {
        const QString tag = n == 0 ? QString() : QStringLiteral("-%1").arg(n);
        const QString tempName = freeTempName(dir + QLatin1Char('/') + base + tag);
        if (!tempName.isEmpty())
            return tempName;
    }
    qDebug() << "Failed to find unique name for ";
    // Relative names: the process's current folder is the last resort.
    for (int n = 0; n < 10000; ++n) {
        const QString tempName = freeTempName(QStringLiteral("vlum-%1").arg(n));
        if (!tempName.isEmpty())
            return tempName;
    }
    return QStringLiteral("unkown.vlumdownload");
}

QString DlrApp::getFinalNameFromTempName(const QString& tempName)
{
    const QFileInfo info(tempName);
    if (info.suffix() == kTempSuffix)
        return info.path() + QLatin1Char('/') + info.completeBaseName();
    qDebug() << "getFinalNameFromTempName: Unexpected name" << tempName;
    return tempName;
}

void DlrApp::getDownloadBuffer()
{
    if (!downloadBuffer)
        downloadBuffer = std::make_unique<char[]>(kDownloadChunk);
}

void DlrApp::downloadReadyRead()
{
    if (!downloadReply) {
        qDebug() << "error in download reply";
        return;
    }
    // Whatever the reason nothing can take the data, end the reply now:
    // left alone it would stall behind its full read buffer.
    if (downloadIndex < 0 || downloadIndex >= manifest.size()) {
        qDebug() << "error in download reply";
        downloadReply->abort();
        return;
    }
    // Our own reference: abort() finishes the reply at once, and the
    // failure handling drops the offer's.
    const QSharedPointer<QFile> file = manifest.at(downloadIndex).downloadFile;
    if (!file || !file->isOpen()) {
        qDebug() << "data ready but no file";
        downloadReply->abort();
        return;
    }
    if (!transfer.started && !startDownloadBody(manifest[downloadIndex], *file)) {
        downloadReply->abort();
        return;
    }
    getDownloadBuffer();

    // We alternate between receiving a block and writing it away until the
    // reply has nothing left, without re-entering the event loop.
    while (downloadReply->bytesAvailable() > 0) {
        const qint64 got = downloadReply->read(downloadBuffer.get(), kDownloadChunk);
        if (got < 0) {
            downloadReply->abort();
            qDebug() << "Error reading from network";
            return;
        }
        if (transfer.discarding)
            continue;
        if (file->write(downloadBuffer.get(), got) < got) {
            const int cause = errno;
            const QFileDevice::FileError error = file->error();
            transfer.writeError = writeFailure(*file, cause);
            downloadReply->abort();
            qDebug() << "Failed writing to file in download" << error;
            return;
        }
        transfer.written += got;
    }
    // No flush here: the file writes its buffer out whenever it fills, and
    // a write that fails then (a full disk) fails the write() above; the
    // last bytes are flushed and synced before the file is given its name.
}

bool DlrApp::startDownloadBody(DlrManifestElement& offer, QFile& file)
{
    transfer.started = true;
    const int status = downloadReply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (status >= 400) {
        // An error page is never part of a package; what is on disk stays
        // for the next try, unless the server cannot serve the rest of it.
        transfer.discarding = true;
        if (status == 416)
            offer.partialValidator.clear();
        return true;
    }
    if (transfer.offset > 0 && status == 206) {
        const QByteArray etag = downloadReply->rawHeader("ETag");
        const bool sameFile = etag.isEmpty() || !offer.partialValidator.startsWith('"') || etag == offer.partialValidator;
        if (rangeStartOf(downloadReply) == transfer.offset && sameFile) {
            qDebug() << "Resuming download at" << transfer.offset;
            return true;
        }
        qDebug() << "Unusable partial answer" << downloadReply->rawHeader("Content-Range") << etag;
        offer.partialValidator.clear();
        return false;
    }
    if (transfer.offset > 0) {
        // The whole file again (it changed, or the server ignores ranges).
        qDebug() << "Download starts over at 0 after" << transfer.offset;
        if (!file.resize(0))
            return false;
        transfer.offset = 0;
        transfer.written = 0;
    }
    offer.partialValidator = validatorOf(downloadReply);
    return true;
}

QString DlrApp::DownloadShortfall(qint64 written, qint64 announced, qint64 fileSize)
{
    // A socket that closed is not a complete transfer: what was announced,
    // and what the manifest promised, must both be on disk.
    for (const qint64 expected : {announced, fileSize}) {
        if (expected <= 0 || expected == written)
            continue;
        if (written < expected)
            return QStringLiteral("Download incomplete: %1 of %2 bytes").arg(written).arg(expected);
        return QStringLiteral("Download larger than expected: %1 of %2 bytes").arg(written).arg(expected);
    }
    return QString();
}

QString DlrApp::completeDownloadFile(QFile& file)
{
    // Every byte on the disk before the package takes its final name.
    if (!file.isOpen())
        return QString();
    const bool synced = file.flush() && ::fsync(file.handle()) == 0;
    const int cause = errno;
    if (!synced)
        qDebug() << "Failed writing to file in download" << file.error();
    const QString failure = synced ? QString() : writeFailure(file, cause);
    file.close();
    return failure;
}

void DlrApp::finishedDownload(QNetworkReply* reply)
{
    qDebug() << "finished download" << downloadIndex;
    const int index = downloadIndex;
    downloadIndex = -1;
    reply->deleteLater();

    if (index < 0 || index >= manifest.size()) {
        qDebug() << "index out of range in Download " << index;
        emit failedDownload(QStringLiteral("index out of range in Download"), index);
        downloadReply = nullptr;
        return;
    }

    DlrManifestElement& offer = manifest[index];
    QSharedPointer<QFile> file = offer.downloadFile;
    if (file && file->isOpen() && !transfer.started && reply->error() == QNetworkReply::NoError)
        startDownloadBody(offer, *file);

    QString failure;
    if (!transfer.writeError.isEmpty()) {
        failure = transfer.writeError;
        qDebug() << failure;
    } else if (!IsWebAddress(reply->url())) {
        failure = reply->errorString();
    } else if (reply->error() != QNetworkReply::NoError) {
        failure = DlrNetworkError(DlrTransferTimeout::Expired(reply) ? QNetworkReply::TimeoutError : reply->error());
        qDebug() << failure;
    }
    // Data that never reached the disk must not pass for a complete package.
    const QString unwritten = file ? completeDownloadFile(*file) : DlrNetworkError(QNetworkReply::OperationCanceledError);
    if (failure.isEmpty())
        failure = unwritten;
    if (failure.isEmpty()) {
        bool known = false;
        const qint64 length = reply->header(QNetworkRequest::ContentLengthHeader).toLongLong(&known);
        const qint64 announced = known && length >= 0 ? transfer.offset + length : -1;
        failure = DownloadShortfall(transfer.written, announced, offer.FileSize);
        if (!failure.isEmpty())
            qWarning() << failure;
        // Only the rest of what the server promised is worth asking for;
        // anything else starts over next time.
        if (!(announced >= 0 ? transfer.written < announced : transfer.written < offer.FileSize))
            offer.partialValidator.clear();
    }
    if (!failure.isEmpty()) {
        // What arrived stays on disk under its temporary name for a retry.
        if (file)
            offer.partialFile = file->fileName();
        emit failedDownload(failure, index);
        downloadReply = nullptr;
        dropDownloadFile(index, file);
        return;
    }

    downloadReply = nullptr;
    const QString current = file->fileName();
    const QString finalName = getFinalNameFromTempName(current);
    if (finalName == current || file->rename(finalName)) {
        if (!syncFolderOf(finalName)) {
            // The name may not survive a crash: never leave it to a package
            // we could not make durable.
            file->rename(current);
            const QString text = DlrNetworkError(QNetworkReply::OperationCanceledError);
            qWarning() << "Couldn't sync the download folder of" << finalName;
            offer.partialFile = file->fileName();
            emit failedDownload(text, index);
            dropDownloadFile(index, file);
            return;
        }
        offer.partialFile.clear();
        offer.partialValidator.clear();
        offer.downloaded = true;
        emit finishedDownload(index);
        return;
    }

    const QString text = QStringLiteral("Couldn't finalize download when renaming ") + current
        + QStringLiteral(" to ") + finalName;
    qWarning() << text;
    emit failedDownload(text, index);
    dropDownloadFile(index, file);
}

void DlrApp::dropDownloadFile(int manifestIndex, const QSharedPointer<QFile>& file)
{
    // A slot of failedDownload may have replaced the manifest meanwhile.
    if (manifestIndex < manifest.size() && manifest.at(manifestIndex).downloadFile == file)
        manifest[manifestIndex].downloadFile.reset();
}
