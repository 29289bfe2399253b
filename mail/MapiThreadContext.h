// What a thread sets up before it uses the mail layer, for as long as the context lives (one context a
// thread): on Windows COM and MAPI must be initialised on every thread that calls them; our MAPI on POSIX
// is initialised once for the process and needs nothing per thread.
#pragma once

namespace velmar::mail {

class CMapiThreadContext {
public:
    CMapiThreadContext();
    ~CMapiThreadContext();
    CMapiThreadContext(const CMapiThreadContext&) = delete;
    CMapiThreadContext& operator=(const CMapiThreadContext&) = delete;
};

}  // namespace velmar::mail
