// The MAPI interface identifiers the mail layer uses, defined once here (the SDK only declares them).
#define INITGUID
#define USES_IID_IAttachment
#define USES_IID_IMAPIFolder
#define USES_IID_IMAPIForm
#define USES_IID_IMAPIMessageSite
#define USES_IID_IMAPIViewAdviseSink
#define USES_IID_IMAPIViewContext
#define USES_IID_IMessage
#define USES_IID_IMsgStore
#define USES_IID_IPersistMessage
#define USES_IID_IStreamDocfile
#include <windows.h>
#include <initguid.h>
#include <mapiguid.h>
