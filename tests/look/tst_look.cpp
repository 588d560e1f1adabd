// The look: images and the style sheet come from the bundle's Resources
// folder, and their absence never stops the program.

#include "../support/TestMain.h"

#include "DlrApp.h"
#include "DlrMainWindow.h"

#include <QDir>
#include <QFile>
#include <QLabel>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QWizardPage>

namespace {

// A bundle of our own: bin/ is what appDirPath points at.
struct ScratchBundle {
    QTemporaryDir dir;
    QString bin() const { return dir.filePath(QStringLiteral("bin")); }
    bool make(const QByteArray& sheet = QByteArray(), bool sheetIsFolder = false)
    {
        if (!dir.isValid() || !QDir().mkpath(bin()))
            return false;
        const QString sheets = dir.filePath(QStringLiteral("Resources/stylesheets"));
        if (!QDir().mkpath(sheets))
            return false;
        const QString path = sheets + QStringLiteral("/vluminstaller.qss");
        if (sheetIsFolder)
            return QDir().mkpath(path);
        if (sheet.isNull())
            return true;
        QFile file(path);
        return file.open(QIODevice::WriteOnly) && file.write(sheet) == sheet.size();
    }
};

} // namespace

class TestLook : public QObject
{
    Q_OBJECT

private:
    QString realAppDir;

private slots:
    void initTestCase() { realAppDir = dlrApp()->appDirPath; }

    void cleanup()
    {
        DlrApp* app = dlrApp();
        app->appDirPath = realAppDir;
        app->mainWindow.reset();
        app->setStyleSheet(QString());
        app->setWindowIcon(QIcon());
    }

    // Every picture the pages ask for is in the bundle and loads.
    void bundleImages_data()
    {
        QTest::addColumn<QByteArray>("name");
        for (const char* name : {"vluminstaller.png", "banner.png", "loginBanner.png", "selectionBanner.png",
                                 "downloadBanner.png", "finishedBanner.png", "finish-1.png", "whileUWait-1.png",
                                 "whileUWait-2.png", "whileUWait-3.png"})
            QTest::newRow(name) << QByteArray(name);
    }

    void bundleImages()
    {
        QFETCH(QByteArray, name);
        QVERIFY(!dlrApp()->LoadPixmapResource(name.constData()).isNull());
        QVERIFY(!dlrApp()->LoadIconResource(name.constData()).isNull());
    }

    void loadersWithoutFile()
    {
        DlrApp* app = dlrApp();
        QVERIFY(app->LoadPixmapResource("no-such-picture.png").isNull());
        QVERIFY(app->LoadIconResource("no-such-picture.png").isNull());
    }

    // The style sheet names every object name the pages give their widgets;
    // a renamed widget would silently lose its look.
    void styleSheetCoversPageWidgets()
    {
        DlrApp* app = dlrApp();
        app->loadStylesheet("vluminstaller.qss");
        const QString sheet = app->styleSheet();
        QVERIFY(!sheet.isEmpty());

        DlrMainWindow window;
        QStringList names;
        for (int id : window.pageIds()) {
            for (const QWidget* widget : window.page(id)->findChildren<QWidget*>()) {
                const QString name = widget->objectName();
                if (!name.isEmpty() && !name.startsWith(QLatin1String("qt_")))
                    names << name;
            }
        }
        QVERIFY2(names.size() >= 9, qPrintable(names.join(QLatin1Char(' '))));
        for (const QString& name : names)
            QVERIFY2(sheet.contains(QLatin1Char('#') + name), qPrintable(name));
    }

    // Every picture the sheet names is found in the bundle, whatever the
    // current folder: a missing one would leave a tick box silently empty.
    void styleSheetImages()
    {
        DlrApp* app = dlrApp();
        app->loadStylesheet("vluminstaller.qss");
        QRegularExpressionMatchIterator url = QRegularExpression(QStringLiteral("url\\(([^)]*)\\)")).globalMatch(app->styleSheet());
        QVERIFY(url.hasNext());
        while (url.hasNext()) {
            const QString name = url.next().captured(1);
            QVERIFY2(!QPixmap(name).isNull(), qPrintable(name));
        }
    }

