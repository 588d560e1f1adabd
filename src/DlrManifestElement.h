#pragma once

#include <QByteArray>
#include <QFile>
#include <QList>
#include <QSharedPointer>
#include <QString>
#include <QUrl>

class QRegExp;

// One product offer of the manifest: an installer package with its name,
// build, size, address, display behaviour and version. A copyable value.
class DlrManifestElement
{
public:
    struct VersionStruct {
        QString major;
        QString minor;
        QString beta;
    };

    QString BuildID;
    QString DefaultBehavior;
    QUrl DownloadURL;
    QString SimpleName;
    QString Name;
    qint64 FileSize = 0;
    bool downloaded = false;
    // Copies of an offer share its file object; the last copy to go frees
    // it, so the list and the download engine never free it twice.
    QSharedPointer<QFile> downloadFile;
    // What a failed download left behind, so that a retry continues it: the
    // temporary file, and the validator (ETag, else Last-Modified) of the
    // response that filled it. No validator means the retry starts over.
    QString partialFile;
    QByteArray partialValidator;
    VersionStruct version;

    void GetBuildId(int& buildId) const;

    bool GetIsCoreServer() const;
    bool GetIsVellumaForMaya() const;
    bool GetIsVWSForMaya() const;
    bool GetIsHarrow() const;

    // Both return true when no version could be read, and then leave the
    // out-parameter alone.
    bool GetVersion(QString& version) const;
    bool GetVersion(float& version) const;

    VersionStruct& GetVersion();
    VersionStruct GetMajorVersion();

    static int FindHighestVersionOfProduct(const QList<DlrManifestElement>& offers, QRegExp& product);

    // True when Name is a bare file name that cannot leave the download
    // folder: not empty, not "." or "..", no "/" and no NUL.
    bool HasPlainName() const;

    // SimpleName when given, Name otherwise: every name test, version
    // reading and list label uses it.
    const QString& matchName() const;
};
