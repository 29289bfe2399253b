#include <windows.h>

#include "support/PrintJobChannel.h"

namespace velmar {
namespace {

// A window that has the job in its list answers at once; one that does not answer in this time is stuck.
constexpr UINT kAnswerTimeoutMilliseconds = 10000;

BOOL CALLBACK FindMainWindow(HWND window, LPARAM found) {
    if (!GetPropW(window, kPrintJobWindowProperty)) return TRUE;
    *reinterpret_cast<HWND*>(found) = window;
    return FALSE;
}

}  // namespace

EHandOver HandPrintJobToWindow(const std::vector<std::wstring>& job, std::wstring& error) {
    HWND window = nullptr;
    EnumWindows(FindMainWindow, reinterpret_cast<LPARAM>(&window));
    if (!window) return EHandOver::NoWindow;
    const std::string text = EncodePrintJob(job);
    COPYDATASTRUCT data{};
    data.dwData = kPrintJobCopyData;
    data.cbData = static_cast<DWORD>(text.size());
    data.lpData = const_cast<char*>(text.data());
    DWORD_PTR accepted = 0;
    if (!SendMessageTimeoutW(window, WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&data),
                             SMTO_ABORTIFHUNG | SMTO_BLOCK, kAnswerTimeoutMilliseconds, &accepted)) {
        error = L"Das Fenster von VelmarTaskScheduler antwortet nicht";
        return EHandOver::Failed;
    }
    if (accepted != TRUE) {
        error = L"Das Fenster von VelmarTaskScheduler hat den Druckauftrag abgelehnt";
        return EHandOver::Failed;
    }
    return EHandOver::Handed;
}

}  // namespace velmar
