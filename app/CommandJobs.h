// The main window's command jobs: each a list of strings whose first string is its kind, "PRINTHTML" (a
// printing dialog prints HTML files) or "OPENMAIL" (a message the service opened is on screen). The list
// is guarded by a binary semaphore taken with 10-second waits, so a stuck holder shows as a line in the
// activity list instead of a frozen window.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "print/PrintJobHost.h"
#include "support/ActivityList.h"
#include "support/BinarySemaphore.h"

inline constexpr wchar_t kOpenMailJob[] = L"OPENMAIL";

using velmar::print::IPrintJobHost;

class CCommandJobs {
public:
    static constexpr std::chrono::milliseconds kLockWait{10000};

    // Appends a job; its index, or nullopt when the lock was not had in time.
    std::optional<size_t> Add(std::vector<std::wstring> job);
    // Empties the job's slot (the indexes of later jobs stay); false when the lock was not had in time.
    bool Remove(size_t index);
    // Whether a job of the kind "OPENMAIL" is held: then closing the window asks first. A list that cannot
    // be looked at in time counts as holding one, so the user is asked rather than their mail lost.
    bool HasOpenMail();
    // Runs job `index` with `action`: 1 (re)creates its printing dialog and feeds it the job's complete
    // groups of five strings, 2 destroys the dialog, anything else does nothing. Jobs of other kinds and
    // indexes outside the list are ignored; a lock not had in time adds the line of string 109.
    void Run(size_t index, int action, CActivityList& activity, IPrintJobHost* printer);

private:
    velmar::CBinarySemaphore m_lock;
    std::vector<std::vector<std::wstring>> m_jobs;  // an empty job: a removed one
};
