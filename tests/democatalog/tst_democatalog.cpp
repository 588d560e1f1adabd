// The demo catalog's packages as the demo uses them: built by the real
// catalog tool, installed by the real installer into a demo machine, then
// found (or not) by the real survey.

#include "../assay/RecordText.h"
#include "../support/ChildRun.h"
#include "../support/TestMain.h"

#include "DlrMachineAssay.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

class TestDemoCatalog : public QObject
{
    Q_OBJECT

    QTemporaryDir work;
    QString machine;
    QString productRoot;

    QStringList survey()
    {
        dlrApp()->DoAssay();
        QStringList records;
        for (const AssayedProduct& product : dlrApp()->assay->FindAssayedProductByVersion(QString(), QString()))
            records << recordText(product).replace(productRoot, QStringLiteral("~"));
        records.sort(); // folders come in file-system order
        return records;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(work.isValid());
        // The demo machine: one Maya 2018 and an empty product root. The
        // survey reads its roots once per process, so they are set first.
        machine = work.filePath(QStringLiteral("machine"));
        productRoot = machine + QStringLiteral("/opt/Oktavo");
        QVERIFY(QDir().mkpath(machine + QStringLiteral("/usr/autodesk/maya2018")) && QDir().mkpath(productRoot));
        qputenv("VLUM_PRODUCT_ROOT", productRoot.toLocal8Bit());
        qputenv("VLUM_MAYA_ROOT", QFile::encodeName(machine + QStringLiteral("/usr/autodesk")));
        qunsetenv("VLUM_SYSTEM_PROFILER");
        qunsetenv("VLUMTREE");
        qunsetenv("VWSTREE");
    }

    // Catches a demo whose installed products the survey would not know: a
    // folder off the family patterns, a banner on the wrong stream or
    // without its build, a missing plug-in bundle or build-id file, a
    // package the installer refuses.
    void installedProductsAreFound()
    {
        const QString catalog = work.filePath(QStringLiteral("catalog"));
        // Signed with the build's demo key and installed trusting it, as
        // the demo does: make-pkg and the installer agree on the digest.
        const QStringList installRoot{QStringLiteral("VLUM_INSTALL_ROOT=") + machine,
                                      QStringLiteral("VLUM_TRUSTED_KEYS=" VLUM_TRUSTED_DEMO_KEYS)};
        const ChildRun made = runChild(QStringLiteral(VLUM_SOURCE_DIR "/tools/make-demo-catalog"),
                                       {QStringLiteral("--sign-key"), QStringLiteral(VLUM_DEMO_KEY), catalog}, work.path());
        QVERIFY2(made.exitStatus == QProcess::NormalExit && made.exitCode == 0, made.err.constData());
        const QDir packages(catalog + QStringLiteral("/packages"));
        const QStringList files = packages.entryList({QStringLiteral("*.pkg")}, QDir::Files);
        QVERIFY(!files.isEmpty());
        for (const QString& file : files) {
            const ChildRun installed = runChild(QStringLiteral(VLUM_LIBEXEC_DIR "/installer"),
                                                {"-verboseR", "-target", "/", "-package", packages.filePath(file)},
                                                work.path(), installRoot);
            QVERIFY2(installed.exitCode == 0 && installed.out.contains("installer:STATUS:Signature verified")
                         && installed.out.endsWith("installer: The install was successful.\n"),
                     qPrintable(file + QLatin1Char(' ') + QString::fromUtf8(installed.out.right(300))));
        }

        QStringList found{
            "Maya|2018|||",
            "Velluma 22.0 for Maya 2018|22.0|1234|2018|~/VellumaForMaya-22.0-maya2018",
            "Velluma 22.0 for Maya 2019|22.0|1234|2019|~/VellumaForMaya-22.0-maya2019",
            "Velluma CoreServer 22.0|22.0|1234||~/Velluma CoreServer 22.0",
            "Velluma Workshop 22.0 for Maya 2019|22.0|1234|2019|~/VellumaWorkshop-22.0-Maya2019",
        };
        QCOMPARE(survey(), found);

        // Without its build-id file a bridge answers through its queue
        // application's banner, which must carry the same build.
        QVERIFY(QFile::remove(productRoot + QStringLiteral("/VellumaForMaya-22.0-maya2019/etc/buildid.txt")));
        QCOMPARE(survey(), found);
    }
};

int main(int argc, char** argv)
{
    return runWithDlrApp<TestDemoCatalog>(argc, argv, {});
}

#include "tst_democatalog.moc"
