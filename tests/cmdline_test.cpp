#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/CommandLineInfo.h"

namespace {

CTaskSchedCCmdLineInfo Parsed(std::vector<std::wstring> arguments) {
    arguments.insert(arguments.begin(), L"VelmarTaskScheduler.exe");
    CTaskSchedCCmdLineInfo info;
    ParseCommandLine(info, arguments);
    return info;
}

struct KeyCase {
    std::vector<std::wstring> arguments;
    int memLimit;
    int velmarSync;
};

class CommandLineKeys : public ::testing::TestWithParam<KeyCase> {};

TEST_P(CommandLineKeys, ReadsBothKeys) {
    const CTaskSchedCCmdLineInfo info = Parsed(GetParam().arguments);
    EXPECT_EQ(info.m_nMemLimit, GetParam().memLimit);
    EXPECT_EQ(info.m_nVelmarSync, GetParam().velmarSync);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, CommandLineKeys,
    ::testing::Values(KeyCase{{}, 0, 1},  // defaults
                      KeyCase{{L"MEM_LIMIT=512"}, 512, 1},
                      KeyCase{{L"MEM_LIMIT=300", L"MEM_LIMIT="}, 300, 1},      // empty rest keeps the value
                      KeyCase{{L"MEM_LIMIT=abc"}, 0, 1},                       // letters only: 0
                      KeyCase{{L"MEM_LIMIT=64MB"}, 64, 1},                     // leading digits
                      KeyCase{{L"xMEM_LIMIT=7"}, 7, 1},                        // found anywhere
                      KeyCase{{L"/MEM_LIMIT=9", L"-VELMAR_SYNC=4"}, 9, 4},     // as switches
                      KeyCase{{L"/p", L"MEM_LIMIT=20"}, 20, 1},                // a switch before the key
                      KeyCase{{L"MEM_LIMIT=5VELMAR_SYNC=3"}, 5, 3},            // both in one argument
                      KeyCase{{L"VELMAR_SYNC=2", L"VELMAR_SYNC=8"}, 0, 8},     // the last one wins
                      KeyCase{{L"VELMAR_SYNC=-3", L"MEM_LIMIT= 12"}, 12, -3},  // sign and white space
                      KeyCase{{L"mem_limit=5"}, 0, 1},                         // keys are case-sensitive
                      KeyCase{{L"MEM_LIMIT=99999999999"}, 2147483647, 1}));    // saturates

TEST(CommandLineBase, FrameworkSwitchesAndFileName) {
    const CTaskSchedCCmdLineInfo none = Parsed({});
    EXPECT_EQ(none.m_nShellCommand, CCommandLineInfo::FileNew);
    EXPECT_TRUE(none.m_bShowSplash);

    const CTaskSchedCCmdLineInfo open = Parsed({L"report.html", L"MEM_LIMIT=1"});
    EXPECT_EQ(open.m_nShellCommand, CCommandLineInfo::FileOpen);
    EXPECT_EQ(open.m_strFileName, L"report.html");
    EXPECT_EQ(open.m_nMemLimit, 1);

    const CTaskSchedCCmdLineInfo printTo = Parsed({L"/pt", L"doc.html", L"Printer", L"Driver", L"Port"});
    EXPECT_EQ(printTo.m_nShellCommand, CCommandLineInfo::FilePrintTo);
    EXPECT_EQ(printTo.m_strFileName, L"doc.html");
    EXPECT_EQ(printTo.m_strPrinterName, L"Printer");
    EXPECT_EQ(printTo.m_strDriverName, L"Driver");
    EXPECT_EQ(printTo.m_strPortName, L"Port");

    const CTaskSchedCCmdLineInfo embedded = Parsed({L"-Embedding"});
    EXPECT_TRUE(embedded.m_bRunEmbedded);
    EXPECT_FALSE(embedded.m_bShowSplash);
    EXPECT_EQ(Parsed({L"/REGSERVER"}).m_nShellCommand, CCommandLineInfo::AppRegister);
    EXPECT_EQ(Parsed({L"/unregister"}).m_nShellCommand, CCommandLineInfo::AppUnregister);
}

}  // namespace
