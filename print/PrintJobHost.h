// The side of the printing dialogs that runs the main window's PRINTHTML jobs, one dialog per job index.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace velmar::print {

class IPrintJobHost {
public:
    virtual ~IPrintJobHost() = default;
    // Destroys the job's dialog, if there is one, and creates it anew.
    virtual void RecreateDialog(size_t index) = 0;
    // One group of five strings: html file, print template or "*", style sheet, prompt, printer or "*".
    virtual void AddPrintJob(size_t index, const std::vector<std::wstring>& group) = 0;
    // Message 1124 to the job's dialog: printing starts once the window's thread gets to it.
    virtual void StartPrinting(size_t index) = 0;
    // Destroys the job's dialog and clears its slot.
    virtual void DestroyDialog(size_t index) = 0;
};

}  // namespace velmar::print
