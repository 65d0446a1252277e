// SPDX-License-Identifier: MIT
#include <glib.h>

#include <string_view>
#include <unordered_map>
#include <vector>

#include "appcore/share_action.h"
#include "bench.h"

namespace
{

constexpr int kKeys = 1000;

uint32_t Sum(uint32_t dwArg1, uint32_t dwArg2, uint32_t dwArg3)
{
    return dwArg1 + dwArg2 + dwArg3;
}

using Action = uint32_t (*)(uint32_t, uint32_t, uint32_t);

std::string Key(int i)
{
    return "module" + std::to_string(i) + ".GetStatus";
}

// Keys in an order that no cache line and no branch foresees.
std::vector<std::string> Script(int nKeys)
{
    std::vector<std::string> keys;
    uint32_t dwRandom = 99;
    for (int i = 0; i < 1024; ++i) {
        dwRandom = dwRandom * 1664525 + 1013904223;
        keys.push_back(Key(static_cast<int>((dwRandom >> 8) % static_cast<uint32_t>(nKeys))));
    }
    return keys;
}

// The registry belongs to the process and only grows: it holds the most keys from the start, and
// the smaller rows run those that were registered first.
struct AppcoreRegistry {
    explicit AppcoreRegistry(int)
    {
        for (int i = 0; i < kKeys; ++i)
            bench::Require(AppRegisterShareAction(Key(i).c_str(), Sum) == APP_OK);
    }
    uint32_t Run(const char *szKey)
    {
        uint32_t dwResult = 0;
        AppRunShareAction(szKey, 1, 2, 3, &dwResult);
        return dwResult;
    }
};

struct StdMap {
    explicit StdMap(int nKeys)
    {
        for (int i = 0; i < nKeys; ++i)
            keys.push_back(Key(i));
        for (const std::string &strKey : keys)
            actions.emplace(strKey, Sum);
    }
    uint32_t Run(const char *szKey)
    {
        std::lock_guard<std::recursive_mutex> guard(mutex);
        const auto entry = actions.find(szKey);
        return entry == actions.end() ? 0 : entry->second(1, 2, 3);
    }
    std::vector<std::string> keys;
    std::unordered_map<std::string_view, Action> actions;
    std::recursive_mutex mutex;
};

struct GlibTable {
    explicit GlibTable(int nKeys)
        : ptTable(g_hash_table_new_full(g_str_hash, g_str_equal, g_free, nullptr))
    {
        g_rec_mutex_init(&tMutex);
        for (int i = 0; i < nKeys; ++i)
            g_hash_table_insert(ptTable, g_strdup(Key(i).c_str()), reinterpret_cast<void *>(Sum));
    }
    ~GlibTable()
    {
        g_hash_table_unref(ptTable);
        g_rec_mutex_clear(&tMutex);
    }
    uint32_t Run(const char *szKey)
    {
        g_rec_mutex_lock(&tMutex);
        const auto pfnAction = reinterpret_cast<Action>(g_hash_table_lookup(ptTable, szKey));
        const uint32_t dwResult = pfnAction ? pfnAction(1, 2, 3) : 0;
        g_rec_mutex_unlock(&tMutex);
        return dwResult;
    }
    GHashTable *ptTable;
    GRecMutex tMutex;
};

struct NaiveList {
    explicit NaiveList(int nKeys)
    {
        for (int i = 0; i < nKeys; ++i)
            actions.emplace_back(Key(i), Sum);
    }
    uint32_t Run(const char *szKey)
    {
        std::lock_guard<std::recursive_mutex> guard(mutex);
        for (const auto &[strKey, pfnAction] : actions)
            if (strKey == szKey)
                return pfnAction(1, 2, 3);
        return 0;
    }
    std::vector<std::pair<std::string, Action>> actions;
    std::recursive_mutex mutex;
};

template <typename Registry>
void RunActions(benchmark::State &state, int nKeys)
{
    Registry registry(nKeys);
    const std::vector<std::string> keys = Script(nKeys);
    size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(registry.Run(keys[i++ % keys.size()].c_str()));
}

} // namespace

void bench::RegisterRows()
{
    for (int nKeys : {10, 100, 1000}) {
        const std::string strRow = "action_run keys:" + std::to_string(nKeys);
        Add(
            strRow, "appcore",
            [=](benchmark::State &state) { RunActions<AppcoreRegistry>(state, nKeys); },
            nKeys == 1000 ? "1.2" : "1.5");
        Add(strRow, "unordered_map_view",
            [=](benchmark::State &state) { RunActions<StdMap>(state, nKeys); });
        Add(strRow, "glib", [=](benchmark::State &state) { RunActions<GlibTable>(state, nKeys); });
        Add(strRow, "naive", [=](benchmark::State &state) { RunActions<NaiveList>(state, nKeys); });
    }
}
