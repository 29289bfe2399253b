// The application object: prepares the process from its command line and runs until the program ends.
#pragma once

#include <string>
#include <vector>

class CVelmarTaskSchedulerApp {
public:
    // arguments[0] is the program; returns the process exit code.
    int Run(const std::vector<std::wstring>& arguments);

    int m_nMemLimit = 0;
    int m_nVelmarSync = 1;
};
