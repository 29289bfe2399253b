// Helpers of the in-process Qt tests, which run on Qt's offscreen platform: running the event loop until
// something has happened, and answering the message box that comes up next.
#pragma once

#include <gtest/gtest.h>

#include <QApplication>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

namespace velmar::test {

// Runs the event loop until the condition holds or 10 s have passed.
inline bool ProcessUntil(const std::function<bool()>& condition) {
    for (int i = 0; i < 1000 && !condition(); ++i) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return condition();
}

// Answers the next message box with `button` once it is up, and notes its title and text.
struct CBoxAnswer {
    QString title, text;
    bool seen = false;
};
inline void AnswerNextBox(CBoxAnswer& answer, QMessageBox::StandardButton button) {
    QTimer::singleShot(50, [&answer, button] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (!box) return AnswerNextBox(answer, button);
        answer.seen = true;
        answer.title = box->windowTitle();
        answer.text = box->text();
        box->button(button)->click();
    });
}

// Answers the message boxes that come up in turn, each with the next of `buttons`, and notes their texts;
// for boxes that come up inside the handling of the one before.
inline void AnswerBoxes(std::vector<QMessageBox::StandardButton> buttons, std::vector<QString>& texts) {
    if (buttons.empty()) return;
    QTimer::singleShot(50, [buttons = std::move(buttons), &texts]() mutable {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (!box || (!texts.empty() && box->text() == texts.back()))
            return AnswerBoxes(std::move(buttons), texts);
        texts.push_back(box->text());
        const QMessageBox::StandardButton button = buttons.front();
        buttons.erase(buttons.begin());
        AnswerBoxes(std::move(buttons), texts);
        box->button(button)->click();
    });
}

// The main of an in-process Qt test: the application object lives as long as the tests and goes before
// Qt's own statics do.
inline int RunOffscreenQtTests(int argc, char** argv) {
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
    QApplication application(argc, argv);
    application.setQuitOnLastWindowClosed(false);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

}  // namespace velmar::test
