// The form library: the forms of our MAPI for messages of the class "IPM.Note" (and "IPM.Note.*"), built
// as libvelmarforms.so beside libvelmarmapi.so. It links Qt, so the form manager loads it only when a
// display is there and a program with a Qt application asks for a form; the headless service and
// libvelmarmapi.so itself never link Qt.
//
// A form is one object with IMAPIForm and IPersistMessage. The form manager creates it through the
// library's one export, loads the message into it (IPersistMessage::Load or InitNew) and gives it its view
// context (IMAPIForm::SetViewContext). It lives on the thread of the Qt application and must be created
// and called there.
#pragma once

#include "mapiform.h"

namespace velmar::mapi {

inline constexpr char kFormLibraryName[] = "libvelmarforms.so";
inline constexpr char kCreateNoteFormExport[] = "VelmarCreateNoteForm";

// Creates an empty note form and hands out the interface riid of it (IID_IMAPIForm, IID_IPersistMessage
// or IID_IUnknown). MAPI_E_CALL_FAILED when there is no Qt application or this is not its thread.
using PFN_VelmarCreateNoteForm = HRESULT (*)(REFIID riid, LPVOID* ppvObj);

}  // namespace velmar::mapi
