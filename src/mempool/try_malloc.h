// SPDX-License-Identifier: MIT
//
// For whoever has a way out when there is no memory: a refusal that harms nobody is no ERROR.
#ifndef APPCORE_MEMPOOL_TRY_MALLOC_H
#define APPCORE_MEMPOOL_TRY_MALLOC_H

#include "appcore/mempool.h"

namespace app
{

// AppMemPoolMalloc() whose refusal, by the limit, the heap or the engine, is silent; the allocator's
// traces stay.  Released with AppMemPoolFree().
void *TryMalloc(HAppMemPool hMemPool, uint32_t dwSize);

} // namespace app

#endif
