#include "DlrApp.h"

#include "DlrConstants.h"
#include "DlrLog.h"
#include "DlrMachineAssay.h"
#include "DlrMainWindow.h"
#include "DlrOptions.h"
#include "DlrUnattended.h"

#include <QFile>
#include <QImageReader>
#include <QNetworkAccessManager>
#include <QSettings>
#include <QTextStream>

DlrApp::DlrApp(int& argc, char** argv)
    : QApplication(argc, argv)
    , manifestServer(QString::fromLatin1(DlrVendorHost))
    , manifestServerScheme(QStringLiteral("https"))
    , manifestUrl(QStringLiteral("forum/currentproducts.php"))
    , appDirPath(QCoreApplication::applicationDirPath())
    , successURL(DefaultSuccessURL())
{
    // Two private slots take the list of TLS problems.
    qRegisterMetaType<QList<QSslError>>("QList<QSslError>");
    loadSettings();
    parseEnvironment();
    parseCommandLineArguments();
    DlrHidePasswordArguments(argc, argv);
}

QUrl DlrApp::DefaultSuccessURL()
{
    return QUrl(QStringLiteral("https://%1/view/Install-Success").arg(QLatin1String(DlrVendorHost)),
                QUrl::TolerantMode);
}

DlrApp::~DlrApp()
{
    // The message handler must stop asking this object for its level before
    // any member goes away.
    DlrFinalizeLogging();
    downloadBuffer.reset();
    unattendedRun.reset();
    mainWindow.reset();
    // Now, while the application is whole: as a child it would go only after
    // QCoreApplication's own teardown, too late to wind down its network
    // thread, whose objects were then lost (a run that ends while a
    // connection is still being closed).
    delete networkManager;
    networkManager = nullptr;
    manifestReply = nullptr;
    downloadReply = nullptr;
}

bool DlrApp::Start()
{
    if (unattended) {
        unattendedRun = std::make_unique<DlrUnattended>();
        unattendedRun->Begin();
        return false;
    }
    setWindowIcon(LoadIconResource("vluminstaller.png"));
    loadStylesheet("vluminstaller.qss");

    mainWindow = std::make_unique<DlrMainWindow>();
    mainWindow->show();
    mainWindow->raise();
    return false;
}

void DlrApp::DoAssay()
{
    assay = DlrMachineAssay::Singleton();
    assay->DoAssay();
}

QString DlrApp::resourcePath(const char* folder, const char* name) const
{
    // Joined as text, not normalised: the bundle layout is fixed.
    return appDirPath + QDir::separator() + QLatin1String(folder) + QDir::separator()
        + QString::fromLocal8Bit(name);
}

QIcon DlrApp::LoadIconResource(const char* name) const
{
    QIcon icon;
    if (!name)
        return icon;
    // QIcon keeps a file it cannot read as a non-empty icon that draws
    // nothing; a missing or broken picture must give an empty icon instead.
    const QString path = resourcePath("../Resources/images", name);
    if (QImageReader(path).canRead())
        icon.addFile(path, QSize(), QIcon::Normal, QIcon::Off);
    return icon;
}

QPixmap DlrApp::LoadPixmapResource(const char* name) const
{
    if (!name)
        return QPixmap();
    return QPixmap(resourcePath("../Resources/images", name));
}

void DlrApp::loadStylesheet(const char* name)
{
    if (!name)
        return;
    QFile file(resourcePath("../Resources/stylesheets", name));
    if (!file.exists() || !file.open(QIODevice::ReadOnly | QIODevice::Text))
        return;
    // The sheet names its pictures as url(images:<name>): a relative path
    // would be taken from the current folder, not from the bundle.
    QDir::setSearchPaths(QStringLiteral("images"), {resourcePath("../Resources", "images")});

    // Lines are joined without a separator: rules must break lines only
    // where no blank is needed.
    QString sheet;
    QTextStream in(&file);
    while (!in.atEnd())
        sheet += in.readLine();
    file.close();
    setStyleSheet(sheet);
}
