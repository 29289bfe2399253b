// Runs the MAPI loader in a process of its own and says what it did, for mapi_loader_test. The loader's
// modules and table last as long as the process, so the test starts one probe per scenario. The steps named
// on the command line run in order, each introduced by a line "step <name>":
//   free-null  VMAPIFreeBuffer(nullptr): "free-null <result> lookups <exports looked up meanwhile>"
//   load       LoadMapiFunctions(), then "lookup <module> <name>" for every export it looked up, in order
//   slots      per slot, through MapiFunction: "slot <name> <module> <export names at that address>", or
//              "slot <name> - -" when no library has it
//   modules    "module <file name>" for each MAPI library or stand-in loaded in the process
//   alloc      the allocation wrappers: "allocate-buffer <hresult> <module of the block>",
//              "allocate-more <hresult> <module of the block>", "free-buffer <result>"
//   wait       says "waiting" and reads one line from standard input, so the test can change the registry
// Lines from the stand-ins (FGetComponentPath says each call) fall between these where they happen.
#include <windows.h>

#include <psapi.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "mail/MapiFunctions.h"

namespace {

using velmar::mail::kMapiExportNames;
using velmar::mail::MapiSlot;

void Say(const std::string& line) {
    const std::string text = line + "\n";
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text.data(), static_cast<DWORD>(text.size()), &written,
              nullptr);
}

std::string Hex(unsigned long value) {
    char text[16] = {};
    std::snprintf(text, sizeof text, "0x%08lx", value);
    return text;
}

std::string ModuleName(HMODULE module) {
    wchar_t path[MAX_PATH] = {};
    if (!module || !GetModuleFileNameW(module, path, MAX_PATH)) return "-";
    std::wstring name = path;
    name.erase(0, name.find_last_of(L"\\/") + 1);
    std::string narrow;
    for (wchar_t c : name) narrow += static_cast<char>(c >= L'A' && c <= L'Z' ? c - L'A' + L'a' : c);
    return narrow;
}

HMODULE ModuleOf(const void* address) {
    HMODULE module = nullptr;
    if (!address || !GetModuleHandleExW(
                        GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                        static_cast<LPCWSTR>(address), &module))
        return nullptr;
    return module;
}

// Every GetProcAddress of this process goes through its import table; while recording, the loader's
// lookups are written down with the module they asked.
struct CLookup {
    HMODULE module;
    std::string name;
};
using PFN_GetProcAddress = FARPROC(WINAPI*)(HMODULE, LPCSTR);
PFN_GetProcAddress g_realGetProcAddress = nullptr;
bool g_recording = false;
std::vector<CLookup> g_lookups;

FARPROC WINAPI RecordingGetProcAddress(HMODULE module, LPCSTR name) {
    if (g_recording)
        g_lookups.push_back({module, IS_INTRESOURCE(name) ? "#" + std::to_string(LOWORD(name)) : name});
    return g_realGetProcAddress(module, name);
}

bool RecordLookups() {
    auto* base = reinterpret_cast<BYTE*>(GetModuleHandleW(nullptr));
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& imports = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (!imports.VirtualAddress) return false;
    bool hooked = false;
    for (auto* library = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + imports.VirtualAddress);
         library->Name; ++library) {
        if (!library->OriginalFirstThunk) continue;
        auto* names = reinterpret_cast<IMAGE_THUNK_DATA*>(base + library->OriginalFirstThunk);
        auto* slots = reinterpret_cast<IMAGE_THUNK_DATA*>(base + library->FirstThunk);
        for (; names->u1.AddressOfData; ++names, ++slots) {
            if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) continue;
            const auto* byName =
                reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
            if (std::strcmp(reinterpret_cast<const char*>(byName->Name), "GetProcAddress") != 0) continue;
            DWORD protection = 0;
            if (!VirtualProtect(&slots->u1.Function, sizeof slots->u1.Function, PAGE_READWRITE, &protection))
                return false;
            g_realGetProcAddress = reinterpret_cast<PFN_GetProcAddress>(slots->u1.Function);
            slots->u1.Function = reinterpret_cast<ULONG_PTR>(&RecordingGetProcAddress);
            VirtualProtect(&slots->u1.Function, sizeof slots->u1.Function, protection, &protection);
            hooked = true;
        }
    }
    return hooked;
}

