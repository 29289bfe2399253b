// The Windows MAPI loader against DLLs of our own: stand-ins for mail clients' MAPI libraries, and for
// mapi32.dll and mapistub.dll in the system directory (tests/mapi_loader_standins). Each scenario sets up the
// registry and the system directory of the Wine prefix, then starts mapi_loader_probe, which runs the loader
// in a fresh process and says which DLL filled each slot. Only under Wine: it replaces system DLLs.
#include <windows.h>

#include <gtest/gtest.h>

#include <cwctype>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "harness/TestFiles.h"

namespace {

namespace fs = std::filesystem;

// Outlook's MAPI component, as clients register it.
constexpr char kComponentId[] = "{FF1D0740-D227-11D1-A4B0-006008AF820E}";
constexpr wchar_t kMailKey[] = L"Software\\Clients\\Mail";
constexpr wchar_t kClientName[] = L"Velmar Stand-in Client";
// Where the stand-in FGetComponentPath finds the path for a component and qualifier.
constexpr wchar_t kTestKey[] = L"Software\\VelmarTest";
constexpr char kNoQualifier[] = "(none)";

std::wstring Wide(const std::string& text) {
    return std::wstring(text.begin(), text.end());  // ASCII only: paths and names of this test
}

// The build hands paths in Unix form; Wine shows / as drive Z:.
std::wstring WindowsPath(const std::string& path) {
    std::wstring windows = Wide(path);
    if (windows.empty() || windows.front() != L'/') return windows;
    for (wchar_t& c : windows)
        if (c == L'/') c = L'\\';
    return L"Z:" + windows;
}

std::wstring SystemDirectory() {
    wchar_t directory[MAX_PATH] = {};
    GetSystemDirectoryW(directory, MAX_PATH);
    return directory;
}

std::wstring StandInPath(const char* name) {
    return WindowsPath(VELMAR_MAPI_STANDIN_DIR) + L"\\" + Wide(name) + L".dll";
}

std::wstring ProbePath() {
    return WindowsPath(VELMAR_MAPI_LOADER_PROBE);
}

bool RunningUnderWine() {
    const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    return ntdll && GetProcAddress(ntdll, "wine_get_version");
}

// A registry value as RegSetValueExW takes it; a REG_MULTI_SZ keeps its strings' NULs.
struct CRegValue {
    DWORD type;
    std::wstring data;
};

CRegValue Sz(const std::wstring& text) {
    return {REG_SZ, text};
}

CRegValue MultiSz(const std::vector<std::wstring>& strings) {
    std::wstring data;
    for (const std::wstring& text : strings) data += text + L'\0';
    return {REG_MULTI_SZ, data};
}

bool SetValue(HKEY root, const std::wstring& key, const std::wstring& name, const CRegValue& value) {
    HKEY opened = nullptr;
    if (RegCreateKeyExW(root, key.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &opened, nullptr) !=
        ERROR_SUCCESS)
        return false;
    const LONG status = RegSetValueExW(opened, name.empty() ? nullptr : name.c_str(), 0, value.type,
                                       reinterpret_cast<const BYTE*>(value.data.c_str()),
                                       static_cast<DWORD>((value.data.size() + 1) * sizeof(wchar_t)));
    RegCloseKey(opened);
    return status == ERROR_SUCCESS;
}

void DeleteValue(HKEY root, const std::wstring& key, const wchar_t* name) {
    HKEY opened = nullptr;
    if (RegOpenKeyExW(root, key.c_str(), 0, KEY_WRITE, &opened) != ERROR_SUCCESS) return;
    RegDeleteValueW(opened, name);  // absent already is as good
    RegCloseKey(opened);
}

void DeleteTree(HKEY root, const std::wstring& key) {
    RegDeleteTreeW(root, key.c_str());  // absent already is as good
    RegDeleteKeyW(root, key.c_str());
}

// A value as it was, to be put back.
struct CSavedValue {
    bool present = false;
    DWORD type = 0;
    std::vector<BYTE> data;
};

CSavedValue SaveValue(HKEY root, const std::wstring& key, const wchar_t* name) {
    CSavedValue saved;
    HKEY opened = nullptr;
    if (RegOpenKeyExW(root, key.c_str(), 0, KEY_READ, &opened) != ERROR_SUCCESS) return saved;
    DWORD size = 0;
    if (RegQueryValueExW(opened, name, nullptr, &saved.type, nullptr, &size) == ERROR_SUCCESS) {
        saved.data.resize(size);
        saved.present =
            RegQueryValueExW(opened, name, nullptr, &saved.type, saved.data.data(), &size) == ERROR_SUCCESS;
        saved.data.resize(size);
    }
    RegCloseKey(opened);
    return saved;
}

void RestoreValue(HKEY root, const std::wstring& key, const wchar_t* name, const CSavedValue& saved) {
    if (!saved.present) {
        DeleteValue(root, key, name);
        return;
    }
    HKEY opened = nullptr;
    if (RegCreateKeyExW(root, key.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &opened, nullptr) !=
        ERROR_SUCCESS)
        return;
    RegSetValueExW(opened, name, 0, saved.type, saved.data.data(), static_cast<DWORD>(saved.data.size()));
    RegCloseKey(opened);
}

// A file's bytes; nullopt when there is none.
std::optional<std::string> ReadBytes(const fs::path& path) {
    return fs::exists(path) ? std::optional(velmar::test::ReadFile(path)) : std::nullopt;
}

// What one probe said, step by step ("step <name>" opens a step; lines before the first go to step 0).
struct CProbeRun {
    DWORD exitCode = 1;
    std::string output;
    std::vector<std::vector<std::string>> steps{1};

