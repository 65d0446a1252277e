// SPDX-License-Identifier: MIT
#include <apr_general.h>
#include <apr_queue.h>
#include <blockingconcurrentqueue.h>
#include <glib.h>

#include <memory>
#include <queue>
#include <thread>
#include <vector>

#include "appcore/containers.h"
#include "bench.h"

namespace
{

constexpr int kStream = 50000; // elements per producer and round

struct Element {
    int32_t nPriority;
};

struct AppcoreQueue {
    AppcoreQueue() { bench::Require(AppQueueCreate(nullptr, 1u << 20, 1, &hQueue) == APP_OK); }
    ~AppcoreQueue() { AppQueueDestroy(hQueue, nullptr, nullptr); }
    void Push(void *pvData) { AppQueueIn(hQueue, pvData, 0); }
    void PushSorted(Element *ptElement) { AppQueueIn(hQueue, ptElement, ptElement->nPriority); }
    void *Pop()
    {
        void *pvData = nullptr;
        AppQueueOut(hQueue, 0, &pvData);
        return pvData;
    }
    HAppQueue hQueue = nullptr;
};

struct GlibQueue {
    GlibQueue() : ptQueue(g_async_queue_new()) {}
    ~GlibQueue() { g_async_queue_unref(ptQueue); }
    void Push(void *pvData) { g_async_queue_push(ptQueue, pvData); }
    void PushSorted(Element *ptElement)
    {
        g_async_queue_push_sorted(ptQueue, ptElement, Compare, nullptr);
    }
    void *Pop() { return g_async_queue_pop(ptQueue); }
    static gint Compare(gconstpointer pvFirst, gconstpointer pvSecond, gpointer)
    {
        const int32_t nFirst = static_cast<const Element *>(pvFirst)->nPriority;
        const int32_t nSecond = static_cast<const Element *>(pvSecond)->nPriority;
        return nFirst > nSecond ? -1 : nFirst < nSecond;
    }
    GAsyncQueue *ptQueue;
};

struct AprQueue {
    AprQueue()
    {
        bench::Require(apr_pool_create(&ptPool, nullptr) == APR_SUCCESS &&
                       apr_queue_create(&ptQueue, 1u << 17, ptPool) == APR_SUCCESS);
    }
    ~AprQueue() { apr_pool_destroy(ptPool); }
    void Push(void *pvData) { apr_queue_push(ptQueue, pvData); }
    void *Pop()
    {
        void *pvData = nullptr;
        apr_queue_pop(ptQueue, &pvData);
        return pvData;
    }
    apr_pool_t *ptPool = nullptr;
    apr_queue_t *ptQueue = nullptr;
};

struct Moodycamel {
    void Push(void *pvData) { queue.enqueue(pvData); }
    void *Pop()
    {
        void *pvData = nullptr;
        queue.wait_dequeue(pvData);
        return pvData;
    }
    moodycamel::BlockingConcurrentQueue<void *> queue;
};

// A standard container behind a mutex and a condition variable.
template <typename Container>
struct NaiveQueue {
    void Push(void *pvData) { PushSorted(static_cast<Element *>(pvData)); }
    void PushSorted(Element *ptElement)
    {
        {
            std::lock_guard<std::mutex> guard(mutex);
            elements.push(ptElement);
        }
        filled.notify_one();
    }
    void *Pop()
    {
        std::unique_lock<std::mutex> guard(mutex);
        filled.wait(guard, [&] { return !elements.empty(); });
        Element *ptElement = First(elements);
        elements.pop();
        return ptElement;
    }
    template <typename Sorted>
    static Element *First(const Sorted &sorted)
    {
        return sorted.top();
    }
    static Element *First(const std::queue<Element *> &plain) { return plain.front(); }
    std::mutex mutex;
    std::condition_variable filled;
    Container elements;
};

struct LessUrgent {
    bool operator()(const Element *ptFirst, const Element *ptSecond) const
    {
        return ptFirst->nPriority < ptSecond->nPriority;
    }
};

using NaivePlain = NaiveQueue<std::queue<Element *>>;
// Elements of one priority in any order, which the others keep.
using NaiveSorted = NaiveQueue<std::priority_queue<Element *, std::vector<Element *>, LessUrgent>>;

template <typename Queue>
void PushPop(benchmark::State &state)
{
    Queue queue;
    Element element{0};
    for (auto _ : state) {
        queue.Push(&element);
        benchmark::DoNotOptimize(queue.Pop());
    }
}

// As many consumers as producers; each consumer takes its share.
template <typename Queue>
void Stream(benchmark::State &state, int nPairs)
{
    Queue queue;
    Element element{0};
    for (auto _ : state) {
        std::vector<std::thread> threads;
        for (int i = 0; i < nPairs; ++i) {
            threads.emplace_back([&] {
                for (int n = 0; n < kStream; ++n)
                    queue.Push(&element);
            });
            threads.emplace_back([&] {
                for (int n = 0; n < kStream; ++n)
                    benchmark::DoNotOptimize(queue.Pop());
            });
        }
        for (std::thread &thread : threads)
            thread.join();
    }
    state.SetItemsProcessed(state.iterations() * nPairs * kStream);
}

// A backlog of mixed priorities builds up and is worked off.
template <typename Queue>
void Backlog(benchmark::State &state, int nDepth, int nLevels)
{
    Queue queue;
    std::vector<Element> elements(static_cast<size_t>(nDepth));
    uint32_t dwRandom = 12345;
    for (Element &element : elements) {
        dwRandom = dwRandom * 1664525 + 1013904223;
        element.nPriority = static_cast<int32_t>((dwRandom >> 8) % static_cast<uint32_t>(nLevels));
    }
    for (auto _ : state) {
        for (Element &element : elements)
            queue.PushSorted(&element);
        for (int i = 0; i < nDepth; ++i)
            benchmark::DoNotOptimize(queue.Pop());
    }
    state.SetItemsProcessed(state.iterations() * nDepth);
}

template <typename Queue>
void AddQueue(const std::string &strName, bool bOurs = false)
{
    bench::Add("queue_push_pop", strName, PushPop<Queue>, bOurs ? "1.5" : "");
    for (int nPairs : {1, 2}) {
        const std::string strRow = "queue_stream pairs:" + std::to_string(nPairs);
        const auto run = [nPairs](benchmark::State &state) { Stream<Queue>(state, nPairs); };
        bench::Add(strRow, strName, run, bOurs ? "1.2/1.0" : "");
    }
}

template <typename Queue>
void AddBacklog(const std::string &strName, bool bOurs = false)
{
    for (int nLevels : {3, 1000})
        for (int nDepth : {10, 1000})
            bench::Add(
                "queue_backlog depth:" + std::to_string(nDepth) +
                    " levels:" + std::to_string(nLevels),
                strName, [=](benchmark::State &state) { Backlog<Queue>(state, nDepth, nLevels); },
                bOurs && nDepth == 1000 && nLevels == 1000 ? "0.2" : "");
}

} // namespace

void bench::RegisterRows()
{
    Require(apr_initialize() == APR_SUCCESS);
    AddQueue<AppcoreQueue>("appcore", true);
    AddQueue<GlibQueue>("glib");
    AddQueue<AprQueue>("apr");
    AddQueue<Moodycamel>("moodycamel");
    AddBacklog<AppcoreQueue>("appcore", true);
    AddBacklog<GlibQueue>("glib");
    AddQueue<NaivePlain>("naive");
    AddBacklog<NaiveSorted>("naive");
}
