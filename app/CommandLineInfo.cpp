#include "app/CommandLineInfo.h"

#include <cwchar>
#include <cwctype>

#include "support/NumberText.h"

namespace {

bool EqualsIgnoringCase(const wchar_t* a, const wchar_t* b) {
    for (; *a && *b; ++a, ++b)
        if (std::towlower(static_cast<wint_t>(*a)) != std::towlower(static_cast<wint_t>(*b))) return false;
    return *a == *b;
}

// Stores the number after key when key occurs anywhere in the argument and something follows it.
void ReadKey(const wchar_t* argument, const wchar_t* key, int& value) {
    const wchar_t* found = std::wcsstr(argument, key);
    if (!found) return;
    const wchar_t* rest = found + std::wcslen(key);
    if (*rest) value = velmar::ParseLeadingInt(std::wstring_view(rest));
}

}  // namespace

void CCommandLineInfo::ParseParam(const wchar_t* pszParam, bool bFlag, bool bLast) {
    if (bFlag)
        ParseParamFlag(pszParam);
    else
        ParseParamNotFlag(pszParam);
    ParseLast(bLast);
}

void CCommandLineInfo::ParseParamFlag(const wchar_t* pszParam) {
    if (EqualsIgnoringCase(pszParam, L"pt")) {
        m_nShellCommand = FilePrintTo;
    } else if (EqualsIgnoringCase(pszParam, L"p")) {
        m_nShellCommand = FilePrint;
    } else if (EqualsIgnoringCase(pszParam, L"Register") || EqualsIgnoringCase(pszParam, L"Regserver")) {
        m_nShellCommand = AppRegister;
    } else if (EqualsIgnoringCase(pszParam, L"Unregister") || EqualsIgnoringCase(pszParam, L"Unregserver")) {
        m_nShellCommand = AppUnregister;
    } else if (EqualsIgnoringCase(pszParam, L"dde")) {
        m_nShellCommand = FileDDE;
    } else if (EqualsIgnoringCase(pszParam, L"Embedding")) {
        m_bRunEmbedded = true;
        m_bShowSplash = false;
    } else if (EqualsIgnoringCase(pszParam, L"Automation")) {
        m_bRunAutomated = true;
        m_bShowSplash = false;
    }
}

void CCommandLineInfo::ParseParamNotFlag(const wchar_t* pszParam) {
    if (m_strFileName.empty())
        m_strFileName = pszParam;
    else if (m_nShellCommand == FilePrintTo && m_strPrinterName.empty())
        m_strPrinterName = pszParam;
    else if (m_nShellCommand == FilePrintTo && m_strDriverName.empty())
        m_strDriverName = pszParam;
    else if (m_nShellCommand == FilePrintTo && m_strPortName.empty())
        m_strPortName = pszParam;
}

void CCommandLineInfo::ParseLast(bool bLast) {
    if (!bLast) return;
    if (m_nShellCommand == FileNew && !m_strFileName.empty()) m_nShellCommand = FileOpen;
    m_bShowSplash = !m_bRunEmbedded && !m_bRunAutomated;
}

void ParseCommandLine(CCommandLineInfo& info, const std::vector<std::wstring>& arguments) {
    for (size_t i = 1; i < arguments.size(); ++i) {
        const wchar_t* param = arguments[i].c_str();
        const bool bFlag = param[0] == L'-' || param[0] == L'/';
        if (bFlag) ++param;
        info.ParseParam(param, bFlag, i + 1 == arguments.size());
    }
}

void CTaskSchedCCmdLineInfo::ParseParam(const wchar_t* pszParam, bool bFlag, bool bLast) {
    CCommandLineInfo::ParseParam(pszParam, bFlag, bLast);
    ReadKey(pszParam, L"MEM_LIMIT=", m_nMemLimit);
    ReadKey(pszParam, L"VELMAR_SYNC=", m_nVelmarSync);
}
