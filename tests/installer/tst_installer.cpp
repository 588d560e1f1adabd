// The package installer stand-in: a good package installed through the real
// helper, with its progress stream; broken and hostile packages refused
// with the target left exactly as it was.

#include "../support/HelperProcess.h"

#include "DlrOSXProcess.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const QString kInstaller = QStringLiteral(VLUM_LIBEXEC_DIR "/installer");

bool writeFile(const QString& path, const QByteArray& data)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(data) == data.size();
}

// Every path below `root` with its kind and, for files, its content: two
// equal snapshots mean nothing was written, moved or left behind.
QStringList snapshot(const QString& root)
{
    QStringList entries;
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo info(it.next());
        QString entry = QDir(root).relativeFilePath(info.filePath());
        if (info.isSymLink())
            entry += QStringLiteral(" -> ") + info.symLinkTarget();
        else if (info.isFile()) {
            QFile file(info.filePath());
            file.open(QIODevice::ReadOnly);
            entry += QStringLiteral(" = ") + QString::fromLocal8Bit(file.readAll());
        }
        entries << entry;
    }
    entries.sort();
    return entries;
}

int run(const QString& program, const QStringList& arguments, const QString& installRoot = QString(),
        QByteArray* output = nullptr)
{
    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    if (!installRoot.isEmpty())
        env.insert(QStringLiteral("VLUM_INSTALL_ROOT"), installRoot);
    process.setProcessEnvironment(env);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    if (!process.waitForFinished(30000))
        return -1;
    if (output)
        *output = process.readAll();
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

} // namespace

class TestInstaller : public QObject
{
    Q_OBJECT

    QTemporaryDir work;
    QString goodPackage;

    QStringList installArguments(const QString& package) const
    {
        return {"-verboseR", "-target", "/", "-package", package};
    }

private slots:
    void initTestCase()
    {
        QVERIFY(work.isValid());
        const QString payload = work.filePath(QStringLiteral("payload"));
        QVERIFY(writeFile(payload + "/opt/Oktavo/Velluma/bin/velluma", "#!/bin/sh\necho velluma\n"));
        QVERIFY(QFile::setPermissions(payload + "/opt/Oktavo/Velluma/bin/velluma",
                                      QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner));
        QVERIFY(writeFile(payload + "/opt/Oktavo/Velluma/Resources/build.txt", "build 1234\n"));
        QVERIFY(QFile::link(QStringLiteral("bin/velluma"), payload + "/opt/Oktavo/Velluma/current"));
        goodPackage = work.filePath(QStringLiteral("velluma.pkg"));
        QCOMPARE(run(QStringLiteral(VLUM_SOURCE_DIR "/tools/make-pkg"),
                     {"--identifier", "com.oktavo.velluma", "--version", "3.2", payload, goodPackage}),
                 0);
    }

    // The whole road: the wizard's process object, the helper, the
    // installer; progress as the download page parses it.
    void goodPackageThroughHelper()
    {
        QTemporaryDir root;
        HelperProcess daemon;
        QVERIFY(daemon.Start(QStringLiteral(VLUM_HELPER), {"--installer", kInstaller},
                             {"VLUM_INSTALL_ROOT=" + root.path()}));
        qputenv("VLUM_HELPER_SOCKET", daemon.SocketPath().toLocal8Bit());

        DlrOSXProcess process;
        QList<QByteArray> lines;
        bool finished = false;
        connect(&process, &DlrOSXProcess::readyReadStandardOutput, this,
                [&] { lines << process.readAllStandardOutput(); });
        connect(&process, &DlrOSXProcess::finished, this, [&] { finished = true; });
        process.start(kInstaller, installArguments(goodPackage), QIODevice::ReadOnly);
        QTRY_VERIFY_WITH_TIMEOUT(finished, 20000);

        QVERIFY(!lines.isEmpty());
        QVERIFY(lines.first().startsWith("installer:PHASE:"));
        QCOMPARE(lines.last(), QByteArray("installer: The install was successful.\n"));
        bool statusWithEllipsis = false;
        QList<float> percents;
        const QRegularExpression progress(QStringLiteral("^installer:%([0-9.]+)\n$"));
        for (const QByteArray& line : lines) {
            statusWithEllipsis |= line.startsWith("installer:STATUS:") && line.endsWith("\xe2\x80\xa6\n");
            const QRegularExpressionMatch match = progress.match(QString::fromLatin1(line));
            if (match.hasMatch())
                percents << match.captured(1).toFloat();
            QVERIFY2(line.startsWith("installer:"), line.constData()); // every line is for the parser
        }
        QVERIFY(statusWithEllipsis);
        QVERIFY(percents.size() >= 3);
        QVERIFY(std::is_sorted(percents.begin(), percents.end()));
        QCOMPARE(percents.last(), 100.0f);

        QCOMPARE(snapshot(root.path()),
                 (QStringList{"opt", "opt/Oktavo", "opt/Oktavo/Velluma", "opt/Oktavo/Velluma/Resources",
                              "opt/Oktavo/Velluma/Resources/build.txt = build 1234\n", "opt/Oktavo/Velluma/bin",
                              "opt/Oktavo/Velluma/bin/velluma = #!/bin/sh\necho velluma\n",
                              "opt/Oktavo/Velluma/current -> " + root.path() + "/opt/Oktavo/Velluma/bin/velluma"}));
        QVERIFY(QFileInfo(root.filePath(QStringLiteral("opt/Oktavo/Velluma/bin/velluma"))).isExecutable());
    }