    const std::vector<std::string>& Step(size_t index) const {
        static const std::vector<std::string> none;
        return index < steps.size() ? steps[index] : none;
    }
};

// Runs the probe with the steps, which must end well; onWait runs when it says "waiting", before it is let
// go on.
CProbeRun RunProbe(const std::vector<std::string>& steps, const std::function<void()>& onWait = {}) {
    CProbeRun run;
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    HANDLE outRead = nullptr, outWrite = nullptr, inRead = nullptr, inWrite = nullptr;
    if (!CreatePipe(&outRead, &outWrite, &inherit, 0)) return run;
    if (!CreatePipe(&inRead, &inWrite, &inherit, 0)) {
        CloseHandle(outRead);
        CloseHandle(outWrite);
        return run;
    }
    SetHandleInformation(outRead, HANDLE_FLAG_INHERIT, 0);
    SetHandleInformation(inWrite, HANDLE_FLAG_INHERIT, 0);
    std::wstring commandLine = L"\"" + ProbePath() + L"\"";
    for (const std::string& step : steps) commandLine += L" " + Wide(step);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = inRead;
    startup.hStdOutput = outWrite;
    startup.hStdError = outWrite;
    PROCESS_INFORMATION process{};
    // Wine now and then fails a process start under load; a few tries tell that from a real failure.
    bool started = false;
    DWORD startError = 0;
    for (int attempt = 0; attempt < 5 && !started; ++attempt) {
        if (attempt > 0) Sleep(200);
        started = CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW,
                                 nullptr, nullptr, &startup, &process);
        if (!started) startError = GetLastError();
    }
    CloseHandle(outWrite);
    CloseHandle(inRead);
    if (!started) {
        ADD_FAILURE() << "the probe did not start (error " << startError << ")";
        CloseHandle(outRead);
        CloseHandle(inWrite);
        return run;
    }
    CloseHandle(process.hThread);
    std::string pending;
    char buffer[4096];
    DWORD read = 0;
    while (ReadFile(outRead, buffer, sizeof buffer, &read, nullptr) && read > 0) {
        run.output.append(buffer, read);
        pending.append(buffer, read);
        for (size_t end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
            std::string line = pending.substr(0, end);
            pending.erase(0, end + 1);
            if (!line.empty() && line.back() == '\r') line.pop_back();
            if (line.rfind("step ", 0) == 0) {
                run.steps.emplace_back();
                continue;
            }
            run.steps.back().push_back(line);
            if (line == "waiting") {
                if (onWait) onWait();
                DWORD written = 0;
                WriteFile(inWrite, "\n", 1, &written, nullptr);
            }
        }
    }
    CloseHandle(outRead);
    CloseHandle(inWrite);
    WaitForSingleObject(process.hProcess, INFINITE);
    GetExitCodeProcess(process.hProcess, &run.exitCode);
    CloseHandle(process.hProcess);
    EXPECT_EQ(run.exitCode, 0u) << run.output;
    return run;
}

