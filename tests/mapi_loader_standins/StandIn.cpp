// One source for every stand-in DLL of the MAPI loader test (see CMakeLists.txt): a mail client's MAPI
// library, the system's mapi32.dll, mapistub.dll. The entry points do no MAPI work; the probe tells them
// apart by the module that holds them. Only the allocation functions and FGetComponentPath do something.
#include <windows.h>

#include <cstring>
#include <string>

namespace {

// Appends a line to the standard output of the process, unbuffered, so that it lands between the probe's
// own lines in the order things happened.
void Say(const std::string& line) {
    const std::string text = line + "\n";
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text.data(), static_cast<DWORD>(text.size()), &written,
              nullptr);
}

// The file name of this DLL in lower case ("mapi32.dll" once it stands in the system directory).
std::string OwnName() {
    HMODULE self = nullptr;
    GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCSTR>(&OwnName), &self);
    char path[MAX_PATH] = {};
    GetModuleFileNameA(self, path, MAX_PATH);
    std::string name = path;
    name.erase(0, name.find_last_of("\\/") + 1);
    for (char& c : name)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return name;
}

// The qualifier as the test names it. Office registers MSIApplicationLCID and MSIOfficeLCID as REG_MULTI_SZ,
// a key followed by value names, and FGetComponentPath reads the whole list; such a qualifier is shown
// with its strings joined by "|". One whose first string is no key path is read as a single string.
std::string QualifierText(const char* qualifier) {
    if (!qualifier) return "(none)";
    std::string text = qualifier;
    if (text.find('\\') == std::string::npos) return text;
    for (const char* part = qualifier + std::strlen(qualifier) + 1; *part; part += std::strlen(part) + 1)
        text += std::string("|") + part;
    return text;
}

// What the allocation stand-ins hand out: blocks inside this DLL, so that the caller can tell who answered.
char g_block[64];
char g_moreBlock[64];

}  // namespace

// The path of the MAPI library for the component and qualifier, as the test registered it under
// HKLM\Software\VelmarTest\ComponentPaths\<component>, value <qualifier>. Says every call.
extern "C" BOOL WINAPI StandIn_FGetComponentPath(LPCSTR szComponent, LPSTR szQualifier, LPSTR szDllPath,
                                                 DWORD cchBufferSize, BOOL fInstall) {
    const std::string qualifier = QualifierText(szQualifier);
    Say("component-path " + OwnName() + " " + szComponent + " " + qualifier + " " +
        std::to_string(cchBufferSize) + " " + std::to_string(fInstall));
    const std::string key = std::string("Software\\VelmarTest\\ComponentPaths\\") + szComponent;
    char path[MAX_PATH] = {};
    DWORD size = sizeof path;
    if (RegGetValueA(HKEY_LOCAL_MACHINE, key.c_str(), qualifier.c_str(), RRF_RT_REG_SZ, nullptr, path,
                     &size) != ERROR_SUCCESS)
        return FALSE;
    lstrcpynA(szDllPath, path, static_cast<int>(cchBufferSize));
    return TRUE;
}

extern "C" HRESULT WINAPI StandIn_MAPIAllocateBuffer(ULONG cbSize, LPVOID* lppBuffer) {
    if (cbSize > sizeof g_block) return E_OUTOFMEMORY;
    *lppBuffer = g_block;
    return S_OK;
}

// Only for a parent block of its own, so that the caller sees the parent was handed on.
extern "C" HRESULT WINAPI StandIn_MAPIAllocateMore(ULONG cbSize, LPVOID lpObject, LPVOID* lppBuffer) {
    if (lpObject != g_block || cbSize > sizeof g_moreBlock) return E_INVALIDARG;
    *lppBuffer = g_moreBlock;
    return S_OK;
}

// Deliberate: 1 for its own block and 2 for any other, where MAPI answers 0, so that the caller sees the
// block reached this DLL.
extern "C" ULONG WINAPI StandIn_MAPIFreeBuffer(LPVOID lpBuffer) {
    return lpBuffer == g_block ? 1 : 2;
}

