#pragma once

// Answers the message boxes that open while it lives, the way a user
// would, and remembers what they said. A box without the chosen answer
// but with a single one is closed with that one. A user who waits for
// something before answering is a `ready` test, asked again and again
// while the box is open; after 20 s it answers anyway, so that a test
// whose awaited event never comes fails instead of hanging.

#include <QAbstractButton>
#include <QApplication>
#include <QElapsedTimer>
#include <QMessageBox>
#include <QStringList>
#include <QTimer>

#include <functional>

class DialogAnswerer : public QObject
{
public:
    explicit DialogAnswerer(QMessageBox::StandardButton answer)
        : answer(answer)
    {
        QObject::connect(&timer, &QTimer::timeout, this, [this] {
            auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
            if (!box)
                return waiting.invalidate();
            if (!waiting.isValid())
                waiting.start();
            if (ready && !ready() && !waiting.hasExpired(20000))
                return;
            waiting.invalidate();
            if (!texts.isEmpty() && !later.isEmpty())
                this->answer = later.takeFirst();
            texts << box->text();
            informative << box->informativeText();
            details << box->detailedText();
            // A box with a single answer can only be closed with it; its
            // "Show Details..." button is no answer.
            const int answers = int(box->standardButtons());
            QAbstractButton* button = box->button(this->answer);
            if (!button && answers && !(answers & (answers - 1)))
                button = box->button(QMessageBox::StandardButton(answers));
            if (button)
                button->click();
            else
                box->reject();
        });
        timer.start(20);
    }

    // One answer per box, in order, for the boxes that come after the
    // first; the last one given then answers all the rest.
    void thenAnswer(const QList<QMessageBox::StandardButton>& answers) { later = answers; }

    std::function<bool()> ready;
    QStringList texts, informative, details;

private:
    QMessageBox::StandardButton answer;
    QList<QMessageBox::StandardButton> later;
    QElapsedTimer waiting; // since the open box was first seen
    QTimer timer;
};