// Slot name -> "<module> <export names>", or "- -" when empty.
using SlotTable = std::map<std::string, std::string>;

SlotTable Slots(const std::vector<std::string>& lines) {
    SlotTable slots;
    for (const std::string& line : lines) {
        if (line.rfind("slot ", 0) != 0) continue;
        const size_t nameEnd = line.find(' ', 5);
        slots[line.substr(5, nameEnd - 5)] = line.substr(nameEnd + 1);
    }
    return slots;
}

std::vector<std::string> Rest(const std::vector<std::string>& lines, const std::string& prefix) {
    std::vector<std::string> rest;
    for (const std::string& line : lines)
        if (line.rfind(prefix, 0) == 0) rest.push_back(line.substr(prefix.size()));
    return rest;
}

// The FGetComponentPath calls: "<dll> <component> <qualifier> <buffer size> <install flag>".
std::vector<std::string> Calls(const std::vector<std::string>& lines) {
    return Rest(lines, "component-path ");
}

std::string Call(const std::string& qualifier, const std::string& dll = "mapi32.dll") {
    return dll + " " + kComponentId + " " + qualifier + " 260 1";
}

std::set<std::string> Modules(const std::vector<std::string>& lines) {
    const std::vector<std::string> names = Rest(lines, "module ");
    return {names.begin(), names.end()};
}

size_t Lookups(const std::vector<std::string>& lines, const std::string& module, const std::string& name) {
    size_t count = 0;
    for (const std::string& lookup : Rest(lines, "lookup "))
        if (lookup == module + " " + name) ++count;
    return count;
}

// The slots a probe reported, each as filled by the stand-in mapi32.dll alone: by its plain name, but
// ScCountProps, which it also exports decorated, and HrDispatchNotifications, which it lacks.
SlotTable SystemOnly(const SlotTable& seen) {
    SlotTable slots;
    for (const auto& [name, filled] : seen) slots[name] = "mapi32.dll " + name;
    slots["ScCountProps"] = "mapi32.dll ScCountProps@12";
    slots["HrDispatchNotifications"] = "- -";
    return slots;
}

// standin_client_mixed.dll's exports over what lies underneath.
SlotTable MixedClientOver(SlotTable slots) {
    for (const char* name : {"MAPIAllocateBuffer", "MAPIAllocateMore", "MAPIFreeBuffer", "MAPIInitialize",
                             "MAPIUninitialize", "MAPILogonEx", "FreeProws"})
        slots[name] = std::string("standin_client_mixed.dll ") + name;
    slots["HrGetOneProp"] = "standin_client_mixed.dll HrGetOneProp@12";
    slots["HrQueryAllRows"] = "standin_client_mixed.dll HrQueryAllRows@24";
    slots["HrDispatchNotifications"] = "standin_client_mixed.dll HrDispatchNotifications@4";
    return slots;
}

SlotTable NothingBound(const SlotTable& seen) {
    SlotTable slots;
    for (const auto& [name, filled] : seen) slots[name] = "- -";
    return slots;
}

