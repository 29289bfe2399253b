// How a PRINTHTML job reaches the main window of a running instance: a later start of the program with
// the job on its command line, or "velmar-client print", hands the job's strings over and leaves the
// printing to that window.
//   Windows: WM_COPYDATA to the main window (the top-level window that carries kPrintJobWindowProperty),
//            the text of EncodePrintJob.
//   POSIX:   a Unix-domain socket of the window's own beside the service's request socket
//            (PrintJobSocketPath()), for its owner only; one zero-terminated text of EncodePrintJob, answered
//            "OK" once the job is in the window's list.
// A job is the word "PRINTHTML" followed by groups of five strings: html file, print template or "*",
// style sheet, prompt ("1" shows the print dialog), printer or "*".
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace velmar {

// The kind of a main window's command job that prints HTML files, and the word a print job starts with.
inline constexpr wchar_t kPrintHtmlWord[] = L"PRINTHTML";

inline constexpr wchar_t kPrintJobWindowProperty[] = L"VelmarTaskScheduler.PrintJobs";
inline constexpr uintptr_t kPrintJobCopyData = 0x564C5052;  // dwData of the WM_COPYDATA that carries a job
inline constexpr char kPrintJobAccepted[] = "OK";

// Whether arguments (without the program) are a print job: "PRINTHTML" and at least one complete group.
bool IsPrintJob(const std::vector<std::wstring>& arguments);

// The job as one text and back: each string in UTF-8 as a netstring ("<length>:<bytes>,"), so that any
// text, commas and newlines included, goes over as it is. Decoding fails on anything that is not a print
// job.
std::string EncodePrintJob(const std::vector<std::wstring>& job);
bool DecodePrintJob(std::string_view text, std::vector<std::wstring>& job);

enum class EHandOver { Handed, NoWindow, Failed };
// Gives the job to the main window of a running instance. NoWindow when none runs (then the caller prints
// itself); Failed with error text when one runs but did not take the job.
EHandOver HandPrintJobToWindow(const std::vector<std::wstring>& job, std::wstring& error);

// POSIX only: the window's socket, beside the request socket. Empty when no place can be had.
std::string PrintJobSocketPath();

}  // namespace velmar
