// Owning holders for MAPI memory inside our MAPI: a buffer freed with MAPIFreeBuffer (with every block
// chained to it), and a row set freed with FreeProws. The mail layer has its own (mail/ClientMapiHolders.h):
// it links no MAPI library and frees through the loaded function table, while our MAPI calls itself.
#pragma once

#include <memory>

#include "mapiutil.h"

namespace velmar::mapi {

struct CBufferDeleter {
    void operator()(void* buffer) const { MAPIFreeBuffer(buffer); }
};
template <class T>
using MapiBuffer = std::unique_ptr<T, CBufferDeleter>;

struct CRowSetDeleter {
    void operator()(SRowSet* rows) const { FreeProws(rows); }
};
using RowSetPtr = std::unique_ptr<SRowSet, CRowSetDeleter>;

}  // namespace velmar::mapi
