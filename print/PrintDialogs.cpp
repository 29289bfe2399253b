#include "print/PrintDialogs.h"

namespace velmar::print {

CPrintDialogs::CPrintDialogs(PrintDialogFactory factory, std::function<void(const std::wstring&)> trace,
                             std::function<void(size_t)> queueDone)
    : m_factory(std::move(factory)), m_trace(std::move(trace)), m_queueDone(std::move(queueDone)) {}

CPrintDialogs::~CPrintDialogs() = default;

void CPrintDialogs::RecreateDialog(size_t index) {
    m_dialogs.erase(index);
    std::unique_ptr<IPrintDialog> dialog = m_factory(m_trace, [this, index] { m_queueDone(index); });
    if (dialog) m_dialogs[index] = std::move(dialog);
}

void CPrintDialogs::AddPrintJob(size_t index, const std::vector<std::wstring>& group) {
    const auto found = m_dialogs.find(index);
    if (found == m_dialogs.end() || group.size() != 5) return;
    found->second->Queue().AddJob(group[0], group[1], group[2], group[3], group[4]);
}

void CPrintDialogs::StartPrinting(size_t index) {
    if (const auto found = m_dialogs.find(index); found != m_dialogs.end()) found->second->PostStartNext();
}

void CPrintDialogs::DestroyDialog(size_t index) {
    m_dialogs.erase(index);
}

}  // namespace velmar::print
