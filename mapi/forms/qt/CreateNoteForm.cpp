// The one entry point of the form library (see mapi/forms/FormLibrary.h).
#include <QApplication>
#include <QThread>
#include <type_traits>

#include "mapi/forms/FormLibrary.h"
#include "mapi/forms/qt/NoteForm.h"

extern "C" __attribute__((visibility("default"))) HRESULT VelmarCreateNoteForm(REFIID riid, LPVOID* ppvObj) {
    if (!ppvObj) return MAPI_E_INVALID_PARAMETER;
    *ppvObj = nullptr;
    // Widgets exist only in a Qt Widgets application, and only on its thread.
    const auto* application = qobject_cast<QApplication*>(QCoreApplication::instance());
    if (!application || QThread::currentThread() != application->thread()) return MAPI_E_CALL_FAILED;
    const velmar::CComPtr<velmar::forms::CNoteForm> form(new velmar::forms::CNoteForm);
    return form->QueryInterface(riid, ppvObj);
}

// The library's export has the factory's type.
static_assert(std::is_same_v<decltype(&VelmarCreateNoteForm), velmar::mapi::PFN_VelmarCreateNoteForm>);
