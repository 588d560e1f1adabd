// The package installer: good packages installed with their progress
// stream, over earlier versions too, and killed half-way; broken, hostile,
// older, unsigned and tampered packages refused with the target left
// exactly as it was and nothing written beside it; the books it keeps.
// (The faults suite runs it through the real helper.)

#include "../support/AttackTally.h"
#include "../support/ChildRun.h"
#include "../support/Files.h"

#include "DlrPlatform.h"

#include <QDirIterator>
#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QtTest>

#include <csignal>
#include <sys/stat.h>

namespace {

const QString kInstaller = QStringLiteral(VLUM_LIBEXEC_DIR "/installer");
const QString kMakeTestPkg = QStringLiteral(VLUM_SOURCE_DIR "/tests/fixtures/make-test-pkg");

// Every path below `root` with, for files, their content and, for links,
// where they lead from `root` ("../" first when out of it): two equal
// snapshots mean nothing was written, moved or left behind. Receipts hold
// the time they were written: only their names count.
QStringList snapshot(const QString& root)
{
    const QDir top(QFileInfo(root).canonicalFilePath());
    QStringList entries;
    QDirIterator it(top.path(), QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo info(it.next());
        QFile file(info.filePath());
        QString entry = top.relativeFilePath(info.filePath());
        if (info.isSymLink())
            entry += QStringLiteral(" -> ") + top.relativeFilePath(info.canonicalFilePath());
        else if (info.isFile() && !entry.startsWith(QLatin1String("var/lib/velluma/receipts/"))
                 && file.open(QIODevice::ReadOnly))
            entry += QStringLiteral(" = ") + QString::fromLocal8Bit(file.readAll());
        entries << entry;
    }
    entries.sort();
    return entries;
}

// `command`'s exit status; `environment`: NAME=value entries added to this
// process's.
int run(const QStringList& command, const QStringList& environment = {}, QByteArray* output = nullptr)
{
    const ChildRun child = runChild(command.first(), command.mid(1), QDir::homePath(), environment);
    if (output)
        *output = child.out + child.err;
    return child.exitStatus == QProcess::NormalExit ? child.exitCode : -1;
}

} // namespace

class TestInstaller : public QObject
{
    Q_OBJECT

    QTemporaryDir work;
    AttackTally tally;

    // The installer's environment: the target under `root`, and the keys
    // it trusts: "none" (no folder), "demo" (the build's demo key, as in
    // the demo) or "loose" (that key in a folder anyone may write to).
    QStringList environment(const QString& root, const QString& keys) const
    {
        const QString folder = keys == QLatin1String("demo") ? QStringLiteral(VLUM_TRUSTED_DEMO_KEYS)
                                                             : work.filePath(keys + QStringLiteral("-keys"));
        return {"VLUM_INSTALL_ROOT=" + root, "VLUM_TRUSTED_KEYS=" + folder};
    }

    // A package of make-test-pkg's `kind`; signed kinds use the demo key.
    QString makePackage(const QString& kind) const
    {
        const QString package = work.filePath(kind + ".pkg");
        return run({kMakeTestPkg, kind, package, VLUM_DEMO_KEY}) == 0 ? package : QString();
    }

    int install(const QString& package, const QStringList& environment, QByteArray* output = nullptr) const
    {
        return run(QStringList{kInstaller} + DlrPlatform::PackageInstallerArguments(package), environment, output);
    }

