// What the message forms need of the window that hosts them. The forms live on the window's thread (the
// request threads never wait for the user), so opening one is handed over to that thread; and while a form
// is on screen the window knows it, so that closing the window asks first.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "mail/MapiHeaders.h"
#include "support/ComPtr.h"

namespace velmar::mail {

class IFormHost {
public:
    virtual ~IFormHost() = default;
    // The owner window of the forms (a window handle on Windows, the window's id elsewhere).
    virtual ULONG_PTR ParentWindow() const = 0;
    // Runs task later on the window's thread; false (task dropped) when the window is gone or going.
    virtual bool Post(std::function<void()> task) = 0;
    // Records form as on screen until the returned token is destroyed. When the window goes first, it
    // shuts the form down without saving.
    virtual std::shared_ptr<void> FormOnScreen(CComPtr<IMAPIForm> form) = 0;
    // A message box over the forms, for what a form's site has to tell the user.
    virtual void ShowMessage(const std::wstring& text) = 0;
};

// The active window of this thread, the owner of a form whose opener names none; 0 where there is none.
ULONG_PTR ActiveWindowHandle();

}  // namespace velmar::mail
