// Send and receive at once, on Windows: the mail client's first send/receive group started through its
// automation interface. Failures are not reported.
#include "mail/MapiHelpers.h"
#include "mail/VelmarMapi.h"
#include "mail/platform/win32/Automation.h"

using namespace velmar::mail;

void CVelmarMapi::OutlookForceSend() {
    const CTraceScope trace(*this, L"CVelmarMapi::OutlookForceSend");
    trace.Step(L"CreateDispatch");
    const CComPtr<IDispatch> application = CreateOutlookApplication();
    if (!application) return;
    // Each object is released in the reverse order of its getting, as the variants leave scope.
    trace.Step(L"get_Session");
    CVariant session;
    if (FAILED(Get(application.get(), L"Session", session)) || !session.Dispatch()) return;
    trace.Step(L"get_SyncObjects");
    CVariant syncObjects;
    if (FAILED(Get(session.Dispatch(), L"SyncObjects", syncObjects)) || !syncObjects.Dispatch()) return;
    trace.Step(L"Item");
    VARIANT first;
    first.vt = VT_I4;
    first.lVal = 1;
    CVariant group;
    if (FAILED(Call(syncObjects.Dispatch(), L"Item", DISPATCH_METHOD, group, &first)) || !group.Dispatch())
        return;
    trace.Step(L"Start start");
    CVariant started;
    Call(group.Dispatch(), L"Start", DISPATCH_METHOD, started);
    trace.Step(L"Start end");
}