    // Kills the installation of `package` over the old version in `root`,
    // each time on a fresh copy, at random moments from its start to past
    // its end: the product is then wholly old or wholly new, and after the
    // next run of the installer (a query) so is its receipt, with nothing
    // else left.
    void killAtRandomMoments(const QString& root, const QString& package, QStringList env)
    {
        const QString copy = root + QStringLiteral("-copy");
        env[0] = "VLUM_INSTALL_ROOT=" + copy; // see environment()
        const auto state = [&](bool freshCopy) { // a failed copy shows as a difference
            QByteArray books = "no copy";
            if (!freshCopy || (QDir(copy).removeRecursively() && run({"cp", "-a", root, copy}) == 0))
                run({kInstaller, "-pkgs"}, env, &books);
            return snapshot(copy) << QString::fromUtf8(books);
        };
        const QStringList old = state(true);
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(install(package, env), 0);
        const qint64 took = clock.elapsed() + 20;
        const QStringList upgraded = state(false);
        const auto product = [](const QStringList& entries) { return entries.filter(QRegularExpression("^opt/")); };
        int kills = 0, mixed = 0, leftovers = 0;
        for (int attempt = 0; attempt < 30; ++attempt) {
            state(true);
            QProcess installer;
            installer.setProcessEnvironment(withEntries(QProcessEnvironment::systemEnvironment(), env));
            installer.start(kInstaller, DlrPlatform::PackageInstallerArguments(package));
            QThread::usleep(QRandomGenerator::global()->bounded(quint32(took * 1000)));
            if (installer.waitForStarted() && installer.state() == QProcess::Running)
                ::kill(pid_t(installer.processId()), SIGKILL);
            QVERIFY(installer.waitForFinished());
            kills += installer.exitStatus() == QProcess::CrashExit;
            const QStringList killed = product(snapshot(copy)); // before any run completes it
            mixed += killed != product(old) && killed != product(upgraded);
            const QStringList after = state(false);
            leftovers += after != old && after != upgraded;
        }
        qInfo("%d kills: %d mixed trees, %d with something left over or books out of step", kills, mixed, leftovers);
        tally.Add(kills, mixed + leftovers);
        QVERIFY(kills > 0);
        QCOMPARE(mixed + leftovers, 0);
    }

private slots:
    void initTestCase()
    {
        const QString loose = work.filePath(QStringLiteral("loose-keys"));
        QVERIFY(QDir().mkpath(loose) && ::chmod(QFile::encodeName(loose).constData(), 0777) == 0);
        QVERIFY(QFile::copy(QStringLiteral(VLUM_TRUSTED_DEMO_KEYS "/velluma-demo.pem"), loose + "/velluma-demo.pem"));
    }

