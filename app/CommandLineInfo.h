// Command-line parsing in the manner of the Windows application framework: each argument is handed to
// ParseParam with the switch character ('/' or '-') removed and a flag saying it was a switch. The base
// class knows the framework's standard switches and the document file name; subclasses add their keys.
#pragma once

#include <string>
#include <vector>

class CCommandLineInfo {
public:
    enum ShellCommand { FileNew, FileOpen, FilePrint, FilePrintTo, FileDDE, AppRegister, AppUnregister };

    virtual ~CCommandLineInfo() = default;
    virtual void ParseParam(const wchar_t* pszParam, bool bFlag, bool bLast);

    ShellCommand m_nShellCommand = FileNew;
    bool m_bShowSplash = true;
    bool m_bRunEmbedded = false;
    bool m_bRunAutomated = false;
    std::wstring m_strFileName;
    std::wstring m_strPrinterName;
    std::wstring m_strDriverName;
    std::wstring m_strPortName;

private:
    void ParseParamFlag(const wchar_t* pszParam);
    void ParseParamNotFlag(const wchar_t* pszParam);
    void ParseLast(bool bLast);
};

// Feeds every argument after the program name to info.ParseParam.
void ParseCommandLine(CCommandLineInfo& info, const std::vector<std::wstring>& arguments);

// The program's own keys: "MEM_LIMIT=" (working-set limit in megabytes, 0 or less: no limit) and
// "VELMAR_SYNC=" (a synchronisation value that is only stored).
class CTaskSchedCCmdLineInfo : public CCommandLineInfo {
public:
    void ParseParam(const wchar_t* pszParam, bool bFlag, bool bLast) override;

    int m_nMemLimit = 0;
    int m_nVelmarSync = 1;
};
