#include "print/PrintLibrary.h"
#include "print/win32/DlgPrintingExt.h"

namespace velmar::print {

PrintDialogFactory LoadPrintDialogs(std::function<std::uintptr_t()> parentWindow) {
    return PrintDialogFactoryWin32([parentWindow] { return reinterpret_cast<HWND>(parentWindow()); });
}

}  // namespace velmar::print