class MapiLoader : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (!RunningUnderWine()) return;
        s_saved = std::make_unique<CSaved>();
        s_saved->mailDefault = SaveValue(HKEY_LOCAL_MACHINE, kMailKey, nullptr);
        s_saved->mapi32 = ReadBytes(SystemFile(L"mapi32.dll"));
        s_saved->mapistub = ReadBytes(SystemFile(L"mapistub.dll"));
    }

    static void TearDownTestSuite() {
        if (!s_saved) return;
        RemoveOurKeys();
        RestoreValue(HKEY_LOCAL_MACHINE, kMailKey, nullptr, s_saved->mailDefault);
        RestoreSystemFile(L"mapi32.dll", s_saved->mapi32);
        RestoreSystemFile(L"mapistub.dll", s_saved->mapistub);
        s_saved.reset();
    }

    void SetUp() override {
        if (!s_saved) GTEST_SKIP() << "replaces DLLs in the system directory: only under Wine";
        // Each test starts from the prefix as Wine made it (a default client without an MSI registration)
        // with the stand-in mapi32.dll, which the probe loads instead of Wine's own.
        RemoveOurKeys();
        RestoreValue(HKEY_LOCAL_MACHINE, kMailKey, nullptr, s_saved->mailDefault);
        RestoreSystemFile(L"mapistub.dll", s_saved->mapistub);
        InstallSystemFile("standin_mapi32", L"mapi32.dll");
        SetOverrides(L"native", L"");
    }

    static fs::path SystemFile(const wchar_t* name) { return fs::path(SystemDirectory()) / name; }

    static void RestoreSystemFile(const wchar_t* name, const std::optional<std::string>& bytes) {
        if (bytes)
            velmar::test::WriteFile(SystemFile(name), *bytes);
        else
            DeleteFileW(SystemFile(name).c_str());
    }

    static void RemoveOurKeys() {
        DeleteTree(HKEY_LOCAL_MACHINE, std::wstring(kMailKey) + L"\\" + kClientName);
        DeleteTree(HKEY_LOCAL_MACHINE, kTestKey);
        DeleteTree(HKEY_CURRENT_USER, OverridesKey());
    }

    // Wine's per-program DLL overrides, for the probe only: "native" loads our file from the system
    // directory, "" loads nothing.
    static std::wstring OverridesKey() {
        return L"Software\\Wine\\AppDefaults\\" + fs::path(ProbePath()).filename().wstring();
    }

    static void SetOverrides(const std::wstring& mapi32, const std::wstring& mapistub) {
        ASSERT_TRUE(SetValue(HKEY_CURRENT_USER, OverridesKey() + L"\\DllOverrides", L"mapi32", Sz(mapi32)));
        ASSERT_TRUE(
            SetValue(HKEY_CURRENT_USER, OverridesKey() + L"\\DllOverrides", L"mapistub", Sz(mapistub)));
    }

    static void InstallSystemFile(const char* standIn, const wchar_t* as) {
        ASSERT_TRUE(CopyFileW(StandInPath(standIn).c_str(), SystemFile(as).c_str(), FALSE))
            << standIn << " -> " << SystemFile(as).string() << ": error " << GetLastError();
    }

    // Makes the stand-in client the default one, with the values given; the others stay absent.
    static void RegisterClient(const std::optional<CRegValue>& applicationLcid = std::nullopt,
                               const std::optional<CRegValue>& officeLcid = std::nullopt,
                               const std::optional<CRegValue>& componentId = Sz(Wide(kComponentId))) {
        ASSERT_TRUE(SetValue(HKEY_LOCAL_MACHINE, kMailKey, L"", Sz(kClientName)));
        const std::wstring key = std::wstring(kMailKey) + L"\\" + kClientName;
        DeleteTree(HKEY_LOCAL_MACHINE, key);
        ASSERT_TRUE(SetValue(HKEY_LOCAL_MACHINE, key, L"", Sz(L"Velmar stand-in")));
        const std::pair<const wchar_t*, const std::optional<CRegValue>*> values[] = {
            {L"MSIComponentID", &componentId},
            {L"MSIApplicationLCID", &applicationLcid},
            {L"MSIOfficeLCID", &officeLcid}};
        for (const auto& [name, value] : values) {
            if (*value) {
                ASSERT_TRUE(SetValue(HKEY_LOCAL_MACHINE, key, name, **value)) << name;
            }
        }
    }

    // What the stand-in FGetComponentPath answers for the qualifier (kNoQualifier for none).
    static void MapComponent(const std::string& qualifier, const std::wstring& path) {
        ASSERT_TRUE(SetValue(HKEY_LOCAL_MACHINE,
                             std::wstring(kTestKey) + L"\\ComponentPaths\\" + Wide(kComponentId),
                             Wide(qualifier), Sz(path)));
    }

    struct CSaved {
        CSavedValue mailDefault;
        std::optional<std::string> mapi32;
        std::optional<std::string> mapistub;
    };
    static inline std::unique_ptr<CSaved> s_saved;
};