    // A second install of a product replaces its files and keeps the rest.
    void reinstallOverExisting()
    {
        QTemporaryDir root;
        QVERIFY(writeFile(root.filePath(QStringLiteral("opt/Oktavo/Other/keep")), "other product\n"));
        QVERIFY(writeFile(root.filePath(QStringLiteral("opt/Oktavo/Velluma/Resources/build.txt")), "build 1\n"));
        QCOMPARE(run(kInstaller, installArguments(goodPackage), root.path()), 0);
        const QStringList after = snapshot(root.path());
        QVERIFY(after.contains(QStringLiteral("opt/Oktavo/Other/keep = other product\n")));
        QVERIFY(after.contains(QStringLiteral("opt/Oktavo/Velluma/Resources/build.txt = build 1234\n")));
    }

    void refused_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("reason");
        QTest::newRow("text file") << "text" << "not a package archive";
        QTest::newRow("compressed, not an archive") << "gzip-not-tar" << "not a package archive";
        QTest::newRow("archive, not compressed") << "tar-not-gzip" << "not a package archive";
        QTest::newRow("no PackageInfo") << "no-info" << "no PackageInfo";
        QTest::newRow("PackageInfo without version") << "info-without-version" << "PackageInfo needs";
        QTest::newRow("absolute entry") << "absolute-entry" << "absolute entry name";
        QTest::newRow("'..' entry") << "dotdot-entry" << "entry name with '..'";
        QTest::newRow("absolute link") << "absolute-link" << "points outside the target";
        QTest::newRow("link climbing out") << "climbing-link" << "points outside the target";
        QTest::newRow("two links that leave together") << "links-together" << "points outside the target";
        QTest::newRow("file written through links") << "file-through-links" << "leads outside the target";
        QTest::newRow("hard link outside the payload") << "hard-link-outside" << "outside the payload";
        QTest::newRow("device node") << "device" << "unsupported entry type";
    }

    // Refused before or during unpacking, never half-installed: the target
    // is exactly as before and nothing appeared outside it either.
    void refused()
    {
        QFETCH(QString, kind);
        QFETCH(QString, reason);
        QTemporaryDir root;
        QVERIFY(writeFile(root.filePath(QStringLiteral("opt/keep")), "kept\n"));
        const QStringList before = snapshot(root.path());
        const QString package = work.filePath(kind + ".pkg");
        QCOMPARE(run(QStringLiteral(VLUM_SOURCE_DIR "/tests/fixtures/make-bad-pkg"), {kind, package}), 0);

        QByteArray output;
        QCOMPARE(run(kInstaller, installArguments(package), root.path(), &output), 1);
        const QByteArray last = output.trimmed().split('\n').last();
        QVERIFY2(last.startsWith("installer: Error - ") && last.contains(reason.toUtf8()), last.constData());
        QCOMPARE(snapshot(root.path()), before);
        QVERIFY(!QFileInfo::exists(QStringLiteral("/tmp/vlum-absolute-entry")));
        QVERIFY(!QFileInfo::exists(QFileInfo(root.path()).path() + "/vlum-escaped"));
    }

    // A package that would put a folder where the target has a file is
    // refused before anything moves into place.
    void conflictLeavesTargetAlone()
    {
        QTemporaryDir root;
        QVERIFY(writeFile(root.filePath(QStringLiteral("opt/Oktavo")), "a file, not a folder\n"));
        const QStringList before = snapshot(root.path());
        QByteArray output;
        QCOMPARE(run(kInstaller, installArguments(goodPackage), root.path(), &output), 1);
        QVERIFY2(output.contains("installer: Error - would replace a folder by a file"), output.constData());
        QCOMPARE(snapshot(root.path()), before);
    }
};

QTEST_GUILESS_MAIN(TestInstaller)
#include "tst_installer.moc"
