#pragma once

// Answers the message boxes that open while it lives, the way a user
// would, and remembers what they said. A box without the chosen answer
// but with a single button is closed with that button.

#include <QAbstractButton>
#include <QApplication>
#include <QMessageBox>
#include <QStringList>
#include <QTimer>

class DialogAnswerer : public QObject
{
public:
    explicit DialogAnswerer(QMessageBox::StandardButton answer)
        : answer(answer)
    {
        timer.setInterval(20);
        QObject::connect(&timer, &QTimer::timeout, this, [this] {
            auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
            if (!box)
                return;
            texts << box->text();
            informative << box->informativeText();
            details << box->detailedText();
            // A box with a single button can only be closed with it.
            QAbstractButton* button = box->button(this->answer);
            if (!button && box->buttons().size() == 1)
                button = box->buttons().first();
            button->click();
        });
        timer.start();
    }

    QStringList texts, informative, details;

private:
    QMessageBox::StandardButton answer;
    QTimer timer;
};
