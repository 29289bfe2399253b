// The printing dialog of the main window's PRINTHTML jobs: the browser dialog with an external object for
// the page's scripts, whose one method "print_complete" a print template calls once it has printed.
#pragma once

#include "print/PrintDialogs.h"
#include "print/win32/DlgPrintExplorer.h"

namespace velmar::print {

class CDlgPrintingExt final : public CDlgPrintExplorer {
public:
    CDlgPrintingExt(HWND parent, std::function<void(const std::wstring&)> trace, std::function<void()> done,
                    UINT pageTimeoutMilliseconds = kPageTimeoutMilliseconds);

protected:
    ~CDlgPrintingExt() override;
    IDispatch* ExternalObject() override { return m_external.get(); }

private:
    CComPtr<IDispatch> m_external;
};

// The factory of CPrintDialogs for this platform: dialogs owned by the window parent gives when one is made
// (null: none).
PrintDialogFactory PrintDialogFactoryWin32(
    std::function<HWND()> parent, UINT pageTimeoutMilliseconds = CDlgPrintExplorer::kPageTimeoutMilliseconds);

}  // namespace velmar::print
