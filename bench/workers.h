// SPDX-License-Identifier: MIT
//
// Workers of several makes behind one door: Post() runs a job in the worker's thread.
#ifndef APPCORE_BENCH_WORKERS_H
#define APPCORE_BENCH_WORKERS_H

#include <glib.h>
#include <uv.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <deque>
#include <thread>
#include <vector>

#include "appcore/task.h"
#include "bench.h"

namespace bench
{

struct Job {
    virtual ~Job() = default;
    virtual void Run() = 0;
};

class AppcoreWorker
{
public:
    AppcoreWorker()
    {
        Require(AppTaskMgrCreate(nullptr, 4, 0, &m_hTaskMgr) == APP_OK);
        Require(AppTaskMgrNewTask(m_hTaskMgr, "bench", 0, 65536, 0, 0, Serve, nullptr, &m_hTask) ==
                APP_OK);
    }
    ~AppcoreWorker() { AppTaskMgrDestroy(m_hTaskMgr); }
    void Post(Job *ptJob) { AppTaskSendEvent(m_hTask, ptJob, nullptr, nullptr); }
    HAppTask Task() const { return m_hTask; }

private:
    static uint32_t Serve(HAppTask, uint32_t dwEventType, void *pvArg, void *)
    {
        if (dwEventType == APP_TASK_EVENT_USER)
            static_cast<Job *>(pvArg)->Run();
        return 0;
    }
    HAppTaskMgr m_hTaskMgr = nullptr;
    HAppTask m_hTask = nullptr;
};

class GlibPoolWorker
{
public:
    GlibPoolWorker() : m_ptPool(g_thread_pool_new(Serve, nullptr, 1, TRUE, nullptr)) {}
    ~GlibPoolWorker() { g_thread_pool_free(m_ptPool, FALSE, TRUE); }
    void Post(Job *ptJob) { g_thread_pool_push(m_ptPool, ptJob, nullptr); }

private:
    static void Serve(gpointer pvJob, gpointer) { static_cast<Job *>(pvJob)->Run(); }
    GThreadPool *m_ptPool;
};

class GlibContextWorker
{
public:
    GlibContextWorker()
        : m_ptContext(g_main_context_new()), m_ptLoop(g_main_loop_new(m_ptContext, FALSE)),
          m_thread([this] { g_main_loop_run(m_ptLoop); })
    {
    }
    ~GlibContextWorker()
    {
        struct Quit : Job {
            void Run() override { g_main_loop_quit(ptLoop); }
            GMainLoop *ptLoop;
        } quit;
        quit.ptLoop = m_ptLoop;
        Post(&quit);
        m_thread.join();
        g_main_loop_unref(m_ptLoop);
        g_main_context_unref(m_ptContext);
    }
    void Post(Job *ptJob)
    {
        GSource *ptSource = g_idle_source_new();
        g_source_set_priority(ptSource, G_PRIORITY_DEFAULT);
        g_source_set_callback(ptSource, Serve, ptJob, nullptr);
        g_source_attach(ptSource, m_ptContext);
        g_source_unref(ptSource);
    }

private:
    static gboolean Serve(gpointer pvJob)
    {
        static_cast<Job *>(pvJob)->Run();
        return G_SOURCE_REMOVE;
    }
    GMainContext *m_ptContext;
    GMainLoop *m_ptLoop;
    std::thread m_thread;
};

// A loop woken by uv_async, its jobs in a locked vector that is drained at one go.
class UvWorker
{
public:
    UvWorker()
    {
        uv_loop_init(&m_tLoop);
        uv_async_init(&m_tLoop, &m_tWake, Serve);
        m_tWake.data = this;
        m_thread = std::thread([this] { uv_run(&m_tLoop, UV_RUN_DEFAULT); });
    }
    ~UvWorker()
    {
        struct Quit : Job {
            void Run() override { uv_close(reinterpret_cast<uv_handle_t *>(ptWake), nullptr); }
            uv_async_t *ptWake;
        } quit;
        quit.ptWake = &m_tWake;
        Post(&quit);
        m_thread.join();
        uv_loop_close(&m_tLoop);
    }
    void Post(Job *ptJob)
    {
        {
            std::lock_guard<std::mutex> guard(m_mutex);
            m_jobs.push_back(ptJob);
        }
        uv_async_send(&m_tWake);
    }

private:
    static void Serve(uv_async_t *ptWake)
    {
        const auto self = static_cast<UvWorker *>(ptWake->data);
        self->m_batch.clear();
        {
            std::lock_guard<std::mutex> guard(self->m_mutex);
            self->m_batch.swap(self->m_jobs);
        }
        for (Job *ptJob : self->m_batch)
            ptJob->Run();
    }
    uv_loop_t m_tLoop;
    uv_async_t m_tWake;
    std::mutex m_mutex;
    std::vector<Job *> m_jobs;
    std::vector<Job *> m_batch;
    std::thread m_thread;
};

// A queue behind a mutex and a condition variable.
class NaiveWorker
{
public:
    NaiveWorker() : m_thread([this] { Serve(); }) {}
    ~NaiveWorker()
    {
        Post(nullptr);
        m_thread.join();
    }
    void Post(Job *ptJob)
    {
        {
            std::lock_guard<std::mutex> guard(m_mutex);
            m_jobs.push_back(ptJob);
        }
        m_filled.notify_one();
    }

private:
    Job *Take()
    {
        std::unique_lock<std::mutex> guard(m_mutex);
        m_filled.wait(guard, [this] { return !m_jobs.empty(); });
        Job *ptJob = m_jobs.front();
        m_jobs.pop_front();
        return ptJob;
    }
    void Serve()
    {
        while (Job *ptJob = Take())
            ptJob->Run();
    }
    std::mutex m_mutex;
    std::condition_variable m_filled;
    std::deque<Job *> m_jobs;
    std::thread m_thread;
};

class AsioWorker
{
public:
    AsioWorker()
        : m_work(boost::asio::make_work_guard(m_context)), m_thread([this] { m_context.run(); })
    {
    }
    ~AsioWorker()
    {
        m_work.reset();
        m_thread.join();
    }
    void Post(Job *ptJob)
    {
        boost::asio::post(m_context, [ptJob] { ptJob->Run(); });
    }

private:
    boost::asio::io_context m_context;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> m_work;
    std::thread m_thread;
};

} // namespace bench

#endif