// The slot's name: its first row's without the decoration.
std::string SlotName(size_t slot) {
    for (const auto& row : kMapiExportNames)
        if (static_cast<size_t>(row.slot) == slot) {
            std::string name = row.name;
            return name.substr(0, name.find('@'));
        }
    return "?";
}

void FreeNull() {
    g_lookups.clear();
    g_recording = true;
    const ULONG result = velmar::mail::VMAPIFreeBuffer(nullptr);
    g_recording = false;
    Say("free-null " + std::to_string(result) + " lookups " + std::to_string(g_lookups.size()));
}

void Load() {
    g_lookups.clear();
    g_recording = true;
    velmar::mail::LoadMapiFunctions();
    g_recording = false;
    for (const CLookup& lookup : g_lookups) Say("lookup " + ModuleName(lookup.module) + " " + lookup.name);
}

void Slots() {
    for (size_t slot = 0; slot < static_cast<size_t>(MapiSlot::Count); ++slot) {
        void* function = velmar::mail::MapiFunction(static_cast<MapiSlot>(slot));
        const HMODULE module = ModuleOf(function);
        if (!function) {
            Say("slot " + SlotName(slot) + " - -");
            continue;
        }
        std::string names;
        for (const auto& row : kMapiExportNames)
            if (static_cast<size_t>(row.slot) == slot &&
                reinterpret_cast<void*>(GetProcAddress(module, row.name)) == function)
                names += (names.empty() ? "" : "+") + std::string(row.name);
        Say("slot " + SlotName(slot) + " " + ModuleName(module) + " " + (names.empty() ? "?" : names));
    }
}

void Modules() {
    HMODULE modules[1024] = {};
    DWORD needed = 0;
    if (!EnumProcessModules(GetCurrentProcess(), modules, sizeof modules, &needed)) return;
    for (DWORD index = 0; index < needed / sizeof(HMODULE) && index < 1024; ++index) {
        const std::string name = ModuleName(modules[index]);
        if (name == "mapi32.dll" || name == "mapistub.dll" || name.rfind("standin_", 0) == 0)
            Say("module " + name);
    }
}

void Alloc() {
    LPVOID block = nullptr;
    const SCODE allocated = velmar::mail::VMAPIAllocateBuffer(24, &block);
    Say("allocate-buffer " + Hex(static_cast<unsigned long>(allocated)) + " " + ModuleName(ModuleOf(block)));
    LPVOID more = nullptr;
    const SCODE added = velmar::mail::VMAPIAllocateMore(8, block, &more);
    Say("allocate-more " + Hex(static_cast<unsigned long>(added)) + " " + ModuleName(ModuleOf(more)));
    char ownBlock = 0;
    Say("free-buffer " + std::to_string(velmar::mail::VMAPIFreeBuffer(block ? block : &ownBlock)));
}

void Wait() {
    Say("waiting");
    char c = 0;
    DWORD read = 0;
    while (ReadFile(GetStdHandle(STD_INPUT_HANDLE), &c, 1, &read, nullptr) && read == 1 && c != '\n') {
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (!RecordLookups()) {
        Say("cannot watch GetProcAddress");
        return 3;
    }
    for (int index = 1; index < argc; ++index) {
        const std::string step = argv[index];
        Say("step " + step);
        if (step == "free-null")
            FreeNull();
        else if (step == "load")
            Load();
        else if (step == "slots")
            Slots();
        else if (step == "modules")
            Modules();
        else if (step == "alloc")
            Alloc();
        else if (step == "wait")
            Wait();
        else {
            Say("unknown step");
            return 2;
        }
    }
    return 0;
}
