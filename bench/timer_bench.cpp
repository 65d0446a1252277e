// SPDX-License-Identifier: MIT
#include <algorithm>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <deque>
#include <map>

#include "workers.h"

namespace
{

constexpr int kHour = 3600000; // milliseconds: never due while a row runs
constexpr int kDue = 1000;

// Spread, so that a sorted structure has to find a new timer's place.
uint32_t FarTimeout(int i)
{
    return kHour + static_cast<uint32_t>(i) * 7919 % 10007;
}

using Clock = std::chrono::steady_clock;

// Each make: Fill() sets timers that stay, SetCancel() sets one and cancels it, and Expire() sets
// kDue timers that are due at once and returns the seconds that their expiry took.

uint32_t IgnoreTimer(HAppTask, uint32_t, void *, void *)
{
    return 0;
}

struct AppcoreTimers {
    void Fill(int nRunning)
    {
        for (int i = 0; i < nRunning; ++i)
            bench::Require(AppTaskSetTimer(worker.Task(), FarTimeout(i), IgnoreTimer, nullptr));
    }
    void SetCancel(int i)
    {
        AppTaskCancelTimer(AppTaskSetTimer(worker.Task(), FarTimeout(i), IgnoreTimer, nullptr));
    }

    // Set by an event's handler: the task runs its timers as soon as that returns.
    struct SetDue : bench::Job {
        void Run() override
        {
            nMissing = kDue;
            for (int i = 0; i < kDue; ++i)
                bench::Require(AppTaskSetTimer(hTask, 0, Count, this));
            start = Clock::now();
        }
        static uint32_t Count(HAppTask, uint32_t, void *, void *pvSelf)
        {
            const auto self = static_cast<SetDue *>(pvSelf);
            if (--self->nMissing == 0) {
                self->end = Clock::now();
                self->all.Arrive();
            }
            return 0;
        }
        HAppTask hTask = nullptr;
        int nMissing = 0;
        Clock::time_point start, end;
        bench::Arrivals all{1};
    };
    double Expire()
    {
        SetDue job;
        job.hTask = worker.Task();
        worker.Post(&job);
        job.all.Wait();
        return std::chrono::duration<double>(job.end - job.start).count();
    }
    bench::AppcoreWorker worker;
};

struct UvTimers {
    UvTimers()
    {
        uv_loop_init(&tLoop);
        uv_timer_init(&tLoop, &tOne);
        for (uv_timer_t &tTimer : due) {
            uv_timer_init(&tLoop, &tTimer);
            tTimer.data = this;
        }
    }
    ~UvTimers()
    {
        uv_walk(
            &tLoop, [](uv_handle_t *ptHandle, void *) { uv_close(ptHandle, nullptr); }, nullptr);
        uv_run(&tLoop, UV_RUN_DEFAULT);
        uv_loop_close(&tLoop);
    }
    static void Ignore(uv_timer_t *) {}
    static void Count(uv_timer_t *ptTimer) { --static_cast<UvTimers *>(ptTimer->data)->nMissing; }
    void Fill(int nRunning)
    {
        running.resize(static_cast<size_t>(nRunning));
        for (int i = 0; i < nRunning; ++i) {
            uv_timer_t &tTimer = running[static_cast<size_t>(i)];
            uv_timer_init(&tLoop, &tTimer);
            uv_timer_start(&tTimer, Ignore, FarTimeout(i), 0);
        }
    }
    void SetCancel(int i)
    {
        uv_timer_start(&tOne, Ignore, FarTimeout(i), 0);
        uv_timer_stop(&tOne);
    }
    double Expire()
    {
        nMissing = kDue;
        for (uv_timer_t &tTimer : due)
            uv_timer_start(&tTimer, Count, 0, 0);
        const auto start = Clock::now();
        uv_run(&tLoop, UV_RUN_NOWAIT);
        bench::Require(nMissing == 0);
        return std::chrono::duration<double>(Clock::now() - start).count();
    }
    uv_loop_t tLoop;
    uv_timer_t tOne;
    std::deque<uv_timer_t> running;
    std::vector<uv_timer_t> due{kDue};
    int nMissing = 0;
};

struct AsioTimers {
    void Fill(int nRunning)
    {
        for (int i = 0; i < nRunning; ++i) {
            running.emplace_back(context, std::chrono::milliseconds(FarTimeout(i)));
            running.back().async_wait([](const boost::system::error_code &) {});
        }
    }
    void SetCancel(int i)
    {
        one.expires_after(std::chrono::milliseconds(FarTimeout(i)));
        one.async_wait([](const boost::system::error_code &) {});
        one.cancel();
        context.poll();
    }
    double Expire()
    {
        int nMissing = kDue;
        while (due.size() < kDue)
            due.emplace_back(context);
        for (boost::asio::steady_timer &timer : due) {
            timer.expires_after(std::chrono::milliseconds(0));
            timer.async_wait([&](const boost::system::error_code &) { --nMissing; });
        }
        const auto start = Clock::now();
        while (nMissing > 0)
            context.poll();
        return std::chrono::duration<double>(Clock::now() - start).count();
    }
    boost::asio::io_context context{1};
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work{
        context.get_executor()};
    boost::asio::steady_timer one{context};
    std::deque<boost::asio::steady_timer> running;
    std::deque<boost::asio::steady_timer> due;
};

struct GlibTimers {
    GlibTimers() : ptContext(g_main_context_new()) {}
    ~GlibTimers() { g_main_context_unref(ptContext); }
    static gboolean Ignore(gpointer) { return G_SOURCE_REMOVE; }
    static gboolean Count(gpointer pvMissing)
    {
        --*static_cast<int *>(pvMissing);
        return G_SOURCE_REMOVE;
    }
    GSource *Set(guint dwTimeout, GSourceFunc pfnCall, gpointer pvData)
    {
        GSource *ptSource = g_timeout_source_new(dwTimeout);
        g_source_set_callback(ptSource, pfnCall, pvData, nullptr);
        g_source_attach(ptSource, ptContext);
        g_source_unref(ptSource);
        return ptSource;
    }
    void Fill(int nRunning)
    {
        for (int i = 0; i < nRunning; ++i)
            Set(FarTimeout(i), Ignore, nullptr);
    }
    void SetCancel(int i) { g_source_destroy(Set(FarTimeout(i), Ignore, nullptr)); }
    double Expire()
    {
        int nMissing = kDue;
        for (int i = 0; i < kDue; ++i)
            Set(0, Count, &nMissing);
        const auto start = Clock::now();
        while (nMissing > 0)
            g_main_context_iteration(ptContext, FALSE);
        return std::chrono::duration<double>(Clock::now() - start).count();
    }
    GMainContext *ptContext;
};

// A sorted tree behind a mutex.
struct NaiveTimers {
    using Timer = std::pair<void (*)(void *), void *>;
    using Tree = std::multimap<Clock::time_point, Timer>;
    Tree::iterator Set(uint32_t dwTimeout, void (*pfnCall)(void *), void *pvContext)
    {
        const auto due = Clock::now() + std::chrono::milliseconds(dwTimeout);
        std::lock_guard<std::mutex> guard(mutex);
        return tree.emplace(due, Timer{pfnCall, pvContext});
    }
    static void Ignore(void *) {}
    static void Count(void *pvMissing) { --*static_cast<int *>(pvMissing); }
    void Fill(int nRunning)
    {
        for (int i = 0; i < nRunning; ++i)
            Set(FarTimeout(i), Ignore, nullptr);
    }
    void SetCancel(int i)
    {
        const auto timer = Set(FarTimeout(i), Ignore, nullptr);
        std::lock_guard<std::mutex> guard(mutex);
        tree.erase(timer);
    }
    double Expire()
    {
        int nMissing = kDue;
        for (int i = 0; i < kDue; ++i)
            Set(0, Count, &nMissing);
        const auto start = Clock::now();
        std::unique_lock<std::mutex> guard(mutex);
        while (!tree.empty() && tree.begin()->first <= start) {
            const Timer timer = tree.extract(tree.begin()).mapped();
            guard.unlock();
            timer.first(timer.second);
            guard.lock();
        }
        bench::Require(nMissing == 0);
        return std::chrono::duration<double>(Clock::now() - start).count();
    }
    std::mutex mutex;
    Tree tree;
};

template <typename Timers>
void SetCancel(benchmark::State &state, int nRunning)
{
    Timers timers;
    timers.Fill(nRunning);
    int i = 0;
    for (auto _ : state)
        timers.SetCancel(i++ & 0xFFFF);
}

template <typename Timers>
void Expire(benchmark::State &state, int nRunning)
{
    Timers timers;
    timers.Fill(nRunning);
    for (auto _ : state)
        state.SetIterationTime(timers.Expire());
    state.SetItemsProcessed(state.iterations() * kDue);
}

template <typename Timers>
void AddTimers(const std::string &strName, bool bOurs = false)
{
    for (int nRunning : {10, 100, 1000, 10000})
        bench::Add(
            "timer_set_cancel running:" + std::to_string(nRunning), strName,
            [=](benchmark::State &state) { SetCancel<Timers>(state, nRunning); },
            !bOurs || nRunning < 100 ? ""
            : nRunning == 100        ? "1.0"
            : nRunning == 1000       ? "0.9"
                                     : "0.5");
    for (int nRunning : {0, 10000})
        bench::AddManual(
            "timer_expire_1000 running:" + std::to_string(nRunning), strName,
            [=](benchmark::State &state) { Expire<Timers>(state, nRunning); },
            bOurs && nRunning > 0 ? "0.3" : "")
            ->UseManualTime();
}

// ---- Lateness ---------------------------------------------------------------------------------

// Timers set by another thread while their task sleeps: how much later than asked they expire.
constexpr int kTasks = 50; // each has one timer at a time
constexpr int kRounds = 20;
constexpr auto kLimit = std::chrono::seconds(4); // no further round: late timers would take minutes

struct LateTimer {
    static uint32_t Expire(HAppTask, uint32_t, void *, void *pvSelf)
    {
        const auto self = static_cast<LateTimer *>(pvSelf);
        self->late = std::chrono::duration<double>(Clock::now() - self->due).count();
        self->ptAll->Arrive();
        return 0;
    }
    Clock::time_point due;
    double late;
    bench::Arrivals *ptAll;
};

// Sorted, in seconds.
std::vector<double> MeasureLateness()
{
    std::vector<double> all;
    std::vector<LateTimer> timers(kTasks);
    std::vector<HAppTask> tasks(kTasks);
    HAppTaskMgr hTaskMgr;
    bench::Require(AppTaskMgrCreate(nullptr, kTasks, 0, &hTaskMgr) == APP_OK);
    for (HAppTask &hTask : tasks)
        bench::Require(AppTaskMgrNewTask(hTaskMgr, "late", 0, 65536, 0, 0, IgnoreTimer, nullptr,
                                         &hTask) == APP_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(400)); // past the tasks' first wake-up
    const auto start = Clock::now();
    for (int nRound = 0; nRound < kRounds && Clock::now() - start < kLimit; ++nRound) {
        bench::Arrivals arrivals(kTasks);
        for (size_t i = 0; i < timers.size(); ++i) {
            const uint32_t dwTimeout = 50 + static_cast<uint32_t>(i) * 37 % 100;
            timers[i].due = Clock::now() + std::chrono::milliseconds(dwTimeout);
            timers[i].ptAll = &arrivals;
            bench::Require(AppTaskSetTimer(tasks[i], dwTimeout, LateTimer::Expire, &timers[i]));
        }
        arrivals.Wait();
        for (const LateTimer &timer : timers)
            all.push_back(timer.late);
    }
    AppTaskMgrDestroy(hTaskMgr);
    std::sort(all.begin(), all.end());
    return all;
}

// One measurement for all its rows.
void AddLateness(const std::string &strName, double part, const std::string &strAim)
{
    const auto run = [part](benchmark::State &state) {
        static const std::vector<double> s_late = MeasureLateness();
        for (auto _ : state)
            state.SetIterationTime(s_late[static_cast<size_t>(part * (s_late.size() - 1))]);
    };
    bench::AddManual("timer_lateness " + strName, "appcore", run, strAim)
        ->UseManualTime()
        ->Iterations(1)
        ->Repetitions(1);
}

} // namespace

void bench::RegisterRows()
{
    AddTimers<AppcoreTimers>("appcore", true);
    AddTimers<UvTimers>("libuv");
    AddTimers<AsioTimers>("asio");
    AddTimers<GlibTimers>("glib");
    AddTimers<NaiveTimers>("naive");
    AddLateness("median", 0.5, "12 ms");
    AddLateness("99 %", 0.99, "25 ms");
}
