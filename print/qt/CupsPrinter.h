// Handing a finished PDF to CUPS (the server of CUPS_SERVER, else the system's): the PDF goes as it is, so
// the printer gets vector output.
#pragma once

#include <string>
#include <string_view>

namespace velmar::print {

struct CCupsRequest {
    std::string printer;  // a CUPS destination; empty for the user's default one
    std::string title;    // the job's name in the queue
    int copies = 1;
    std::string sides;  // "sides" value ("two-sided-long-edge", ...); empty for the printer's default
};

// The user's default destination (lpoptions, $PRINTER, then the server's); empty when there is none.
std::string DefaultCupsPrinter();

// Submits pdf as one job. True once the server has the whole document; printer is then the destination
// that took it. False with error text (German, for the activity list) otherwise; a half-sent job is
// cancelled.
bool SubmitPdfToCups(const CCupsRequest& request, std::string_view pdf, std::string& printer,
                     std::wstring& error);

}  // namespace velmar::print