// The other entry points. Each returns a number of its own, so that the compiler cannot fold two of them
// into one address.
#define VELMAR_STAND_IN(name, number)              \
    extern "C" ULONG_PTR WINAPI StandIn_##name() { \
        return number;                             \
    }

VELMAR_STAND_IN(HrGetOneProp_12, 4)
VELMAR_STAND_IN(HrGetOneProp, 5)
VELMAR_STAND_IN(HrGetOneProp_16, 6)
VELMAR_STAND_IN(MAPIInitialize, 7)
VELMAR_STAND_IN(MAPIUninitialize, 8)
VELMAR_STAND_IN(FreeProws_4, 9)
VELMAR_STAND_IN(FreeProws, 10)
VELMAR_STAND_IN(PpropFindProp_12, 11)
VELMAR_STAND_IN(PpropFindProp, 12)
VELMAR_STAND_IN(ScDupPropset_16, 13)
VELMAR_STAND_IN(ScDupPropset, 14)
VELMAR_STAND_IN(ScCountProps_12, 15)
VELMAR_STAND_IN(ScCountProps, 16)
VELMAR_STAND_IN(ScCopyProps_16, 17)
VELMAR_STAND_IN(ScCopyProps, 18)
VELMAR_STAND_IN(OpenIMsgOnIStg_44, 19)
VELMAR_STAND_IN(OpenIMsgOnIStg, 20)
VELMAR_STAND_IN(MAPIGetDefaultMalloc_0, 21)
VELMAR_STAND_IN(MAPIGetDefaultMalloc, 22)
VELMAR_STAND_IN(OpenStreamOnFile, 23)
VELMAR_STAND_IN(OpenStreamOnFileW, 24)
VELMAR_STAND_IN(CloseIMsgSession_4, 25)
VELMAR_STAND_IN(CloseIMsgSession, 26)
VELMAR_STAND_IN(OpenIMsgSession_12, 27)
VELMAR_STAND_IN(OpenIMsgSession, 28)
VELMAR_STAND_IN(HrQueryAllRows_24, 29)
VELMAR_STAND_IN(HrQueryAllRows, 30)
VELMAR_STAND_IN(RTFSync, 31)
VELMAR_STAND_IN(HrSetOneProp_8, 32)
VELMAR_STAND_IN(HrSetOneProp, 33)
VELMAR_STAND_IN(FreePadrlist_4, 34)
VELMAR_STAND_IN(FreePadrlist, 35)
VELMAR_STAND_IN(PropCopyMore_16, 36)
VELMAR_STAND_IN(PropCopyMore, 37)
VELMAR_STAND_IN(WrapCompressedRTFStream, 38)
VELMAR_STAND_IN(WrapStoreEntryID_24, 39)
VELMAR_STAND_IN(WrapStoreEntryID, 40)
VELMAR_STAND_IN(CreateIProp_24, 41)
VELMAR_STAND_IN(CreateIProp, 42)
VELMAR_STAND_IN(CreateTable_36, 43)
VELMAR_STAND_IN(CreateTable, 44)
VELMAR_STAND_IN(HrValidateParameters_8, 45)
VELMAR_STAND_IN(HrValidateParameters, 46)
VELMAR_STAND_IN(BuildDisplayTable_40, 47)
VELMAR_STAND_IN(BuildDisplayTable, 48)
VELMAR_STAND_IN(MNLS_lstrlenW, 49)
VELMAR_STAND_IN(MAPILogonEx, 50)
VELMAR_STAND_IN(MAPIAdminProfiles, 51)
VELMAR_STAND_IN(HrValidateIPMSubtree_20, 52)
VELMAR_STAND_IN(HrValidateIPMSubtree, 53)
VELMAR_STAND_IN(WrapCompressedRTFStreamEx, 54)
VELMAR_STAND_IN(HrDispatchNotifications_4, 55)
VELMAR_STAND_IN(HrDispatchNotifications, 56)
