// SPDX-License-Identifier: MIT
//
// The stand-ins under the host's names, weak, for the application's own calls.  A file that is never
// optimised with others, and an object of its own in the archive, which is drawn in by such a call
// alone: what calls or binds these names must see no more of them than that somebody defines them.
#include "host/printf.h"

int32_t QorPrintf(int32_t, int32_t, const char *szFormat, ...)
{
    va_list args;
    va_start(args, szFormat);
    const int32_t nResult = _AppQorVprintf(szFormat, args);
    va_end(args);
    return nResult;
}

int32_t QorRegCommand(const char *szName, PFQorCommand pfnCommand, const char *szHelp)
{
    return _AppQorRegCommand(szName, pfnCommand, szHelp);
}

int32_t IpcConvConvertUtf8toUnicode(const void *pvSrc, void *pvDst, uint32_t *pdwLen)
{
    return _AppIpcConvConvertUtf8toUnicode(pvSrc, pvDst, pdwLen);
}

int32_t IpcConvConvertGbktoUnicode(const void *pvSrc, void *pvDst, uint32_t *pdwLen)
{
    return _AppIpcConvConvertGbktoUnicode(pvSrc, pvDst, pdwLen);
}

int32_t IpcConvConvertUnicodetoUtf8(const void *pvSrc, uint32_t dwSrcLen, void *pvDst,
                                    uint32_t dwDstLen)
{
    return _AppIpcConvConvertUnicodetoUtf8(pvSrc, dwSrcLen, pvDst, dwDstLen);
}

int32_t IpcConvConvertUnicodetoGbk(const void *pvSrc, uint32_t dwSrcLen, void *pvDst,
                                   uint32_t dwDstLen)
{
    return _AppIpcConvConvertUnicodetoGbk(pvSrc, dwSrcLen, pvDst, dwDstLen);
}

int32_t IpcCapGetHwExternal(TIpcCapHwExternal *ptHw)
{
    return _AppIpcCapGetHwExternal(ptHw);
}

int32_t IpcGetNetEthParam(uint8_t byIndex, TIpcNetEthParam *ptParam)
{
    return _AppIpcGetNetEthParam(byIndex, ptParam);
}

int32_t IpcGetUpupCfg(TIpcUpupCfg *ptCfg)
{
    return _AppIpcGetUpupCfg(ptCfg);
}
