// The download engine: one package at a time, written under a temporary
// name and renamed to its final name only when complete.

#include "DlrApp.h"

#include "DlrHumanBytes.h"
#include "DlrMachineAssay.h"
#include "DlrNetworkError.h"

#include <QDebug>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>

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

} // namespace

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
    QDir temp(QDir::tempPath());
    if (usableDir(temp)) {
        downloadDir = std::make_unique<QDir>(temp);
        return downloadDir.get();
    }
    qDebug() << "No temp, using . for downloads";
    downloadDir = std::make_unique<QDir>(QString());
    return downloadDir.get();
}

void DlrApp::CheckForDownload(int manifestIndex)
{
    if (manifestIndex < 0 || manifestIndex >= manifest.size()) {
        qDebug() << "index out of range in CheckForDownload" << manifestIndex;
        return;
    }
    DlrManifestElement& offer = manifest[manifestIndex];
    const QFileInfo existing(GetDownloadDir()->absoluteFilePath(offer.Name));
    qDebug() << "Looking for download of" << existing.absoluteFilePath();
    if (existing.exists() && existing.size() == offer.FileSize) {
        qDebug() << "Found existing download";
        offer.downloadFile = QSharedPointer<QFile>::create(existing.absoluteFilePath());
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

    const QString tempPath = getDownloadPath(manifestIndex);
    offer.downloadFile = QSharedPointer<QFile>::create(tempPath);
    if (!offer.downloadFile->open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        qDebug() << "Couldn't open temp file for write" << tempPath << "errcode" << offer.downloadFile->error();
        return nullptr;
    }

    qDebug() << "downloading " << (offer.SimpleName.isEmpty() ? offer.Name : offer.SimpleName) << "from"
             << offer.DownloadURL;
    downloadReply = getNetworkManager()->get(QNetworkRequest(offer.DownloadURL));
    downloadReply->setReadBufferSize(kReplyBufferSize);
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
    const QFileInfo name(manifest.at(manifestIndex).Name);
    const QString base = name.completeBaseName();
    const QString suffix = name.suffix();
    const QString dir = GetDownloadDir()->absolutePath();

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
    if (!downloadReply || downloadIndex < 0 || downloadIndex >= manifest.size()) {
        qDebug() << "error in download reply";
        return;
    }
    QFile* file = manifest.at(downloadIndex).downloadFile.data();
    if (!file) {
        qDebug() << "data ready but no file";
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
        if (file->write(downloadBuffer.get(), got) < got) {
            downloadReply->abort();
            qDebug() << "Failed writing to file in download" << file->error();
            return;
        }
    }
    // The file buffers small writes; a full disk may only show when that
    // buffer is written out, so push it out while the reply can still be
    // aborted.
    if (!file->flush()) {
        downloadReply->abort();
        qDebug() << "Failed writing to file in download" << file->error();
    }
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
    // Data that never reached the disk must not pass for a complete package.
    const bool written = file && (!file->isOpen() || file->flush());
    if (file)
        file->close();

    QNetworkReply::NetworkError error = reply->error();
    if (error == QNetworkReply::NoError && !written)
        error = QNetworkReply::OperationCanceledError;
    if (error != QNetworkReply::NoError) {
        const QString text = DlrNetworkError(error);
        qDebug() << text;
        emit failedDownload(text, index);
        downloadReply = nullptr;
        dropDownloadFile(index, file);
        return;
    }

    downloadReply = nullptr;
    const QString current = file->fileName();
    const QString finalName = getFinalNameFromTempName(current);
    if (finalName == current || file->rename(finalName)) {
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
