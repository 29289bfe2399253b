// The main window of the platform: the German activity window with its tray icon. It starts the request
// service when it comes up and the program ends when it closes.
#pragma once

#include <string>
#include <vector>

#include "support/ActivityList.h"

class CVelmarMapi;

// Whether a window can be shown here at all (on POSIX: a display is named).
bool DesktopAvailable();

// Shows the main window until it closes and returns the process exit code. The window starts the service
// of mapi with the memory limit in megabytes (0 or less: none) and stops it once it has closed.
int RunMainWindow(CActivityList& activity, CVelmarMapi& mapi, int memoryLimit);

// Prints a PRINTHTML job (the word and its groups of five strings) without a main window, for a start of
// the program that found no running window to hand it to; returns once every group is done.
int RunPrintJobs(CActivityList& activity, std::vector<std::wstring> job);
