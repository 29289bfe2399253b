// The words the activity list gives an exception a request thread caught: "Ausnahme " and its what(), or
// "unbekannte Ausnahme". Call it only inside a catch block.
#pragma once

#include <exception>
#include <string>

#include "support/CodePage.h"

namespace velmar::service {

inline std::wstring HandledExceptionText() {
    try {
        throw;
    } catch (const std::exception& error) {
        return L"Ausnahme " + AnsiToWide(error.what());
    } catch (...) {
        return L"unbekannte Ausnahme";
    }
}

}  // namespace velmar::service
