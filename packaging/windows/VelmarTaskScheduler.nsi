; The Windows installer of VelmarTaskScheduler, built on Linux with makensis (scripts/package.sh):
;   makensis -DVERSION=<x.y.z> -DPROGRAM_DIR=<folder with the programs> -DICON=<.ico> -DOUTFILE=<setup.exe> <this>
; For the current user only (no administrator): the programs in %LOCALAPPDATA%\Programs\VelmarTaskScheduler,
; a Start-menu entry, an optional start at login (the Run key of the current user) and an uninstaller.
; Silent with /S (every section that is selected by default); /D=<folder> installs elsewhere.
; The programs are 64-bit, and so is the installer (Wine of the tests runs 64-bit programs only).
Target amd64-unicode
!include "MUI2.nsh"

Name "VelmarTaskScheduler"
OutFile "${OUTFILE}"
RequestExecutionLevel user
InstallDir "$LOCALAPPDATA\Programs\VelmarTaskScheduler"
InstallDirRegKey HKCU "Software\Velmar\VelmarTaskScheduler" "InstallDir"
SetCompressor /SOLID lzma
VIProductVersion "${VERSION}.0"
VIAddVersionKey /LANG=1031 "ProductName" "VelmarTaskScheduler"
VIAddVersionKey /LANG=1031 "FileDescription" "VelmarTaskScheduler Installation"
VIAddVersionKey /LANG=1031 "FileVersion" "${VERSION}"
VIAddVersionKey /LANG=1031 "CompanyName" "Velmar"
VIAddVersionKey /LANG=1031 "LegalCopyright" "Velmar"

!define MUI_ICON "${ICON}"
!define MUI_UNICON "${ICON}"
!define MUI_WELCOMEPAGE_TITLE "VelmarTaskScheduler installieren"
!define MUI_FINISHPAGE_TITLE "Installation abgeschlossen"
!define MUI_FINISHPAGE_RUN "$INSTDIR\VelmarTaskScheduler.exe"
; The list of what was done stays until the user goes on.
!define MUI_FINISHPAGE_NOAUTOCLOSE
!insertmacro MUI_PAGE_WELCOME
!insertmacro MUI_PAGE_COMPONENTS
!insertmacro MUI_PAGE_DIRECTORY
!insertmacro MUI_PAGE_INSTFILES
!insertmacro MUI_PAGE_FINISH
!insertmacro MUI_UNPAGE_CONFIRM
!insertmacro MUI_UNPAGE_INSTFILES
!insertmacro MUI_LANGUAGE "German"

!define UNINSTALL_KEY "Software\Microsoft\Windows\CurrentVersion\Uninstall\VelmarTaskScheduler"
!define RUN_KEY "Software\Microsoft\Windows\CurrentVersion\Run"

Section "VelmarTaskScheduler" SectionProgram
    SectionIn RO
    SetOutPath "$INSTDIR"
    File "${PROGRAM_DIR}\VelmarTaskScheduler.exe"
    File "${PROGRAM_DIR}\velmar-client.exe"
    WriteUninstaller "$INSTDIR\Uninstall.exe"
    CreateShortcut "$SMPROGRAMS\VelmarTaskScheduler.lnk" "$INSTDIR\VelmarTaskScheduler.exe"
    WriteRegStr HKCU "Software\Velmar\VelmarTaskScheduler" "InstallDir" "$INSTDIR"
    WriteRegStr HKCU "${UNINSTALL_KEY}" "DisplayName" "VelmarTaskScheduler"
    WriteRegStr HKCU "${UNINSTALL_KEY}" "DisplayVersion" "${VERSION}"
    WriteRegStr HKCU "${UNINSTALL_KEY}" "Publisher" "Velmar"
    WriteRegStr HKCU "${UNINSTALL_KEY}" "DisplayIcon" "$INSTDIR\VelmarTaskScheduler.exe"
    WriteRegStr HKCU "${UNINSTALL_KEY}" "UninstallString" '"$INSTDIR\Uninstall.exe"'
    WriteRegStr HKCU "${UNINSTALL_KEY}" "QuietUninstallString" '"$INSTDIR\Uninstall.exe" /S'
    WriteRegDWORD HKCU "${UNINSTALL_KEY}" "NoModify" 1
    WriteRegDWORD HKCU "${UNINSTALL_KEY}" "NoRepair" 1
SectionEnd

Section "Beim Anmelden starten" SectionAutostart
    WriteRegStr HKCU "${RUN_KEY}" "VelmarTaskScheduler" '"$INSTDIR\VelmarTaskScheduler.exe"'
SectionEnd

!insertmacro MUI_FUNCTION_DESCRIPTION_BEGIN
    !insertmacro MUI_DESCRIPTION_TEXT ${SectionProgram} "Der E-Mail-Dienst mit seinem Fenster im Infobereich und velmar-client."
    !insertmacro MUI_DESCRIPTION_TEXT ${SectionAutostart} "Startet VelmarTaskScheduler bei jeder Anmeldung dieses Benutzers."
!insertmacro MUI_FUNCTION_DESCRIPTION_END

Section "Uninstall"
    ; A running copy would keep its file: it is asked to close through its own request first.
    ExecWait '"$INSTDIR\velmar-client.exe" --timeout=5 CloseVelmarTaskScheduler'
    Sleep 1000
    Delete "$INSTDIR\VelmarTaskScheduler.exe"
    Delete "$INSTDIR\velmar-client.exe"
    Delete "$INSTDIR\Uninstall.exe"
    RMDir "$INSTDIR"
    Delete "$SMPROGRAMS\VelmarTaskScheduler.lnk"
    DeleteRegValue HKCU "${RUN_KEY}" "VelmarTaskScheduler"
    DeleteRegKey HKCU "${UNINSTALL_KEY}"
    DeleteRegKey HKCU "Software\Velmar\VelmarTaskScheduler"
    DeleteRegKey /ifempty HKCU "Software\Velmar"
SectionEnd
