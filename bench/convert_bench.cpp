// SPDX-License-Identifier: MIT
//
// The texts change from step to step, as in a program's life: branches are not foreseen better than
// there.
#include <arpa/inet.h>
#include <gio/gio.h>
#include <time.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <vector>

#include "appcore/convert.h"
#include "bench.h"

namespace
{

constexpr size_t kTexts = 256;

uint32_t Random(size_t i)
{
    uint32_t dwValue = static_cast<uint32_t>(i) * 2654435761u + 12345;
    dwValue ^= dwValue >> 15;
    return dwValue * 2246822519u;
}

template <typename Print>
std::vector<std::string> Texts(Print print)
{
    std::vector<std::string> texts;
    char achText[64];
    for (size_t i = 0; i < kTexts; ++i) {
        print(achText, sizeof achText, Random(i));
        texts.emplace_back(achText);
    }
    return texts;
}

template <typename Read>
auto Reads(const std::vector<std::string> &texts, Read read)
{
    return [&texts, read](benchmark::State &state) {
        size_t i = 0;
        for (auto _ : state)
            benchmark::DoNotOptimize(read(texts[i++ % kTexts]));
    };
}

template <typename Write>
auto Writes(Write write)
{
    return [write](benchmark::State &state) {
        char achText[64];
        size_t i = 0;
        for (auto _ : state) {
            write(Random(i++ % kTexts), achText, sizeof achText);
            benchmark::DoNotOptimize(achText);
            benchmark::ClobberMemory();
        }
    };
}

void AddNumbers()
{
    static const auto s_unsigned =
        Texts([](char *szBuf, size_t nSize, uint32_t dw) { snprintf(szBuf, nSize, "%u", dw); });
    static const auto s_signed = Texts([](char *szBuf, size_t nSize, uint32_t dw) {
        snprintf(szBuf, nSize, "%d", static_cast<int32_t>(dw));
    });
    bench::Add("conv_u32", "appcore",
               Reads(s_unsigned,
                     [](const std::string &strText) {
                         uint32_t bErr;
                         return AppConvertStrtoU32(strText.c_str(), &bErr) + bErr;
                     }),
               "0.7 of libc");
    bench::Add("conv_s32", "appcore",
               Reads(s_signed,
                     [](const std::string &strText) {
                         uint32_t bErr;
                         return AppConvertStrtoS32(strText.c_str(), &bErr) +
                                static_cast<int32_t>(bErr);
                     }),
               "0.7 of libc");
    const auto charconv = [](auto zero) {
        return [zero](const std::string &strText) {
            auto value = zero;
            std::from_chars(strText.data(), strText.data() + strText.size(), value);
            return value;
        };
    };
    bench::Add("conv_u32", "charconv", Reads(s_unsigned, charconv(uint32_t{0})));
    bench::Add("conv_s32", "charconv", Reads(s_signed, charconv(int32_t{0})));
    bench::Add("conv_u32", "libc", Reads(s_unsigned, [](const std::string &strText) {
                   errno = 0;
                   return strtoul(strText.c_str(), nullptr, 10) + static_cast<unsigned>(errno);
               }));
    bench::Add("conv_s32", "libc", Reads(s_signed, [](const std::string &strText) {
                   errno = 0;
                   return strtol(strText.c_str(), nullptr, 10) + errno;
               }));
    bench::Add("conv_u32", "glib", Reads(s_unsigned, [](const std::string &strText) {
                   return g_ascii_strtoull(strText.c_str(), nullptr, 10);
               }));
    bench::Add("conv_s32", "glib", Reads(s_signed, [](const std::string &strText) {
                   return g_ascii_strtoll(strText.c_str(), nullptr, 10);
               }));
}

void AddAddresses()
{
    static const auto s_addresses = Texts([](char *szBuf, size_t nSize, uint32_t dw) {
        snprintf(szBuf, nSize, "%u.%u.%u.%u", dw >> 24, dw >> 16 & 255, dw >> 8 & 255, dw & 255);
    });
    bench::Add("conv_to_addr", "appcore",
               Reads(s_addresses,
                     [](const std::string &strText) {
                         TAppNetAddr tAddr;
                         AppConvertStrtoNet(strText.c_str(), &tAddr);
                         return tAddr.dwIpv4;
                     }),
               "0.8");
    bench::Add("conv_to_addr", "libc", Reads(s_addresses, [](const std::string &strText) {
                   in_addr tAddr;
                   inet_pton(AF_INET, strText.c_str(), &tAddr);
                   return tAddr.s_addr;
               }));
    bench::Add("conv_to_addr", "glib", Reads(s_addresses, [](const std::string &strText) {
                   GInetAddress *ptAddr = g_inet_address_new_from_string(strText.c_str());
                   g_object_unref(ptAddr);
                   return ptAddr;
               }));
    bench::Add("conv_from_addr", "appcore", Writes([](uint32_t dw, char *szBuf, size_t nSize) {
                   TAppNetAddr tAddr{};
                   tAddr.dwIpv4 = dw;
                   AppConvertNettoStr(&tAddr, szBuf, static_cast<uint32_t>(nSize));
               }),
               "0.15");
    bench::Add("conv_from_addr", "libc", Writes([](uint32_t dw, char *szBuf, size_t nSize) {
                   const in_addr tAddr{dw};
                   inet_ntop(AF_INET, &tAddr, szBuf, static_cast<socklen_t>(nSize));
               }));
}

void PrintTime(char *szBuf, size_t nSize, uint32_t dwTime, uint32_t dwMs)
{
    const time_t tTime = static_cast<int32_t>(dwTime & INT32_MAX);
    tm tBroken;
    gmtime_r(&tTime, &tBroken);
    const size_t nLength = strftime(szBuf, nSize, "%Y-%m-%dT%H:%M:%S", &tBroken);
    snprintf(szBuf + nLength, nSize - nLength, ".%03u+01:00", dwMs);
}

void AddTimes()
{
    static const auto s_times = Texts(
        [](char *szBuf, size_t nSize, uint32_t dw) { PrintTime(szBuf, nSize, dw, dw % 1000); });
    bench::Add("conv_read_time", "appcore",
               Reads(s_times,
                     [](const std::string &strText) {
                         uint32_t dwTime, bHasZone, dwMs;
                         int32_t nZoneMin;
                         AppConvertXsdDatetime2U32(strText.c_str(), &dwTime, &bHasZone, &dwMs,
                                                   &nZoneMin);
                         return dwTime + dwMs;
                     }),
               "0.3");
    bench::Add("conv_read_time", "libc", Reads(s_times, [](const std::string &strText) {
                   tm tBroken{};
                   char *szRest = strptime(strText.c_str(), "%Y-%m-%dT%H:%M:%S", &tBroken);
                   const unsigned long qwMs = strtoul(szRest + 1, &szRest, 10);
                   const long nHours = strtol(szRest, &szRest, 10);
                   const long nMinutes = strtol(szRest + 1, nullptr, 10);
                   return timegm(&tBroken) + static_cast<long>(qwMs) + nHours + nMinutes;
               }));
    bench::Add("conv_read_time", "sscanf", Reads(s_times, [](const std::string &strText) {
                   tm tBroken{};
                   int nMs = 0, nHours = 0, nMinutes = 0;
                   sscanf(strText.c_str(), "%d-%d-%dT%d:%d:%d.%d%d:%d", &tBroken.tm_year,
                          &tBroken.tm_mon, &tBroken.tm_mday, &tBroken.tm_hour, &tBroken.tm_min,
                          &tBroken.tm_sec, &nMs, &nHours, &nMinutes);
                   tBroken.tm_year -= 1900;
                   tBroken.tm_mon -= 1;
                   return timegm(&tBroken) + nMs + nHours + nMinutes;
               }));
    bench::Add("conv_read_time", "glib", Reads(s_times, [](const std::string &strText) {
                   GDateTime *ptTime = g_date_time_new_from_iso8601(strText.c_str(), nullptr);
                   const gint64 nTime = g_date_time_to_unix(ptTime);
                   g_date_time_unref(ptTime);
                   return nTime;
               }));
    bench::Add("conv_write_time", "appcore", Writes([](uint32_t dw, char *szBuf, size_t nSize) {
                   uint32_t dwMs = dw % 1000;
                   int32_t nZoneMin = 60;
                   AppConvertU322XsdDatetime(dw & INT32_MAX, 1, &dwMs, &nZoneMin, szBuf,
                                             static_cast<uint32_t>(nSize));
               }),
               "0.3");
    bench::Add("conv_write_time", "libc", Writes([](uint32_t dw, char *szBuf, size_t nSize) {
                   PrintTime(szBuf, nSize, dw, dw % 1000);
               }));
}

} // namespace

void bench::RegisterRows()
{
    AddNumbers();
    AddAddresses();
    AddTimes();
}
