// Owning holders for what the mail layer gets from MAPI: buffers freed with MAPIFreeBuffer and row sets
// freed with FreeProws, both called through the MAPI function table. Interfaces use CComPtr.
// Beside these, our MAPI has its own (mapi/runtime/ProviderBuffers.h): the mail layer links no MAPI library
// and frees through the loaded table, while our MAPI calls its own functions directly.
#pragma once

#include <memory>

#include "mail/MapiFunctions.h"
#include "support/ComPtr.h"

namespace velmar::mail {

using velmar::CComPtr;

struct CMapiBufferDeleter {
    void operator()(void* buffer) const { VMAPIFreeBuffer(buffer); }
};
template <class T>
using MapiBufferPtr = std::unique_ptr<T, CMapiBufferDeleter>;

struct CRowSetDeleter {
    void operator()(SRowSet* rows) const {
        if (const auto freeRows = BoundMapiFunction<PFN_FreeProws>(MapiSlot::FreeProws)) freeRows(rows);
    }
};
using RowSetPtr = std::unique_ptr<SRowSet, CRowSetDeleter>;

}  // namespace velmar::mail