TEST_F(MapiLoader, ClientExportsWinAndMapi32FillsTheRest) {
    RegisterClient(Sz(L"1031"), Sz(L"1033"));
    MapComponent("1031", StandInPath("standin_client_mixed"));
    const CProbeRun run = RunProbe({"load", "slots", "modules", "alloc"});
    SCOPED_TRACE(run.output);
    EXPECT_EQ(Calls(run.Step(1)), std::vector<std::string>{Call("1031")});
    EXPECT_EQ(Slots(run.Step(2)), MixedClientOver(SystemOnly(Slots(run.Step(2)))));
    EXPECT_EQ(Modules(run.Step(3)), (std::set<std::string>{"mapi32.dll", "standin_client_mixed.dll"}));
    // The wrappers call the client's allocator, which hands out its own blocks; its MAPIFreeBuffer answers 1
    // for a block of its own.
    EXPECT_EQ(run.Step(4), (std::vector<std::string>{"allocate-buffer 0x00000000 standin_client_mixed.dll",
                                                     "allocate-more 0x00000000 standin_client_mixed.dll",
                                                     "free-buffer 1"}));
}

TEST_F(MapiLoader, EitherNameOfASlotFillsIt) {
    struct CCase {
        const char* client;
        const char* hrGetOneProp;
    };
    const CCase cases[] = {
        {"standin_client_decorated", "standin_client_decorated.dll HrGetOneProp@12"},
        {"standin_client_plain", "standin_client_plain.dll HrGetOneProp"},
        // Exports MAPIInitialize and "HrGetOneProp@16", neither name of the slot.
        {"standin_client_neither", "mapi32.dll HrGetOneProp"},
    };
    for (const CCase& scenario : cases) {
        SCOPED_TRACE(scenario.client);
        SetUp();
        RegisterClient();
        MapComponent(kNoQualifier, StandInPath(scenario.client));
        const CProbeRun run = RunProbe({"load", "slots", "modules"});
        SCOPED_TRACE(run.output);
        SlotTable expected = SystemOnly(Slots(run.Step(2)));
        expected["HrGetOneProp"] = scenario.hrGetOneProp;
        if (std::string(scenario.client) == "standin_client_neither")
            expected["MAPIInitialize"] = "standin_client_neither.dll MAPIInitialize";
        EXPECT_EQ(Slots(run.Step(2)), expected);
        EXPECT_EQ(Modules(run.Step(3)),
                  (std::set<std::string>{"mapi32.dll", std::string(scenario.client) + ".dll"}));
    }
}

