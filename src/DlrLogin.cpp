#include "DlrLogin.h"

#include "DlrApp.h"
#include "DlrConstants.h"

#include <QDesktopServices>
#include <QGridLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QUrl>

DlrLogin::DlrLogin(QWidget* parent)
    : QWizardPage(parent)
{
    buildInterface();
    // A blank subtitle keeps the wizard's header, and with it the banner.
    setSubTitle(tr(" "));
    setPixmap(QWizard::BannerPixmap, dlrApp()->LoadPixmapResource("loginBanner.png"));
    firstShow = true;
}

void DlrLogin::buildInterface()
{
    auto* grid = new QGridLayout;
    grid->setContentsMargins(0, 0, 0, 0);
    grid->setSpacing(0);
    const DlrApp* app = dlrApp();

    userName = new QLineEdit(this);
    userName->setObjectName(QStringLiteral("userName"));
    userName->setPlaceholderText(QStringLiteral("Velluma Forum User ID"));
    userName->setAttribute(Qt::WA_MacShowFocusRect, false);
    userName->setText(app->user);
    connect(userName, &QLineEdit::textEdited, this, &DlrLogin::entriesChanged);
    userName->installEventFilter(this);
    grid->addWidget(userName, 0, 0, 1, 4);

    password = new QLineEdit(this);
    password->setEchoMode(QLineEdit::Password);
    password->setObjectName(QStringLiteral("password"));
    password->setAttribute(Qt::WA_MacShowFocusRect, false);
    password->setInputMethodHints(Qt::ImhNoAutoUppercase | Qt::ImhNoPredictiveText);
    password->setPlaceholderText(QStringLiteral("Velluma Forum Password"));
    password->setText(app->pass);
    connect(password, &QLineEdit::textEdited, this, &DlrLogin::entriesChanged);
    password->installEventFilter(this);
    grid->addWidget(password, 1, 0, 1, 4);

    needToRegister = new QPushButton(QStringLiteral("Need a Forum User ID?"), this);
    needToRegister->setObjectName(QStringLiteral("needToRegister"));
    needToRegister->installEventFilter(this);
    connect(needToRegister, &QPushButton::released, this, &DlrLogin::registerOnForum);
    grid->addWidget(needToRegister, 2, 0);

    auto* spacer = new QLabel(this);
    spacer->setObjectName(QStringLiteral("spacer"));
    grid->addWidget(spacer, 3, 0, 1, 4);

    setLayout(grid);
}

bool DlrLogin::haveEnteredCredentials() const
{
    return !userName->text().isEmpty() && !password->text().isEmpty();
}

bool DlrLogin::isOkToValidate() const
{
    return haveEnteredCredentials();
}

bool DlrLogin::isComplete() const
{
    return haveEnteredCredentials();
}

bool DlrLogin::validatePage()
{
    // Taken as typed: a password may well begin or end with a blank.
    DlrApp* app = dlrApp();
    app->user = userName->text();
    app->pass = password->text();
    return true;
}

bool DlrLogin::eventFilter(QObject* watched, QEvent* event)
{
    const bool ours = watched == needToRegister || watched == userName || watched == password;
    if (ours && event->type() == QEvent::KeyPress) {
        const int key = static_cast<QKeyEvent*>(event)->key();
        if (key == Qt::Key_Enter || key == Qt::Key_Return) {
            if (isOkToValidate() && wizard())
                wizard()->next();
            return true;
        }
    }
    return QWizardPage::eventFilter(watched, event);
}

void DlrLogin::showEvent(QShowEvent* event)
{
    QWizardPage::showEvent(event);
    if (firstShow) {
        // Start on the sign-up button so that a pre-filled password is not
        // the first thing a stray key press edits.
        needToRegister->setFocus(Qt::OtherFocusReason);
        firstShow = false;
    }
}

void DlrLogin::entriesChanged(QString newText)
{
    Q_UNUSED(newText)
    emit completeChanged();
}

void DlrLogin::registerOnForum()
{
    QDesktopServices::openUrl(
        QUrl(QStringLiteral("https://%1/forum/register.php?action=signup").arg(QLatin1String(DlrVendorHost)),
             QUrl::TolerantMode));
}
