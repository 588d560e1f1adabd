#pragma once

// Answers the message boxes that open while it lives, the way a user
// would, and remembers what they said. A box without the chosen answer
// but with a single one is closed with that one.

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
            // A box with a single answer can only be closed with it; its
            // "Show Details..." button is no answer.
            QAbstractButton* button = box->button(this->answer);
            if (!button && box->standardButtons() != QMessageBox::NoButton) {
                const QList<QAbstractButton*> buttons = box->buttons();
                QList<QAbstractButton*> answers;
                for (QAbstractButton* candidate : buttons) {
                    if (box->standardButton(candidate) != QMessageBox::NoButton)
                        answers << candidate;
                }
                if (answers.size() == 1)
                    button = answers.first();
            }
            if (button)
                button->click();
            else
                box->reject();
        });
        timer.start();
    }

    QStringList texts, informative, details;

private:
    QMessageBox::StandardButton answer;
    QTimer timer;
};
