// What a request thread sets up for itself before it dispatches (one context a thread): on Windows COM and
// MAPI must be initialised on every thread that uses them; on POSIX there is nothing to do.
#pragma once

namespace velmar::service {

class CRequestThreadContext {
public:
    CRequestThreadContext();
    ~CRequestThreadContext();
    CRequestThreadContext(const CRequestThreadContext&) = delete;
    CRequestThreadContext& operator=(const CRequestThreadContext&) = delete;
};

}  // namespace velmar::service
