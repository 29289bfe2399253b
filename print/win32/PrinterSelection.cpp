#include "print/win32/PrinterSelection.h"

#include <windows.h>
#include <winspool.h>

#include <vector>

namespace velmar::print {

bool CPrinterSelection::Select(const std::wstring& printer) {
    if (!m_bSaved) {
        DWORD size = 0;
        GetDefaultPrinterW(nullptr, &size);
        std::vector<wchar_t> name(size + 1, L'\0');
        if (size && GetDefaultPrinterW(name.data(), &size)) m_userDefault = name.data();
        m_bSaved = true;
    }
    return SetDefaultPrinterW(printer.c_str()) != FALSE;
}

void CPrinterSelection::Restore() {
    if (!m_bSaved) return;
    // No default before: none is set again (an empty name would choose one).
    if (!m_userDefault.empty()) SetDefaultPrinterW(m_userDefault.c_str());
    m_bSaved = false;
    m_userDefault.clear();
}

}  // namespace velmar::print
