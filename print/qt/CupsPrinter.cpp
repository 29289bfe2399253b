#include "print/qt/CupsPrinter.h"

#include <cups/cups.h>

#include <memory>

#include "support/Utf8.h"

namespace velmar::print {
namespace {

struct CDestsDeleter {
    int count;
    void operator()(cups_dest_t* dests) const { cupsFreeDests(count, dests); }
};

std::wstring CupsError(const wchar_t* what) {
    return std::wstring(what) + L": " + Utf8ToWide(cupsLastErrorString());
}

}  // namespace

std::string DefaultCupsPrinter() {
    cups_dest_t* list = nullptr;
    const int count = cupsGetDests2(CUPS_HTTP_DEFAULT, &list);
    const std::unique_ptr<cups_dest_t, CDestsDeleter> dests(list, CDestsDeleter{count});
    if (const cups_dest_t* chosen = cupsGetDest(nullptr, nullptr, count, dests.get())) return chosen->name;
    const char* server = cupsGetDefault2(CUPS_HTTP_DEFAULT);
    return server ? server : "";
}

bool SubmitPdfToCups(const CCupsRequest& request, std::string_view pdf, std::string& printer,
                     std::wstring& error) {
    printer = request.printer.empty() ? DefaultCupsPrinter() : request.printer;
    if (printer.empty()) {
        error = L"Kein Standarddrucker eingerichtet";
        return false;
    }
    cups_option_t* options = nullptr;
    int optionCount = 0;
    if (request.copies > 1)
        optionCount = cupsAddOption("copies", std::to_string(request.copies).c_str(), optionCount, &options);
    if (!request.sides.empty())
        optionCount = cupsAddOption("sides", request.sides.c_str(), optionCount, &options);
    const int job =
        cupsCreateJob(CUPS_HTTP_DEFAULT, printer.c_str(), request.title.c_str(), optionCount, options);
    cupsFreeOptions(optionCount, options);
    if (job == 0) {
        error = CupsError((L"Drucker " + Utf8ToWide(printer)).c_str());
        return false;
    }
    bool sent = cupsStartDocument(CUPS_HTTP_DEFAULT, printer.c_str(), job, request.title.c_str(),
                                  CUPS_FORMAT_PDF, 1) == HTTP_STATUS_CONTINUE;
    constexpr size_t kChunk = 64 * 1024;
    for (size_t offset = 0; sent && offset < pdf.size(); offset += kChunk) {
        const size_t length = std::min(kChunk, pdf.size() - offset);
        sent = cupsWriteRequestData(CUPS_HTTP_DEFAULT, pdf.data() + offset, length) == HTTP_STATUS_CONTINUE;
    }
    if (cupsFinishDocument(CUPS_HTTP_DEFAULT, printer.c_str()) != IPP_STATUS_OK) sent = false;
    if (!sent) {
        error = CupsError((L"Drucker " + Utf8ToWide(printer)).c_str());
        cupsCancelJob2(CUPS_HTTP_DEFAULT, printer.c_str(), job, 0);
        return false;
    }
    return true;
}

}  // namespace velmar::print