TEST_F(MapiLoader, WithoutAClientMsiRegistrationMapi32StandsAlone) {
    struct CCase {
        const char* what;
        std::function<void()> arrange;
    };
    const std::wstring clientKey = std::wstring(kMailKey) + L"\\" + kClientName;
    const CCase cases[] = {
        {"no default client", [] { DeleteValue(HKEY_LOCAL_MACHINE, kMailKey, nullptr); }},
        {"Wine's own default client, which has no MSIComponentID", [] {}},
        {"an empty default client",
         [] { ASSERT_TRUE(SetValue(HKEY_LOCAL_MACHINE, kMailKey, L"", Sz(L""))); }},
        {"a default client of type REG_EXPAND_SZ",
         [] {
             RegisterClient(Sz(L"1031"));
             ASSERT_TRUE(SetValue(HKEY_LOCAL_MACHINE, kMailKey, L"", {REG_EXPAND_SZ, kClientName}));
         }},
        {"a default client without a key",
         [clientKey] {
             RegisterClient(Sz(L"1031"));
             DeleteTree(HKEY_LOCAL_MACHINE, clientKey);
         }},
        {"no MSIComponentID", [] { RegisterClient(Sz(L"1031"), std::nullopt, std::nullopt); }},
        {"an MSIComponentID of type REG_EXPAND_SZ",
         [] {
             RegisterClient(std::nullopt, std::nullopt, CRegValue{REG_EXPAND_SZ, Wide(kComponentId)});
         }},
    };
    for (const CCase& scenario : cases) {
        SCOPED_TRACE(scenario.what);
        SetUp();
        // The component would resolve, were it asked.
        MapComponent("1031", StandInPath("standin_client_mixed"));
        MapComponent(kNoQualifier, StandInPath("standin_client_mixed"));
        scenario.arrange();
        const CProbeRun run = RunProbe({"load", "slots", "modules"});
        SCOPED_TRACE(run.output);
        EXPECT_EQ(Calls(run.Step(1)), std::vector<std::string>{});
        EXPECT_EQ(Slots(run.Step(2)), SystemOnly(Slots(run.Step(2))));
        EXPECT_EQ(Modules(run.Step(3)), std::set<std::string>{"mapi32.dll"});
    }
}

TEST_F(MapiLoader, AComponentWithoutALoadablePathLeavesMapi32Alone) {
    RegisterClient(Sz(L"1031"), Sz(L"1033"));
    {
        SCOPED_TRACE("no path for any qualifier");
        const CProbeRun run = RunProbe({"load", "slots", "modules"});
        SCOPED_TRACE(run.output);
        EXPECT_EQ(Calls(run.Step(1)),
                  (std::vector<std::string>{Call("1031"), Call("1033"), Call(kNoQualifier)}));
        EXPECT_EQ(Slots(run.Step(2)), SystemOnly(Slots(run.Step(2))));
        EXPECT_EQ(Modules(run.Step(3)), std::set<std::string>{"mapi32.dll"});
    }
    {
        SCOPED_TRACE("a path to no file");
        MapComponent("1031", WindowsPath(VELMAR_MAPI_STANDIN_DIR) + L"\\missing.dll");
        const CProbeRun run = RunProbe({"load", "slots", "modules"});
        SCOPED_TRACE(run.output);
        EXPECT_EQ(Calls(run.Step(1)), std::vector<std::string>{Call("1031")});
        EXPECT_EQ(Slots(run.Step(2)), SystemOnly(Slots(run.Step(2))));
        EXPECT_EQ(Modules(run.Step(3)), std::set<std::string>{"mapi32.dll"});
    }
}