    // Lines are joined with nothing between them: a rule broken where no
    // blank is needed still works, a blank that was only a line break is gone.
    void styleSheetLinesJoined()
    {
        ScratchBundle bundle;
        QVERIFY(bundle.make("QLabel#joined {\n  color: #ff0000;\n}\nQWidget\nQLabel#runTogether {\ncolor: #00ff00;\n}\n"));
        DlrApp* app = dlrApp();
        app->appDirPath = bundle.bin();
        app->loadStylesheet("vluminstaller.qss");
        QCOMPARE(app->styleSheet(),
                 QStringLiteral("QLabel#joined {  color: #ff0000;}QWidgetQLabel#runTogether {color: #00ff00;}"));

        QWidget holder;
        QLabel joined(&holder);
        joined.setObjectName(QStringLiteral("joined"));
        QLabel runTogether(&holder);
        runTogether.setObjectName(QStringLiteral("runTogether"));
        holder.ensurePolished();
        joined.ensurePolished();
        runTogether.ensurePolished();
        QCOMPARE(joined.palette().color(QPalette::WindowText), QColor(0xff, 0, 0));
        QVERIFY(runTogether.palette().color(QPalette::WindowText) != QColor(0, 0xff, 0));
    }

    void styleSheetMissingOrUnreadable_data()
    {
        QTest::addColumn<bool>("folderInPlace");
        QTest::addColumn<QByteArray>("name");
        QTest::newRow("no file") << false << QByteArray("vluminstaller.qss");
        QTest::newRow("a folder in its place") << true << QByteArray("vluminstaller.qss");
    }

    void styleSheetMissingOrUnreadable()
    {
        QFETCH(bool, folderInPlace);
        QFETCH(QByteArray, name);
        ScratchBundle bundle;
        QVERIFY(bundle.make(QByteArray(), folderInPlace));
        DlrApp* app = dlrApp();
        app->appDirPath = bundle.bin();
        const QString before = QStringLiteral("QLabel { color: #123456; }");
        app->setStyleSheet(before);
        app->loadStylesheet(name.constData());
        QCOMPARE(app->styleSheet(), before);
    }

    // Started away from its bundle the program still opens its window, just
    // without icon, banners or style.
    void startOutsideBundle()
    {
        QTemporaryDir empty;
        DlrApp* app = dlrApp();
        app->appDirPath = empty.path();
        QCOMPARE(app->Start(), false);
        QVERIFY(app->mainWindow);
        QVERIFY(app->mainWindow->isVisible());
        QVERIFY(app->windowIcon().isNull());
        QVERIFY(app->styleSheet().isEmpty());
        QVERIFY(app->mainWindow->pixmap(QWizard::BannerPixmap).isNull());
        const auto* artwork = app->mainWindow->findChild<QLabel*>(QStringLiteral("finishArtwork"));
        QVERIFY(artwork);
        QVERIFY(artwork->pixmap(Qt::ReturnByValue).isNull());
    }

    void startInBundle()
    {
        DlrApp* app = dlrApp();
        QCOMPARE(app->Start(), false);
        QVERIFY(app->mainWindow && app->mainWindow->isVisible());
        QVERIFY(!app->windowIcon().isNull());
        QVERIFY(app->styleSheet().contains(QLatin1String("#userName")));
        QVERIFY(!app->mainWindow->pixmap(QWizard::BannerPixmap).isNull());
        QVERIFY(!app->mainWindow->page(DlrMainWindow::LoginPage)->pixmap(QWizard::BannerPixmap).isNull());
    }
};

int main(int argc, char** argv)
{
    return runWithDlrApp<TestLook>(argc, argv, {});
}

#include "tst_look.moc"
