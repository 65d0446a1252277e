// SPDX-License-Identifier: MIT
//
// The size-class engine of a created pool.  It has no lock: the pool's front holds the pool's lock
// around every call.  Its list nodes come from the process heap, never from the pool it serves.
#ifndef APPCORE_MEMPOOL_IMPLEMENT_ENGINE_H
#define APPCORE_MEMPOOL_IMPLEMENT_ENGINE_H

#include <stddef.h>

#include "appcore/containers.h"

#define APP_MEMPOOL_CLASS_NUM 18u // block sizes 32 << 0 to 32 << 17 (4 MiB)

namespace app
{

// The headers keep their layout on 32-bit machines.  On 64-bit ones they are padded, so that the
// caller's data is aligned as malloc() aligns it.
#if UINTPTR_MAX == UINT32_MAX
constexpr size_t kHeadAlign = alignof(uint32_t);
#else
constexpr size_t kHeadAlign = alignof(max_align_t);
#endif

// Marks the released blocks in dwBlockSize, whose low bits are free in a pooled block: so a second
// release is known in constant time, and a block in use shows its plain size to a debugger.
constexpr uint32_t kIdle = 1;

class ReportWriter;

} // namespace app

// At the start of every block that the engine takes from the heap.
struct alignas(app::kHeadAlign) TAppMemBlockHead {
    uint32_t dwBlockSize; // 32 << class, plus kIdle while idle; or the need of a large block
    // Of an idle block the one released next, of the newest one any; else null for a large block
    // alone.
    TAppMemBlockHead *ptNext;
};

// One size.  A hand-out and a release touch this record, the block and its neighbour in the queue.
struct TAppMemClass {
    TAppMemBlockHead *ptOldest; // idle blocks in the order of their release; null without any
    TAppMemBlockHead *ptNewest; // means nothing without any
    uint32_t dwInUse;
    HAppDoubleList hBlocks; // every block of the class, in use or idle, as long as the pool
};

struct TAppMemPoolImpl {
    TAppMemClass atClass[APP_MEMPOOL_CLASS_NUM];
    uint32_t dwTotalCount; // blocks held from the heap: pooled ones, and large ones in use
    uint32_t dwTotalSize;  // their bytes, headers and rounding included
};

#if UINTPTR_MAX == UINT32_MAX
static_assert(sizeof(TAppMemClass) == 16 && sizeof(TAppMemBlockHead) == 8, "fixed layout");
#endif

extern "C" {
// The first two arguments are not used: the limit is the front's.
uint32_t _AppMemPoolCreate(uint32_t dwSize, uint32_t dwReserved, TAppMemPoolImpl **pptImpl);
// Returns every pooled block to the heap, in use or idle; large blocks are not tracked.
void _AppMemPoolDestroy(TAppMemPoolImpl *ptImpl);
// Address behind the block's header, or null.  A null engine serves straight from the heap.
void *_AppMalloc(TAppMemPoolImpl *ptImpl, uint32_t dwSize);
void _AppFree(TAppMemPoolImpl *ptImpl, void *pvData);
void _AppMemPoolShow(TAppMemPoolImpl *ptImpl, PFAppShow pfnShow, void *pvContext);
// Class of a need of `dwSize` bytes, header included; APP_MEMPOOL_CLASS_NUM for none.
uint32_t __AppMemGetOffset(uint32_t dwSize);
// Destroy's callback for the lists.
void __AppMemPoolFreeData(void *pvBlock, void *pvImpl);
}

namespace app
{
// What a report says of an engine, copied under its pool's lock and printed after it.
struct EngineFigures {
    const TAppMemPoolImpl *ptImpl;
    uint32_t adwOnCount[APP_MEMPOOL_CLASS_NUM];
    uint32_t adwOffCount[APP_MEMPOOL_CLASS_NUM];
    uint32_t dwOnWorkCount; // blocks handed out, pooled and large alike
    uint32_t dwOnWorkSize;  // their bytes, headers and rounding included
    uint32_t dwTotalSize;
    uint32_t dwIdleSize;
};
// Derived from what a hand-out and a release have to write anyway.  Without the pool's lock the
// figures may not fit together.
EngineFigures ReadEngine(const TAppMemPoolImpl *ptImpl);
// _AppMemPoolShow() into a report that is already under way, which must have handed over.
void ShowEngine(ReportWriter &writer, const EngineFigures &figures);

// Only in builds with checks; the caller holds the pool's lock.  The totals agree with the classes.
bool EngineAddsUp(const TAppMemPoolImpl *ptImpl);
// The blocks of a class are of its size, and those that are marked idle stand in its queue.
bool ClassIsValid(const TAppMemPoolImpl *ptImpl, uint32_t dwClass);
// Both, and the lists themselves, of every class.
bool EngineIsValid(const TAppMemPoolImpl *ptImpl);
} // namespace app

#endif
