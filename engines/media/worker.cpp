// Serial task thread of one peer connection ("zrtc-pc").
#include "worker.h"

#include <pthread.h>

namespace libwebrtc {
namespace media {

Worker::Worker() : state_(std::make_shared<State>()) {
    thread_ = std::thread(Run, state_);
}

Worker::~Worker() {
    Stop();
    if (!thread_.joinable()) return;
    // The last reference to a session can drop inside one of its own tasks.
    if (OnWorkerThread())
        thread_.detach();
    else
        thread_.join();
}

void Worker::Post(std::function<void()> task) {
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        if (state_->stop) return;
        state_->tasks.push_back(std::move(task));
    }
    state_->cv.notify_one();
}

void Worker::PostDelayed(int delay_ms, std::function<void()> task) {
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        if (state_->stop) return;
        state_->timers.emplace(Clock::now() + std::chrono::milliseconds(delay_ms), std::move(task));
    }
    state_->cv.notify_one();
}

void Worker::Stop() {
    std::deque<std::function<void()>> tasks;
    std::multimap<Clock::time_point, std::function<void()>> timers;
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->stop = true;
        tasks.swap(state_->tasks);
        timers.swap(state_->timers);
    }
    state_->cv.notify_all();
    // Dropped tasks are destroyed here, outside the lock: they may hold the
    // last reference to their session.
}

void Worker::Run(std::shared_ptr<State> s) {
    pthread_setname_np(pthread_self(), "zrtc-pc");
    std::unique_lock<std::mutex> lock(s->mutex);
    while (!s->stop) {
        std::function<void()> task;
        if (!s->timers.empty() && s->timers.begin()->first <= Clock::now()) {
            task = std::move(s->timers.begin()->second);
            s->timers.erase(s->timers.begin());
        } else if (!s->tasks.empty()) {
            task = std::move(s->tasks.front());
            s->tasks.pop_front();
        } else if (s->timers.empty()) {
            s->cv.wait(lock);
            continue;
        } else {
            auto due = s->timers.begin()->first;  // the node may go while we wait
            s->cv.wait_until(lock, due);
            continue;
        }
        lock.unlock();
        task();
        task = nullptr;
        lock.lock();
    }
}

}  // namespace media
}  // namespace libwebrtc
