// Which printer the browser's print command prints on: the browser prints on the user's default printer, so
// a job that names a printer makes that one the default while the queue runs, and the user's own default is
// put back once the queue has run empty.
#pragma once

#include <string>

namespace velmar::print {

class CPrinterSelection {
public:
    ~CPrinterSelection() { Restore(); }
    // Makes printer the default one; false when there is no such printer (then nothing changed).
    bool Select(const std::wstring& printer);
    // Puts back the default printer there was before the first Select; nothing when none was made.
    void Restore();

private:
    bool m_bSaved = false;
    std::wstring m_userDefault;
};

}  // namespace velmar::print
