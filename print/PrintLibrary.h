// The printing dialogs of this platform, as the main window and a printing start of the program make them.
//   Windows: the browser dialogs of print/win32, in the program.
//   POSIX:   the Qt WebEngine dialogs of print/qt, in libvelmarprint.so beside the program, loaded when the
//            first dialog is made: a web engine linked into the program would set up OpenGL whenever the
//            window starts, whether anything is ever printed or not.
#pragma once

#include <cstdint>
#include <functional>

#include "print/PrintDialogs.h"

namespace velmar::print {

inline constexpr char kPrintLibraryName[] = "libvelmarprint.so";
inline constexpr char kPrintDialogFactoryExport[] = "VelmarPrintDialogFactory";
// The library's one export: fills in the factory of its dialogs.
using PFN_VelmarPrintDialogFactory = void (*)(PrintDialogFactory* factory);

// parentWindow gives the window that owns the dialogs (0: none) when one is made. A dialog that cannot be
// made (the library missing) is null, and the reason goes to the factory's trace.
PrintDialogFactory LoadPrintDialogs(std::function<std::uintptr_t()> parentWindow);

}  // namespace velmar::print
