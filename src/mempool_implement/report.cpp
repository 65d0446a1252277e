// SPDX-License-Identifier: MIT
#include "base/field.h"
#include "base/print.h"
#include "mempool_implement/engine.h"
#include "utils/report_writer.h"

// Of what was read at different moments.
static uint32_t Rest(uint32_t dwWhole, uint32_t dwPart)
{
    return dwWhole > dwPart ? dwWhole - dwPart : 0;
}

app::EngineFigures app::ReadEngine(const TAppMemPoolImpl *ptImpl)
{
    EngineFigures figures = {};
    figures.ptImpl = ptImpl;
    uint32_t dwIdleCount = 0;
    for (uint32_t k = 0; k < APP_MEMPOOL_CLASS_NUM; ++k) {
        const TAppMemClass &tClass = ptImpl->atClass[k];
        figures.adwOnCount[k] = PeekCounter(tClass.dwInUse);
        const uint32_t dwIdle = Rest(PeekCounter(tClass.hBlocks->dwCurSize), figures.adwOnCount[k]);
        figures.adwOffCount[k] = dwIdle;
        figures.dwIdleSize += dwIdle * (32u << k);
        dwIdleCount += dwIdle;
    }
    figures.dwTotalSize = PeekCounter(ptImpl->dwTotalSize);
    figures.dwOnWorkCount = Rest(PeekCounter(ptImpl->dwTotalCount), dwIdleCount);
    figures.dwOnWorkSize = Rest(figures.dwTotalSize, figures.dwIdleSize);
    return figures;
}

void app::ShowEngine(ReportWriter &writer, const EngineFigures &figures)
{
    uint32_t dwOnCount = 0;
    uint32_t dwOnSize = 0;
    for (uint32_t k = 0; k < APP_MEMPOOL_CLASS_NUM; ++k) {
        const uint32_t dwBlockSize = 32u << k;
        const uint32_t dwOn = figures.adwOnCount[k];
        const uint32_t dwOff = figures.adwOffCount[k];
        dwOnCount += dwOn;
        dwOnSize += dwOn * dwBlockSize;
        if (dwOn != 0)
            writer.Line("[%2lu] OnList count=%lu blocksize=%lu size=%lu\n", Ul(k), Ul(dwOn),
                        Ul(dwBlockSize), Ul(dwOn * dwBlockSize));
        if (dwOff != 0)
            writer.Line("[%2lu] OffList count=%lu blocksize=%lu size=%lu\n", Ul(k), Ul(dwOff),
                        Ul(dwBlockSize), Ul(dwOff * dwBlockSize));
    }
    // What the lists do not account for.  May wrap in a report that did not get the pool's lock.
    writer.Line("[malloc/free]count=%lu size=%lu\n", Ul(figures.dwOnWorkCount - dwOnCount),
                Ul(figures.dwOnWorkSize - dwOnSize));
    writer.Line("MEMPOOL %p OnWorkCount=%lu OnWorkSize=%lu TotalSize=%lu IdleSize=%lu\n",
                Ptr(figures.ptImpl), Ul(figures.dwOnWorkCount), Ul(figures.dwOnWorkSize),
                Ul(figures.dwTotalSize), Ul(figures.dwIdleSize));
    writer.Flush();
}

void _AppMemPoolShow(TAppMemPoolImpl *ptImpl, PFAppShow pfnShow, void *pvContext)
{
    if (!ptImpl)
        return;
    app::ReportWriter writer(pfnShow, pvContext);
    app::ShowEngine(writer, app::ReadEngine(ptImpl));
}
