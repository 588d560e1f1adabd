#pragma once

#include <QWizardPage>

class QLineEdit;
class QPushButton;

// First page: the forum user ID and password, which Next stores in the
// application object for the manifest request.
class DlrLogin : public QWizardPage
{
    Q_OBJECT

public:
    explicit DlrLogin(QWidget* parent);

    bool eventFilter(QObject* watched, QEvent* event) override;
    bool validatePage() override;
    bool isComplete() const override;

    bool haveEnteredCredentials() const;
    bool isOkToValidate() const;

protected:
    void showEvent(QShowEvent* event) override;

private slots:
    void entriesChanged(QString newText);
    void registerOnForum();

private:
    void buildInterface();

    QLineEdit* userName = nullptr;
    QLineEdit* password = nullptr;
    QPushButton* needToRegister = nullptr;
    bool firstShow = true;
};
