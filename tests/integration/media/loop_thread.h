// A GLib main context run by a thread of its own, as the engine's ICE thread.
#ifndef ZARNRTC_TESTS_MEDIA_LOOP_THREAD_H
#define ZARNRTC_TESTS_MEDIA_LOOP_THREAD_H

#include <glib.h>

#include <thread>

class LoopThread {
  public:
    LoopThread() : context_(g_main_context_new()), loop_(g_main_loop_new(context_, FALSE)) {
        thread_ = std::thread([this] {
            g_main_context_push_thread_default(context_);
            g_main_loop_run(loop_);
            g_main_context_pop_thread_default(context_);
        });
    }
    ~LoopThread() {
        // A quit before the loop runs would be lost.
        while (!g_main_loop_is_running(loop_)) std::this_thread::yield();
        g_main_loop_quit(loop_);
        thread_.join();
        g_main_loop_unref(loop_);
        g_main_context_unref(context_);
    }
    LoopThread(const LoopThread&) = delete;
    LoopThread& operator=(const LoopThread&) = delete;
    GMainContext* context() const { return context_; }

  private:
    GMainContext* context_;
    GMainLoop* loop_;
    std::thread thread_;
};

#endif