    void install_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("keys");
        QTest::addColumn<QByteArray>("line"); // installed: a line it writes; refused: the reason on its last line
        QTest::addColumn<QStringList>("installedFirst"); // whatever becomes of them
        QTest::addColumn<QString>("path"); // installed with `mode`; "" when refused
        QTest::addColumn<int>("mode");
        QTest::addColumn<QString>("during"); // "locked": another holds the target; "killed": see install()
        const auto row = [](const char* tag, const QString& kind, const QString& keys, const QByteArray& line,
                            const QString& path = QString(), int mode = 0, const QStringList& first = {},
                            const QString& during = QString()) {
            QTest::newRow(tag) << kind << keys << line << first << path << mode << during;
        };
        // make-test-pkg's refused kinds, then the keys' own refusals.
        QByteArray kinds;
        QCOMPARE(run({kMakeTestPkg, QStringLiteral("--refused")}, {}, &kinds), 0);
        for (const QString& line : QString::fromUtf8(kinds).split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
            const QStringList fields = line.split(QLatin1Char('\t'));
            row(qPrintable(fields[0]), fields[0], fields[1], fields[2].toUtf8(), QString(), 0, fields.mid(3));
        }
        row("unsigned, a key trusted", "unsigned", "demo", "unsigned");
        row("key folder anyone may write to", "signed", "loose", "writable by no one else");
        row("another installation holds the target", "signed", "demo", "another installation is in progress", {}, 0, {},
            "locked");
        // Installed, with the line that says how; modes from the package
        // less set-id and sticky bits; one line per event whatever the names
        // hold.
        const QByteArray success("installer: The install was successful.");
        const QString test = QStringLiteral("opt/Oktavo/Test/");
        row("unsigned, no key trusted", "unsigned", "none",
            "installer:STATUS:Warning: Packages are not verified: no trusted key", test + "first", 0644);
        row("signed, its key trusted", "signed", "demo", "installer:STATUS:Signature verified with the trusted key",
            test + "tool", 0755);
        row("set-uid file", "set-id", "none", success, test + "setuid", 0755);
        row("set-gid file", "set-id", "none", success, test + "setgid", 0755);
        row("folder: its mode, no set-gid or sticky bit", "set-id", "none", success, test + "shared", 0750);
        row("control characters in a name, escaped", "control-name", "none",
            "installer:STATUS:Writing opt/Oktavo/Test/two\\nlines\\x1b[0m\xe2\x80\xa6\n", test + "two\nlines\x1b[0m", 0644);
        // Over an earlier version: as if installed alone, whatever the old one had is gone.
        row("1.10 over 1.9: old files removed", "newer", "demo", success, test + "added", 0644, {"version-1.9"});
        row("22.0 over 22: a repair", "version-22.0", "demo", success, test + "tool", 0755, {"version-22"});
        // Killed at random moments first, each time on a copy of the old version.
        row("upgrade killed at random moments", "many-2", "none", success, test + "data/20/file609", 0644, {"many-1"},
            "killed");
        // The signed package spelled otherwise: installed exactly as signed.
        for (const char* kind : {"same-pax-headers", "same-gnu-names", "same-gzip-members"})
            row(kind, kind, "demo", success, test + "tool", 0755);
    }

    // Every line of output is one of the installer's. Refused before or
    // during unpacking, never half-installed: the target is exactly as
    // before, nothing appeared beside it, and no link in it leads out.
    void install()
    {
        QFETCH(QString, kind);
        QFETCH(QString, keys);
        QFETCH(QByteArray, line);
        QFETCH(QStringList, installedFirst);
        QFETCH(QString, path);
        QFETCH(int, mode);
        QFETCH(QString, during);
        QTemporaryDir box;
        const QString root = box.filePath(QStringLiteral("root"));
        QVERIFY(writeFile(root + QStringLiteral("/opt/keep"), "kept\n"));
        for (const QString& earlier : installedFirst)
            install(makePackage(earlier), environment(root, keys));
        QCOMPARE(run({kInstaller, "-pkgs"}, environment(root, keys)), 0); // the books made
        const QStringList before = snapshot(root);
        const QString package = makePackage(kind); // none: refused as no package, never what a row wants

        QProcess holder; // holds the target's lock
        if (during == QLatin1String("locked")) {
            holder.start("flock", {"-x", root + "/var/lib/velluma/lock", "-c", "echo held; exec sleep 60"});
            QVERIFY(holder.waitForReadyRead(10000));
        }
        if (during == QLatin1String("killed"))
            killAtRandomMoments(root, package, environment(root, keys));
        QByteArray output;
        const int status = install(package, environment(root, keys) << "VLUM_INSTALLER_LOCK_WAIT=0.5", &output);
        holder.kill();
        holder.waitForFinished();
        const QList<QByteArray> lines = output.trimmed().split('\n');
        for (const QByteArray& each : lines)
            QVERIFY2(each.startsWith("installer:"), each.constData());
        if (!path.isEmpty()) {
            QCOMPARE(status, 0);
            QVERIFY2(output.contains(line), output.constData());
            QVERIFY(output.endsWith("installer: The install was successful.\n"));
            QList<float> percents; // as the download page reads them
            for (const QByteArray& each : lines)
                if (each.startsWith("installer:%"))
                    percents << each.mid(11).toFloat();
            QVERIFY(percents.size() >= 3 && std::is_sorted(percents.begin(), percents.end()) && percents.last() == 100);
            struct stat info;
            QCOMPARE(::lstat(QFile::encodeName(root + QLatin1Char('/') + path).constData(), &info), 0);
            QCOMPARE(int(info.st_mode & 07777), mode);
            // As the signed package (or this one) alone leaves a target.
            if (kind.startsWith(QLatin1String("same-")) || !installedFirst.isEmpty()) {
                const QString alone = box.filePath(QStringLiteral("alone"));
                QVERIFY(writeFile(alone + QStringLiteral("/opt/keep"), "kept\n"));
                const QString like = kind.startsWith(QLatin1String("same-")) ? QStringLiteral("signed") : kind;
                QCOMPARE(install(makePackage(like), environment(alone, keys)), 0);
                QCOMPARE(snapshot(root), snapshot(alone));
            }
            return;
        }
        const QStringList after = snapshot(root);
        const QStringList leaving = after.filter(QRegularExpression(QStringLiteral(" -> \\.\\.(/|$)")));
        tally.Add(1, status == 0 || after != before || !leaving.isEmpty() ? 1 : 0);
        QCOMPARE(status, 1);
        QVERIFY2(lines.last().startsWith("installer: Error - ") && lines.last().contains(line), lines.last().constData());
        QCOMPARE(after, before);
        QCOMPARE(QDir(box.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                 QStringList{"root"});
        QCOMPARE(leaving, QStringList());
        QVERIFY(!QFileInfo::exists(QStringLiteral("/tmp/vlum-absolute-entry")));
    }

    void books_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<QString>("damage"); // a shell line run in the target first
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("output"); // a pattern for all of it; "@" is the target
        QTest::addColumn<QStringList>("left"); // what of opt/ stays; empty: all of it
        const auto row = [](const char* tag, const QString& options, const QString& damage, int status,
                            const QString& output, const QStringList& left = {}) {
            QTest::newRow(tag) << options.split(' ') << damage << status << output << left;
        };
        const QString test = QStringLiteral("@/opt/Oktavo/Test/");
        row("-pkgs", "-pkgs", "", 0, "com.oktavo.test 1.0\n");
        row("-pkginfo", "-pkginfo com.oktavo.test", "", 0,
            "identifier: com.oktavo.test\nversion: 1.0\nsigned by: /\\S+/velluma-demo\\.pem\n"
            "installed: 20\\d\\d-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d UTC\nfiles: 4\n");
        row("-files", "-files com.oktavo.test", "", 0, "@/opt\n@/opt/Oktavo\n@/opt/Oktavo/Test\n" + test
            + "a-name[^\\n]*\n" + test + "first\n" + test + "link\n" + test + "tool\n");
        row("-verify, intact", "-verify com.oktavo.test", "", 0, "");
        const QString tool = QStringLiteral("opt/Oktavo/Test/tool");
        for (const QString& damage : {"echo other >" + tool, "rm " + tool, "chmod 777 " + tool})
            row(qPrintable("-verify: " + damage), "-verify com.oktavo.test", damage, 1, "missing or changed: @/" + tool + "\n");
        row("-uninstall", "-uninstall com.oktavo.test", "", 0, "removed com.oktavo.test 1.0\n", {"opt", "opt/keep = kept\n"});
        row("-uninstall, a file added", "-uninstall com.oktavo.test", "echo mine >opt/Oktavo/Test/mine", 0, "removed com.oktavo.test 1.0\n",
            {"opt", "opt/Oktavo", "opt/Oktavo/Test", "opt/Oktavo/Test/mine = mine\n", "opt/keep = kept\n"});
        row("nothing installed", "-files com.oktavo.nothing", "", 1,
            "installer: Error - no package com.oktavo.nothing is installed\n");
        row("two questions", "-pkgs -files x", "", 1, "installer: Error - unknown or incomplete option -files\n");
    }

    // The books an administrator reads, of a target with the signed
    // package installed.
    void books()
    {
        QFETCH(QStringList, options);
        QFETCH(QString, damage);
        QFETCH(int, status);
        QFETCH(QString, output);
        QFETCH(QStringList, left);
        QTemporaryDir root;
        QVERIFY(writeFile(root.filePath(QStringLiteral("opt/keep")), "kept\n"));
        const QStringList env = environment(root.path(), QStringLiteral("demo"));
        QCOMPARE(install(makePackage(QStringLiteral("signed")), env), 0);
        QCOMPARE(run({"sh", "-c", "cd \"$0\"; " + damage, root.path()}), 0);
        const QStringList before = snapshot(root.path()).filter(QRegularExpression("^opt"));
        QByteArray got;
        QCOMPARE(run(QStringList{kInstaller} << options, env, &got), status);
        const QString pattern = "^" + QString(output).replace('@', QRegularExpression::escape(root.path())) + "$";
        QVERIFY2(QRegularExpression(pattern).match(QString::fromUtf8(got)).hasMatch(), got.constData());
        QCOMPARE(snapshot(root.path()).filter(QRegularExpression("^opt")), left.isEmpty() ? before : left);
    }

    // Read once, from the descriptor the helper passes (the -package name
    // is then only a name), into a copy of its own: rewriting the file
    // while it installs changes nothing installed. A descriptor on anything
    // but a regular file is refused.
    void packageReadOnce()
    {
        QTemporaryDir root;
        const QStringList env =
            environment(root.path(), "none") + QStringList{"VLUM_PACKAGE_FD=3", "VLUM_INSTALLER_PACE=0.4"};
        // Its owner rewrites the package with another once it is named.
        const QString rewrite = QStringLiteral(
            "set -o pipefail; \"$0\" -verboseR -target / -package /nowhere/named.pkg 3<\"$1\" | while read -r line; do "
            "echo \"$line\"; case $line in installer:%5.0) cat \"$2\" >\"$1\" ;; esac; done");
        QByteArray output;
        QCOMPARE(run({"bash", "-c", rewrite, kInstaller, makePackage("unsigned"), makePackage("set-id")}, env, &output), 0);
        QVERIFY2(output.contains("installer: Package name is com.oktavo.test 1.0\ninstaller: Installing"), output.constData());
        QCOMPARE(snapshot(root.path()).filter(QRegularExpression("^opt")), (QStringList{"opt", "opt/Oktavo", "opt/Oktavo/Test",
                                                     "opt/Oktavo/Test/first = written before the bad entry"}));
        const QString fromNull = QStringLiteral("exec \"$0\" -verboseR -target / -package /nowhere/named.pkg 3</dev/null");
        QCOMPARE(run({"/bin/sh", "-c", fromNull, kInstaller}, env, &output), 1);
        QVERIFY(output.endsWith("installer: Error - VLUM_PACKAGE_FD is not open on a regular file: /nowhere/named.pkg\n"));
    }
};

QTEST_GUILESS_MAIN(TestInstaller)
#include "tst_installer.moc"
