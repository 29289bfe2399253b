// The printing dialogs of the main window's PRINTHTML jobs, in slots by job index. The dialogs themselves
// are the platform's (a browser control on Windows, a web engine page elsewhere); this keeps their slots and
// tells the owner when a dialog's queue has run empty. Everything runs on the window's thread.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "print/PrintJobHost.h"
#include "print/PrintJobQueue.h"

namespace velmar::print {

// One printing dialog: a job queue and the browser that prints it.
class IPrintDialog {
public:
    virtual ~IPrintDialog() = default;
    virtual CPrintJobQueue& Queue() = 0;
    // Posts message 1124 to the dialog.
    virtual void PostStartNext() = 0;
};

// Makes the platform's dialog. trace adds a line to the activity list; done is called (on the dialog's
// thread, from inside the dialog) once its queue has run empty.
using PrintDialogFactory = std::function<std::unique_ptr<IPrintDialog>(
    std::function<void(const std::wstring&)> trace, std::function<void()> done)>;

class CPrintDialogs final : public IPrintJobHost {
public:
    // queueDone(index): the dialog of job `index` has printed everything it was given. It must not destroy
    // the dialog from inside the call (post the job's action 2 instead).
    CPrintDialogs(PrintDialogFactory factory, std::function<void(const std::wstring&)> trace,
                  std::function<void(size_t)> queueDone);
    ~CPrintDialogs() override;

    void RecreateDialog(size_t index) override;
    void AddPrintJob(size_t index, const std::vector<std::wstring>& group) override;
    void StartPrinting(size_t index) override;
    void DestroyDialog(size_t index) override;

    bool HasDialog(size_t index) const { return m_dialogs.count(index) != 0; }

private:
    PrintDialogFactory m_factory;
    std::function<void(const std::wstring&)> m_trace;
    std::function<void(size_t)> m_queueDone;
    std::map<size_t, std::unique_ptr<IPrintDialog>> m_dialogs;
};

}  // namespace velmar::print
