#pragma once

// The local vendor server (tools/vendor-server) as a child process of a
// test, with a catalog folder of the test's own making.

#include "Files.h"
#include "Manifest.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QUrl>

class VendorServer
{
public:
    VendorServer()
    {
        QDir(catalogDir.path()).mkpath(QStringLiteral("packages"));
        setUsers({{QStringLiteral("demo"), QStringLiteral("velluma")}});
    }

    ~VendorServer() { stop(); }

    QString catalogPath(const QString& name) const { return catalogDir.filePath(name); }

    void setUsers(const QList<QPair<QString, QString>>& users)
    {
        QJsonObject table;
        for (const auto& user : users)
            table.insert(user.first, user.second);
        writeCatalogFile(QStringLiteral("users.json"),
                         QJsonDocument(QJsonObject{{QStringLiteral("users"), table}}).toJson());
    }

    bool writeCatalogFile(const QString& name, const QByteArray& bytes)
    {
        return writeFile(catalogPath(name), bytes);
    }

    // A package of the given size whose bytes follow a pattern, so a
    // misplaced chunk shows.
    void writePackage(const QString& name, qint64 size)
    {
        QByteArray bytes(int(size), Qt::Uninitialized);
        for (int i = 0; i < bytes.size(); ++i)
            bytes[i] = char((i * 7 + i / 251) & 0xff);
        writeCatalogFile(QStringLiteral("packages/") + name, bytes);
    }

    // A real package for the installer: one text file that lands in
    // opt/Oktavo/<folder>/README.txt under the install target.
    bool makeInstallablePackage(const QString& name, const QString& folder)
    {
        QTemporaryDir payload;
        return writeFile(payload.filePath(QStringLiteral("opt/Oktavo/%1/README.txt").arg(folder)), folder.toUtf8() + '\n')
            && QProcess::execute(QStringLiteral(VLUM_SOURCE_DIR "/tools/make-pkg"),
                                 {"--identifier", "com.oktavo.test", "--version", "1.0", payload.path(),
                                  catalogPath(QStringLiteral("packages/") + name)})
            == 0;
    }

    // One offer of a generated manifest: the package's file on the server
    // (and in Downloads), and the server's fault switches for its address.
    struct Offer {
        QString name;
        qint64 size = 0; // a patterned package of this size is written; 0: it is in the catalog already
        QString faults;
    };

    // manifest.xml offering each package, ticked by default.
    void serveOffers(const QList<Offer>& offers)
    {
        QByteArrayList records;
        for (const Offer& item : offers) {
            if (item.size > 0)
                writePackage(item.name, item.size);
            records << offer({}, item.name, "Product " + item.name.section(QLatin1Char('.'), 0, 0), "1", "show",
                             "@SIZE:" + item.name + '@',
                             "@BASE@/packages/" + item.name + (item.faults.isEmpty() ? QString() : '?' + item.faults));
        }
        writeCatalogFile(QStringLiteral("manifest.xml"), manifest(records));
    }

    QByteArray package(const QString& name) const
    {
        return readFile(catalogPath(QStringLiteral("packages/") + name));
    }

    // Starts the server; false when it did not say it was ready.
    bool start(const QStringList& options = {})
    {
        process.setProgram(QStringLiteral(VLUM_SOURCE_DIR "/tools/vendor-server"));
        process.setArguments(QStringList{"--catalog", catalogDir.path(), "--state", stateDir.path(), "--stop-with-parent"} + options);
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process.start();
        // Its first line says where it listens; a server that never says so fails here after 30 s.
        for (int waited = 0; waited < 30 && !process.canReadLine() && process.state() != QProcess::NotRunning; ++waited)
            process.waitForReadyRead(1000);
        const QRegularExpressionMatch ready = QRegularExpression(QStringLiteral(
            "^READY port=(\\d+) url=(\\S+) ca=(\\S+) log=(\\S+)")).match(QString::fromUtf8(process.readLine()));
        if (!ready.hasMatch())
            return false;
        port = ready.captured(1).toInt();
        base = QUrl(ready.captured(2));
        caPath = ready.captured(3);
        logPath = ready.captured(4);
        return true;
    }

    void stop()
    {
        process.terminate();
        if (!process.waitForFinished(5000))
            process.kill();
        process.waitForFinished(5000);
    }

    QUrl url(const QString& path) const { return base.resolved(QUrl(path)); }

    // The requests the server received, oldest first.
    QList<QJsonObject> requests() const
    {
        QList<QJsonObject> entries;
        QFile file(logPath);
        for (const QByteArray& line : file.open(QIODevice::ReadOnly) ? file.readAll().split('\n') : QByteArrayList()) {
            if (!line.isEmpty())
                entries << QJsonDocument::fromJson(line).object();
        }
        return entries;
    }

    int port = 0;
    QUrl base;
    QString caPath;
    QString logPath;

private:
    QTemporaryDir catalogDir;
    QTemporaryDir stateDir;
    QProcess process;
};
