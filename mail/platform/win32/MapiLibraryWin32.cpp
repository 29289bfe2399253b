#include <windows.h>

#include <cwchar>
#include <string>

#include "mail/MapiLibrary.h"

namespace velmar::mail {
namespace {

using PFN_FGetComponentPath = BOOL(WINAPI*)(LPCSTR, LPSTR, LPSTR, DWORD, BOOL);

HMODULE g_mapi32 = nullptr;
HMODULE g_mapistub = nullptr;
PFN_FGetComponentPath g_getComponentPath = nullptr;

// Loads a DLL from the system directory only; no other place is ever searched for these.
HMODULE LoadSystemLibrary(const wchar_t* fileName) {
    static wchar_t systemDirectory[MAX_PATH] = {};
    static bool haveDirectory = false;
    if (!fileName) return nullptr;
    if (!haveDirectory) {
        GetSystemDirectoryW(systemDirectory, MAX_PATH);
        haveDirectory = true;
    }
    wchar_t path[MAX_PATH] = {};
    _snwprintf(path, MAX_PATH - 1, L"%s\\%s", systemDirectory, fileName);
    return LoadLibraryW(path);
}

// The unnamed value of HKLM\Software\Clients\Mail names the default client; its own key is opened.
HKEY OpenDefaultMailClientKey() {
    HKEY mailKey = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"Software\\Clients\\Mail", 0, KEY_READ, &mailKey) != ERROR_SUCCESS)
        return nullptr;
    wchar_t client[MAX_PATH] = {};
    DWORD type = 0;
    DWORD size = sizeof client - sizeof(wchar_t);
    const LONG status =
        RegQueryValueExW(mailKey, nullptr, nullptr, &type, reinterpret_cast<BYTE*>(client), &size);
    RegCloseKey(mailKey);
    if (status != ERROR_SUCCESS || (type != REG_SZ && type != REG_DWORD && type != REG_MULTI_SZ) ||
        client[0] == 0)
        return nullptr;
    wchar_t clientKeyName[256] = {};
    _snwprintf(clientKeyName, 255, L"Software\\Clients\\Mail\\%s", client);
    HKEY clientKey = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, clientKeyName, 0, KEY_READ, &clientKey) != ERROR_SUCCESS)
        return nullptr;
    return clientKey;
}

// An 8-bit value of the key with all its bytes, NULs included, or empty when missing, empty, or of another
// type. Office registers MSIApplicationLCID and MSIOfficeLCID as REG_MULTI_SZ (a key, then value names), and
// FGetComponentPath reads every string of it: cut at the first NUL, the qualifier would lose its value names.
std::string ReadStringValue(HKEY key, const char* name) {
    char value[MAX_PATH] = {};
    DWORD type = 0;
    DWORD size = sizeof value - 1;
    if (RegQueryValueExA(key, name, nullptr, &type, reinterpret_cast<BYTE*>(value), &size) != ERROR_SUCCESS ||
        size == 0 || (type != REG_SZ && type != REG_DWORD && type != REG_MULTI_SZ))
        return {};
    // value[size] is still 0: with the string's own terminator, even a list stored without its final NUL
    // ends in two.
    return std::string(value, size + 1);
}

bool GetMapiComponentPath(const std::string& componentId, const char* qualifier, std::wstring& path) {
    if (!g_getComponentPath) {
        if (!g_mapi32) g_mapi32 = LoadSystemLibrary(L"mapi32.dll");
        if (g_mapi32)
            g_getComponentPath =
                reinterpret_cast<PFN_FGetComponentPath>(FindExport(g_mapi32, "FGetComponentPath"));
        if (!g_getComponentPath) {
            if (!g_mapistub) g_mapistub = LoadSystemLibrary(L"mapistub.dll");
            if (g_mapistub)
                g_getComponentPath =
                    reinterpret_cast<PFN_FGetComponentPath>(FindExport(g_mapistub, "FGetComponentPath"));
        }
        if (!g_getComponentPath) return false;
    }
    char narrow[MAX_PATH] = {};
    g_getComponentPath(componentId.c_str(), const_cast<LPSTR>(qualifier), narrow, MAX_PATH, TRUE);
    wchar_t wide[MAX_PATH] = {};
    MultiByteToWideChar(CP_ACP, 0, narrow, -1, wide, MAX_PATH);
    path = wide;
    return true;
}

std::wstring GetDefaultMailClientMapiPath() {
    HKEY key = OpenDefaultMailClientKey();
    if (!key) return {};
    const std::string componentId = ReadStringValue(key, "MSIComponentID");
    const std::string applicationLcid = ReadStringValue(key, "MSIApplicationLCID");
    const std::string officeLcid = ReadStringValue(key, "MSIOfficeLCID");
    RegCloseKey(key);
    std::wstring path;
    if (componentId.empty()) return path;
    if (!applicationLcid.empty()) GetMapiComponentPath(componentId, applicationLcid.c_str(), path);
    if (path.empty() && !officeLcid.empty()) GetMapiComponentPath(componentId, officeLcid.c_str(), path);
    if (path.empty()) GetMapiComponentPath(componentId, nullptr, path);
    return path;
}

}  // namespace

LibraryHandle LoadDefaultClientLibrary() {
    const std::wstring path = GetDefaultMailClientMapiPath();
    return path.empty() ? nullptr : LoadLibraryW(path.c_str());
}

LibraryHandle LoadSystemMapiLibrary() {
    if (!g_mapi32) g_mapi32 = LoadSystemLibrary(L"mapi32.dll");
    return g_mapi32;
}

void* FindExport(LibraryHandle library, const char* name) {
    return library ? reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name)) : nullptr;
}

}  // namespace velmar::mail
