// SPDX-License-Identifier: MIT
#include "mempool_implement/engine.h"
#include "utils/log.h"
#include "utils/report_writer.h"

void app::ShowEngine(ReportWriter &writer, const TAppMemPoolImpl *ptImpl)
{
    if (!ptImpl)
        return;
    uint32_t dwOnCount = 0;
    uint32_t dwOnSize = 0;
    uint32_t dwIdleSize = 0;
    for (uint32_t k = 0; k < APP_MEMPOOL_CLASS_NUM; ++k) {
        const uint32_t dwBlockSize = 32u << k;
        const uint32_t dwOn = Peek(ptImpl->hOnList[k]->dwCurSize);
        const uint32_t dwOff = Peek(ptImpl->hOffList[k]->dwCurSize);
        dwOnCount += dwOn;
        dwOnSize += dwOn * dwBlockSize;
        dwIdleSize += dwOff * dwBlockSize;
        if (dwOn != 0)
            writer.Line("[%2lu] OnList count=%lu blocksize=%lu size=%lu\n", Ul(k), Ul(dwOn),
                        Ul(dwBlockSize), Ul(dwOn * dwBlockSize));
        if (dwOff != 0)
            writer.Line("[%2lu] OffList count=%lu blocksize=%lu size=%lu\n", Ul(k), Ul(dwOff),
                        Ul(dwBlockSize), Ul(dwOff * dwBlockSize));
    }
    writer.Line("[malloc/free]count=%lu size=%lu\n", Ul(Peek(ptImpl->dwOnWorkCount) - dwOnCount),
                Ul(Peek(ptImpl->dwOnWorkSize) - dwOnSize));
    writer.Line("MEMPOOL %p OnWorkCount=%lu OnWorkSize=%lu TotalSize=%lu IdleSize=%lu\n",
                Ptr(ptImpl), Ul(Peek(ptImpl->dwOnWorkCount)), Ul(Peek(ptImpl->dwOnWorkSize)),
                Ul(Peek(ptImpl->dwTotalSize)), Ul(dwIdleSize));
    writer.Flush();
}

void _AppMemPoolShow(TAppMemPoolImpl *ptImpl, PFAppShow pfnShow, void *pvContext)
{
    app::ReportWriter writer(pfnShow, pvContext);
    app::ShowEngine(writer, ptImpl);
}