TEST_F(MapiLoader, QualifiersAreTriedApplicationThenOfficeThenNone) {
    struct CCase {
        const char* what;
        bool applicationLcid;
        bool officeLcid;
        // Qualifier -> the stand-in client it resolves to ("" for an empty path).
        std::vector<std::pair<std::string, std::string>> paths;
        std::vector<std::string> calls;
        const char* client;
    };
    const CCase cases[] = {
        {"the application's LCID answers",
         true,
         true,
         {{"1031", "standin_client_decorated"},
          {"1033", "standin_client_plain"},
          {kNoQualifier, "standin_client_mixed"}},
         {Call("1031")},
         "standin_client_decorated"},
        {"the Office LCID next",
         true,
         true,
         {{"1033", "standin_client_plain"}, {kNoQualifier, "standin_client_mixed"}},
         {Call("1031"), Call("1033")},
         "standin_client_plain"},
        {"no qualifier last",
         true,
         true,
         {{kNoQualifier, "standin_client_mixed"}},
         {Call("1031"), Call("1033"), Call(kNoQualifier)},
         "standin_client_mixed"},
        {"an empty path is no path",
         true,
         true,
         {{"1031", ""}, {kNoQualifier, "standin_client_mixed"}},
         {Call("1031"), Call("1033"), Call(kNoQualifier)},
         "standin_client_mixed"},
        {"no application LCID",
         false,
         true,
         {{"1031", "standin_client_decorated"}, {"1033", "standin_client_plain"}},
         {Call("1033")},
         "standin_client_plain"},
        {"no LCID at all",
         false,
         false,
         {{"1031", "standin_client_decorated"}, {kNoQualifier, "standin_client_mixed"}},
         {Call(kNoQualifier)},
         "standin_client_mixed"},
    };
    for (const CCase& scenario : cases) {
        SCOPED_TRACE(scenario.what);
        SetUp();
        RegisterClient(scenario.applicationLcid ? std::optional(Sz(L"1031")) : std::nullopt,
                       scenario.officeLcid ? std::optional(Sz(L"1033")) : std::nullopt);
        for (const auto& [qualifier, client] : scenario.paths)
            MapComponent(qualifier, client.empty() ? L"" : StandInPath(client.c_str()));
        const CProbeRun run = RunProbe({"load", "modules"});
        SCOPED_TRACE(run.output);
        EXPECT_EQ(Calls(run.Step(1)), scenario.calls);
        EXPECT_EQ(Modules(run.Step(2)),
                  (std::set<std::string>{"mapi32.dll", std::string(scenario.client) + ".dll"}));
    }
}

// Office registers both LCIDs as REG_MULTI_SZ: a key, then the value names under it that hold the language.
// FGetComponentPath needs all of the strings.
TEST_F(MapiLoader, OfficeStyleQualifiersReachFGetComponentPathWhole) {
    RegisterClient(MultiSz({L"Software\\Microsoft\\Office\\16.0\\Outlook", L"LastUILanguage"}),
                   MultiSz({L"Software\\Microsoft\\Office\\16.0\\Common\\LanguageResources", L"UILanguage",
                            L"InstallLanguage"}));
    const std::string officeQualifier =
        "Software\\Microsoft\\Office\\16.0\\Common\\LanguageResources|UILanguage|InstallLanguage";
    MapComponent(officeQualifier, StandInPath("standin_client_mixed"));
    const CProbeRun run = RunProbe({"load", "slots"});
    SCOPED_TRACE(run.output);
    EXPECT_EQ(Calls(run.Step(1)),
              (std::vector<std::string>{Call("Software\\Microsoft\\Office\\16.0\\Outlook|LastUILanguage"),
                                        Call(officeQualifier)}));
    EXPECT_EQ(Slots(run.Step(2)), MixedClientOver(SystemOnly(Slots(run.Step(2)))));
}

