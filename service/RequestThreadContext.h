// What a request thread sets up for itself before it dispatches: on Windows COM and MAPI must be
// initialised on every thread that uses them; on POSIX there is nothing to do.
#pragma once

namespace velmar::service {

class CRequestThreadContext {
public:
    CRequestThreadContext();
    ~CRequestThreadContext();
    CRequestThreadContext(const CRequestThreadContext&) = delete;
    CRequestThreadContext& operator=(const CRequestThreadContext&) = delete;

private:
    bool m_bCom = false;
    bool m_bMapi = false;
};

}  // namespace velmar::service
