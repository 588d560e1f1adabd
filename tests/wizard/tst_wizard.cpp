// The wizard window, the login page and the finished page, driven as a user
// would: key presses, clicks, and the addresses handed to the browser.

#include "../support/TestMain.h"
#include "../support/UrlCatcher.h"

#include "DlrApp.h"
#include "DlrDownload.h"
#include "DlrFinished.h"
#include "DlrLogin.h"
#include "DlrMainWindow.h"
#include "DlrSelection.h"

#include <QAbstractButton>
#include <QDesktopServices>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>

class TestWizard : public QObject
{
    Q_OBJECT

private:
    UrlCatcher browser;
    QScopedPointer<DlrMainWindow> window;
    QString optionUser; // as the command line set them
    QString optionPass;

    QLineEdit* field(const char* name) { return window->findChild<QLineEdit*>(QLatin1String(name)); }
    QAbstractButton* nextButton() { return window->button(QWizard::NextButton); }

    void showWindow()
    {
        window.reset(new DlrMainWindow);
        window->show();
        QVERIFY(QTest::qWaitForWindowExposed(window.data()));
        window->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(window.data()));
    }

private slots:
    void initTestCase()
    {
        optionUser = dlrApp()->user;
        optionPass = dlrApp()->pass;
        QCOMPARE(optionUser, QStringLiteral("alice"));
        QCOMPARE(optionPass, QStringLiteral(" s3cret "));
        QDesktopServices::setUrlHandler(QStringLiteral("https"), &browser, "open");
        QDesktopServices::setUrlHandler(QStringLiteral("http"), &browser, "open");
    }

    void cleanupTestCase()
    {
        QDesktopServices::unsetUrlHandler(QStringLiteral("https"));
        QDesktopServices::unsetUrlHandler(QStringLiteral("http"));
    }

    void init()
    {
        browser.opened.clear();
        DlrApp* app = dlrApp();
        app->user = optionUser;
        app->pass = optionPass;
    }

    void cleanup() { window.reset(); }

    void windowShape()
    {
        DlrMainWindow w;
        QCOMPARE(w.windowTitle(), QStringLiteral("Velluma Installer"));
        QCOMPARE(w.sizeHint(), QSize(800, 400));
        QCOMPARE(w.wizardStyle(), QWizard::ModernStyle);
        QVERIFY(!w.pixmap(QWizard::BannerPixmap).isNull());
        QCOMPARE(w.pageIds(), (QList<int>{0, 1, 2, 3}));
        QVERIFY(qobject_cast<DlrLogin*>(w.page(DlrMainWindow::LoginPage)));
        QVERIFY(qobject_cast<DlrSelection*>(w.page(DlrMainWindow::SelectionPage)));
        QVERIFY(qobject_cast<DlrDownload*>(w.page(DlrMainWindow::DownloadPage)));
        QVERIFY(qobject_cast<DlrFinished*>(w.page(DlrMainWindow::FinishedPage)));
        // Every page keeps the header (blank subtitle) and has its own banner.
        for (int id : w.pageIds()) {
            QCOMPARE(w.page(id)->subTitle(), QStringLiteral(" "));
            QVERIFY(!w.page(id)->pixmap(QWizard::BannerPixmap).isNull());
        }
    }

    // Back, Next (and Finish) sit together at the right; no Cancel, no Help.
    void buttonRow()
    {
        showWindow();
        QAbstractButton* back = window->button(QWizard::BackButton);
        QAbstractButton* next = nextButton();
        QVERIFY(next->isVisible());
        QVERIFY(!window->button(QWizard::CancelButton)->isVisible());
        QVERIFY(!window->button(QWizard::HelpButton)->isVisible());
        const int width = window->width();
        const QRect nextRect(next->mapTo(window.data(), QPoint()), next->size());
        QVERIFY2(nextRect.right() > width - 40, "Next is not right-aligned");
        if (back->isVisible()) {
            const QRect backRect(back->mapTo(window.data(), QPoint()), back->size());
            QVERIFY(backRect.right() <= nextRect.left());
            QVERIFY(backRect.left() > width / 2);
        }
    }

    void loginPrefilledAndFocus()
    {
        showWindow();
        QCOMPARE(window->currentId(), int(DlrMainWindow::LoginPage));
        QCOMPARE(field("userName")->text(), QStringLiteral("alice"));
        QCOMPARE(field("password")->text(), QStringLiteral(" s3cret "));
        QCOMPARE(field("password")->echoMode(), QLineEdit::Password);
        QCOMPARE(field("userName")->placeholderText(), QStringLiteral("Velluma Forum User ID"));
        QCOMPARE(field("password")->placeholderText(), QStringLiteral("Velluma Forum Password"));
        QVERIFY(nextButton()->isEnabled());
        auto* signUp = window->findChild<QPushButton*>(QStringLiteral("needToRegister"));
        QVERIFY(signUp);
        QCOMPARE(signUp->text(), QStringLiteral("Need a Forum User ID?"));
        QTRY_COMPARE(QApplication::focusWidget(), static_cast<QWidget*>(signUp));
    }

    // Only the first showing moves the focus; the user's choice stays after.
    void focusLeftAloneLater()
    {
        showWindow();
        QLineEdit* password = field("password");
        password->setFocus();
        QTRY_COMPARE(QApplication::focusWidget(), static_cast<QWidget*>(password));
        // The window shown again shows the page again.
        window->hide();
        window->show();
        QVERIFY(QTest::qWaitForWindowExposed(window.data()));
        window->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(window.data()));
        QTRY_COMPARE(window->focusWidget(), static_cast<QWidget*>(password));
    }

    void nextFollowsEdits_data()
    {
        QTest::addColumn<QByteArray>("emptied");
        QTest::newRow("user ID emptied") << QByteArray("userName");
        QTest::newRow("password emptied") << QByteArray("password");
    }

    void nextFollowsEdits()
    {
        QFETCH(QByteArray, emptied);
        showWindow();
        QLineEdit* edit = field(emptied.constData());
        edit->setFocus();
        edit->selectAll();
        QTest::keyClick(edit, Qt::Key_Backspace);
        QVERIFY(!nextButton()->isEnabled());

        // Enter with an empty field is swallowed: no page change.
        for (const char* name : {"userName", "password", "needToRegister"}) {
            QTest::keyClick(window->findChild<QWidget*>(QLatin1String(name)), Qt::Key_Return);
            QTest::keyClick(window->findChild<QWidget*>(QLatin1String(name)), Qt::Key_Enter);
            QCOMPARE(window->currentId(), int(DlrMainWindow::LoginPage));
        }
        QVERIFY(browser.opened.isEmpty());

        QTest::keyClicks(edit, QStringLiteral("x"));
        QVERIFY(nextButton()->isEnabled());
    }

    // Enter goes on exactly like Next, and the credentials are kept as typed.
    void enterGoesOn_data()
    {
        QTest::addColumn<QByteArray>("where");
        QTest::addColumn<int>("key");
        QTest::newRow("Return in user ID") << QByteArray("userName") << int(Qt::Key_Return);
        QTest::newRow("Enter in password") << QByteArray("password") << int(Qt::Key_Enter);
        QTest::newRow("Return on sign-up button") << QByteArray("needToRegister") << int(Qt::Key_Return);
    }

    void enterGoesOn()
    {
        QFETCH(QByteArray, where);
        QFETCH(int, key);
        showWindow();
        QLineEdit* user = field("userName");
        user->selectAll();
        QTest::keyClicks(user, QStringLiteral(" bob "));
        QTest::keyClick(window->findChild<QWidget*>(QLatin1String(where.constData())), Qt::Key(key));
        QCOMPARE(window->currentId(), int(DlrMainWindow::SelectionPage));
        QCOMPARE(dlrApp()->user, QStringLiteral(" bob "));
        QCOMPARE(dlrApp()->pass, QStringLiteral(" s3cret "));
        QVERIFY(browser.opened.isEmpty()); // Enter on the sign-up button does not open it
    }

    void signUpOpensForum()
    {
        showWindow();
        auto* signUp = window->findChild<QPushButton*>(QStringLiteral("needToRegister"));
        QTest::mouseClick(signUp, Qt::LeftButton);
        QCOMPARE(browser.opened,
                 (QList<QUrl>{QUrl(QStringLiteral("https://www.oktavo.com/forum/register.php?action=signup"))}));
        QCOMPARE(window->currentId(), int(DlrMainWindow::LoginPage));
    }

    // The finished page in a wizard of its own: Finish alone, then the
    // success page in the browser and the wizard closes.
    void finishOpensSuccessPage_data()
    {
        QTest::addColumn<QUrl>("successURL");
        QTest::newRow("default") << QUrl(QStringLiteral("https://www.oktavo.com/view/Install-Success"));
        QTest::newRow("from the manifest") << QUrl(QStringLiteral("https://shop.example/thanks?run=1"));
    }

    void finishOpensSuccessPage()
    {
        QFETCH(QUrl, successURL);
        if (QTest::currentDataTag() != QLatin1String("default"))
            dlrApp()->successURL = successURL;
        QCOMPARE(dlrApp()->successURL, successURL);

        QWizard wizard;
        wizard.setButtonLayout({QWizard::Stretch, QWizard::BackButton, QWizard::NextButton, QWizard::FinishButton});
        auto* finished = new DlrFinished(&wizard);
        wizard.addPage(finished);
        QTest::ignoreMessage(QtDebugMsg, "Finished!");
        wizard.show();
        QVERIFY(QTest::qWaitForWindowExposed(&wizard));

        QVERIFY(!wizard.button(QWizard::BackButton)->isVisible());
        QVERIFY(!wizard.button(QWizard::NextButton)->isVisible());
        QAbstractButton* finish = wizard.button(QWizard::FinishButton);
        QVERIFY(finish->isVisible());
        QVERIFY(finished->findChild<QLabel*>(QStringLiteral("finishArtwork")));

        QTest::mouseClick(finish, Qt::LeftButton);
        QCOMPARE(browser.opened, QList<QUrl>{successURL});
        QCOMPARE(wizard.result(), int(QDialog::Accepted));
        QVERIFY(!wizard.isVisible());
    }
};

int main(int argc, char** argv)
{
    // The selection page reads a local product list: no request leaves the
    // machine.
    return runWithDlrApp<TestWizard>(argc, argv, {"-user", "alice", "-pass", " s3cret ", "-manifest",
                                                  VLUM_SOURCE_DIR "/tests/fixtures/one-offer.xml"});
}
#include "tst_wizard.moc"
