// SPDX-License-Identifier: MIT
#include <apr_general.h>
#include <apr_thread_proc.h>

#include <boost/asio/thread_pool.hpp>

#include "workers.h"

namespace
{

using bench::Arrivals;
using bench::Job;

constexpr int kEvents = 100000; // per round
constexpr int kTrips = 1000;    // per round

// ---- Events ---------------------------------------------------------------------------------

struct CountJob : Job {
    explicit CountJob(int nExpected) : nMissing(nExpected) {}
    void Run() override
    {
        if (--nMissing == 0)
            all.Arrive();
    }
    int nMissing; // touched by the worker only
    Arrivals all{1};
};

template <typename Worker>
void Throughput(benchmark::State &state, int nSenders)
{
    Worker worker;
    for (auto _ : state) {
        CountJob job(kEvents);
        const auto send = [&] {
            for (int i = 0; i < kEvents / nSenders; ++i)
                worker.Post(&job);
        };
        std::vector<std::thread> others;
        for (int i = 1; i < nSenders; ++i)
            others.emplace_back(send);
        send();
        job.all.Wait();
        for (std::thread &thread : others)
            thread.join();
    }
    state.SetItemsProcessed(state.iterations() * kEvents);
}

template <typename Worker>
struct ReturnJob : Job {
    void Run() override
    {
        if (ptAll && --nTrips == 0)
            ptAll->Arrive();
        else
            ptOther->Post(ptBack);
    }
    Worker *ptOther = nullptr;
    Job *ptBack = nullptr;
    Arrivals *ptAll = nullptr; // on the side that counts
    int nTrips = 0;
};

template <typename Worker>
void RoundTrip(benchmark::State &state)
{
    Worker home;
    Worker away;
    for (auto _ : state) {
        Arrivals all(1);
        ReturnJob<Worker> there, back;
        there.ptOther = &home;
        there.ptBack = &back;
        back.ptOther = &away;
        back.ptBack = &there;
        back.ptAll = &all;
        back.nTrips = kTrips;
        away.Post(&there);
        all.Wait();
    }
    state.SetItemsProcessed(state.iterations() * kTrips);
}

// ---- Starting and ending workers --------------------------------------------------------------

uint32_t RunThenTerminate(HAppTask hTask, uint32_t dwEventType, void *, void *pvEnded)
{
    if (dwEventType == APP_TASK_EVENT_USER)
        AppTaskTerminate(hTask);
    else if (dwEventType == APP_TASK_EVENT_STOP)
        static_cast<Arrivals *>(pvEnded)->Arrive();
    return 0;
}

void TaskReused(benchmark::State &state)
{
    HAppTaskMgr hTaskMgr;
    bench::Require(AppTaskMgrCreate(nullptr, 64, 0, &hTaskMgr) == APP_OK);
    for (auto _ : state) {
        Arrivals ended(1);
        HAppTask hTask;
        bench::Require(AppTaskMgrNewTask(hTaskMgr, "bench", 0, 65536, 0, 0, RunThenTerminate,
                                         &ended, &hTask) == APP_OK);
        AppTaskSendEvent(hTask, nullptr, nullptr, nullptr);
        ended.Wait();
    }
    AppTaskMgrDestroy(hTaskMgr);
}

uint32_t RunOnce(HAppTask, uint32_t dwEventType, void *, void *pvRun)
{
    if (dwEventType == APP_TASK_EVENT_USER)
        static_cast<Arrivals *>(pvRun)->Arrive();
    return 0;
}

// A thread of its own ends with its manager, so the manager is part of the figure.
void TaskNew(benchmark::State &state)
{
    for (auto _ : state) {
        Arrivals run(1);
        HAppTaskMgr hTaskMgr;
        HAppTask hTask;
        bench::Require(AppTaskMgrCreate(nullptr, 1, 0, &hTaskMgr) == APP_OK);
        bench::Require(
            AppTaskMgrNewTask(hTaskMgr, "bench", 0, 65536, 0, 0, RunOnce, &run, &hTask) == APP_OK);
        AppTaskSendEvent(hTask, nullptr, nullptr, nullptr);
        run.Wait();
        AppTaskMgrDestroy(hTaskMgr);
    }
}

void AsioPool(benchmark::State &state)
{
    boost::asio::thread_pool pool(1);
    for (auto _ : state) {
        Arrivals ended(1);
        boost::asio::post(pool, [&] { ended.Arrive(); });
        ended.Wait();
    }
    pool.join();
}

void GlibPool(benchmark::State &state)
{
    bench::GlibPoolWorker pool;
    for (auto _ : state) {
        CountJob job(1);
        pool.Post(&job);
        job.all.Wait();
    }
}

void StdThread(benchmark::State &state)
{
    for (auto _ : state) {
        Arrivals run(1);
        std::thread thread([&] { run.Arrive(); });
        thread.join();
    }
}

gpointer RunGlibThread(gpointer pvRun)
{
    static_cast<Arrivals *>(pvRun)->Arrive();
    return nullptr;
}

void GlibThread(benchmark::State &state)
{
    for (auto _ : state) {
        Arrivals run(1);
        g_thread_join(g_thread_new("bench", RunGlibThread, &run));
    }
}

void *RunAprThread(apr_thread_t *, void *pvRun)
{
    static_cast<Arrivals *>(pvRun)->Arrive();
    return nullptr;
}

void AprThread(benchmark::State &state)
{
    apr_pool_t *ptPool;
    bench::Require(apr_pool_create(&ptPool, nullptr) == APR_SUCCESS);
    for (auto _ : state) {
        Arrivals run(1);
        apr_thread_t *ptThread;
        bench::Require(apr_thread_create(&ptThread, nullptr, RunAprThread, &run, ptPool) ==
                       APR_SUCCESS);
        apr_status_t nStatus;
        apr_thread_join(&nStatus, ptThread);
        apr_pool_clear(ptPool);
    }
    apr_pool_destroy(ptPool);
}

template <typename Worker>
void AddWorker(const std::string &strName, bool bOurs = false)
{
    for (int nSenders : {1, 4}) {
        const std::string strRow = "event_throughput senders:" + std::to_string(nSenders);
        const auto run = [=](benchmark::State &state) { Throughput<Worker>(state, nSenders); };
        bench::Add(strRow, strName, run, bOurs ? "1.0/0.5 of asio" : "");
    }
    bench::Add("event_roundtrip", strName, RoundTrip<Worker>, bOurs ? "1.15" : "");
}

} // namespace

void bench::RegisterRows()
{
    Require(apr_initialize() == APR_SUCCESS);
    AddWorker<AppcoreWorker>("appcore", true);
    AddWorker<GlibPoolWorker>("glib_thread_pool");
    AddWorker<GlibContextWorker>("glib_main_context");
    AddWorker<UvWorker>("libuv");
    AddWorker<AsioWorker>("asio");
    AddWorker<NaiveWorker>("naive");

    Add("task_reused", "appcore", TaskReused, "1.5");
    Add("task_reused", "asio_pool", AsioPool);
    Add("task_reused", "glib_pool", GlibPool);
    Add("task_new", "appcore", TaskNew, "1.5");
    Add("task_new", "std_thread", StdThread);
    Add("task_new", "glib_thread", GlibThread);
    Add("task_new", "apr_thread", AprThread);
}
