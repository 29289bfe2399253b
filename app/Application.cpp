#include "app/Application.h"

#include <cstdio>

#include "app/CommandLineInfo.h"
#include "app/IniFile.h"
#include "support/CodePage.h"

namespace {

void PrintLine(const std::wstring& line) {
    std::fputs(velmar::WideToAnsi(line).c_str(), stdout);
    std::fputc('\n', stdout);
}

}  // namespace

int CVelmarTaskSchedulerApp::Run(const std::vector<std::wstring>& arguments) {
    CTaskSchedCCmdLineInfo cmdInfo;
    ParseCommandLine(cmdInfo, arguments);
    m_nMemLimit = cmdInfo.m_nMemLimit;
    m_nVelmarSync = cmdInfo.m_nVelmarSync;

    PrintLine(L"VelmarTaskScheduler");
    PrintLine(L"MEM_LIMIT=" + std::to_wstring(m_nMemLimit) + L" VELMAR_SYNC=" +
              std::to_wstring(m_nVelmarSync));
    PrintLine(L"Velmar.ini: " + ProcessIniSettings().LocatedPath());
    std::fflush(stdout);
    return 0;
}
