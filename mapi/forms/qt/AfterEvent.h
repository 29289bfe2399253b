// Form windows run their actions once the event that asked for them is done: an action may take the
// window down, which must not happen inside the window's own event handling.
#pragma once

#include <QCoreApplication>
#include <QPointer>
#include <QTimer>
#include <QWidget>
#include <functional>

namespace velmar::forms {

// Runs action soon, unless window is gone by then. The action must not refer to the window itself.
inline void AfterEvent(QWidget* window, std::function<void()> action) {
    QTimer::singleShot(0, QCoreApplication::instance(),
                       [guard = QPointer<QWidget>(window), action = std::move(action)] {
                           if (guard) action();
                       });
}

}  // namespace velmar::forms