TEST_F(MapiLoader, MapistubAnswersWhenMapi32LacksFGetComponentPath) {
    InstallSystemFile("standin_mapi32_nocomponent", L"mapi32.dll");
    InstallSystemFile("standin_mapistub", L"mapistub.dll");
    SetOverrides(L"native", L"native");
    RegisterClient(Sz(L"1031"));
    MapComponent("1031", StandInPath("standin_client_mixed"));
    const CProbeRun run = RunProbe({"load", "slots", "modules"});
    SCOPED_TRACE(run.output);
    EXPECT_EQ(Calls(run.Step(1)), std::vector<std::string>{Call("1031", "mapistub.dll")});
    EXPECT_EQ(Lookups(run.Step(1), "mapi32.dll", "FGetComponentPath"), 1u);
    EXPECT_EQ(Lookups(run.Step(1), "mapistub.dll", "FGetComponentPath"), 1u);
    EXPECT_EQ(Slots(run.Step(2)), MixedClientOver(SystemOnly(Slots(run.Step(2)))));
    EXPECT_EQ(Modules(run.Step(3)),
              (std::set<std::string>{"mapi32.dll", "mapistub.dll", "standin_client_mixed.dll"}));
}

TEST_F(MapiLoader, ClientAloneWhenMapi32CannotLoad) {
    InstallSystemFile("standin_mapistub", L"mapistub.dll");
    SetOverrides(L"", L"native");
    RegisterClient(Sz(L"1031"));
    MapComponent("1031", StandInPath("standin_client_mixed"));
    const CProbeRun run = RunProbe({"load", "slots", "modules", "alloc"});
    SCOPED_TRACE(run.output);
    EXPECT_EQ(Calls(run.Step(1)), std::vector<std::string>{Call("1031", "mapistub.dll")});
    EXPECT_EQ(Slots(run.Step(2)), MixedClientOver(NothingBound(Slots(run.Step(2)))));
    EXPECT_EQ(Modules(run.Step(3)), (std::set<std::string>{"mapistub.dll", "standin_client_mixed.dll"}));
    EXPECT_EQ(run.Step(4), (std::vector<std::string>{"allocate-buffer 0x00000000 standin_client_mixed.dll",
                                                     "allocate-more 0x00000000 standin_client_mixed.dll",
                                                     "free-buffer 1"}));
}

TEST_F(MapiLoader, NothingBindsWhenNoLibraryLoads) {
    SetOverrides(L"", L"");
    RegisterClient(Sz(L"1031"));
    MapComponent("1031", StandInPath("standin_client_mixed"));
    const CProbeRun run = RunProbe({"load", "slots", "modules", "alloc"});
    SCOPED_TRACE(run.output);
    EXPECT_EQ(Calls(run.Step(1)), std::vector<std::string>{});
    EXPECT_EQ(Slots(run.Step(2)), NothingBound(Slots(run.Step(2))));
    EXPECT_EQ(Modules(run.Step(3)), std::set<std::string>{});
    // E_FAIL from both allocators, and 0 from MAPIFreeBuffer of a block nobody can free.
    EXPECT_EQ(run.Step(4), (std::vector<std::string>{"allocate-buffer 0x80004005 -",
                                                     "allocate-more 0x80004005 -", "free-buffer 0"}));
}

// A slot still empty sends the next caller to the loader again, which now finds a client; the client fills
// only what is empty and takes nothing from mapi32.dll.
TEST_F(MapiLoader, ALaterLoadFillsOnlyEmptySlots) {
    const CProbeRun run = RunProbe({"load", "slots", "wait", "slots", "modules"}, [] {
        RegisterClient(Sz(L"1031"));
        MapComponent("1031", StandInPath("standin_client_mixed"));
    });
    SCOPED_TRACE(run.output);
    EXPECT_EQ(Slots(run.Step(2)), SystemOnly(Slots(run.Step(2))));
    SlotTable expected = SystemOnly(Slots(run.Step(2)));
    expected["HrDispatchNotifications"] = "standin_client_mixed.dll HrDispatchNotifications@4";
    EXPECT_EQ(Slots(run.Step(4)), expected);
    EXPECT_EQ(Calls(run.Step(4)), std::vector<std::string>{Call("1031")});
    EXPECT_EQ(Modules(run.Step(5)), (std::set<std::string>{"mapi32.dll", "standin_client_mixed.dll"}));
}

}  // namespace
