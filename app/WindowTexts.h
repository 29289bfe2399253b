// The window's own texts, the same on both targets. The Windows program also carries them in its string
// table and dialog templates (VelmarTaskScheduler.rc), which its window test compares with these.
#pragma once

inline constexpr wchar_t kWindowCaption[] = L"VelmarTaskScheduler";
inline constexpr wchar_t kActivityColumn[] = L"Aktion";
inline constexpr int kActivityColumnWidth = 2500;
inline constexpr wchar_t kMinimizeButton[] = L"&Minimize";
inline constexpr wchar_t kClearListButton[] = L"C&lear List";
inline constexpr wchar_t kCopyListButton[] = L"&Copy List";
inline constexpr wchar_t kTrayTip[] = L"VelmarTaskScheduler";

// The string table: 101, 104, 105, 106, 109.
inline constexpr wchar_t kTextAboutItem[] = L"&Info \u00FCber VelmarTaskScheduler...";
inline constexpr wchar_t kTextConnectionError[] = L"Fehler bei Abarbeitung der Verbindungsanforderungen";
inline constexpr wchar_t kTextCloseQuestion[] =
    L"Wollen Sie dieses Programm beenden?\nFalls Sie es schlie\u00DFen, m\u00FCssen alle durch den Velmar "
    L"ge\u00F6ffneten E-Mails ebenfalls geschlossen werden.";
inline constexpr wchar_t kTextThreadError[] = L"Kommunikationsthread konnte nicht gestartet werden.";
inline constexpr wchar_t kTextCommandJobsFailed[] = L"Fehler bei Abarbeitung der Befehlsfolge";

// The about box.
inline constexpr wchar_t kAboutCaption[] = L"Info \u00FCber VelmarTaskScheduler";
inline constexpr wchar_t kAboutText[] =
    L"VelmarTaskScheduler, Version 1.0\n\nProgramm zur erledigung von Diensten im Velmar-Umfeld";

// Message boxes of the tray icon.
inline constexpr wchar_t kTraySetFailed[] = L"Unable to set Tray Icon";
inline constexpr wchar_t kTrayRestoreFailed[] = L"Unable to restore VelmarTaskScheduler";
