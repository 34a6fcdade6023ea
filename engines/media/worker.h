// Serial task thread of one peer connection.
#ifndef ZARNRTC_MEDIA_WORKER_H
#define ZARNRTC_MEDIA_WORKER_H

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

namespace libwebrtc {
namespace media {

class Worker {
  public:
    Worker();
    ~Worker();  // stops; joins unless called on the worker itself
    void Post(std::function<void()> task);
    void PostDelayed(int delay_ms, std::function<void()> task);
    // Drops pending tasks and ends the thread after the running task.
    void Stop();
    bool OnWorkerThread() const { return std::this_thread::get_id() == thread_.get_id(); }

  private:
    using Clock = std::chrono::steady_clock;
    struct State {
        std::mutex mutex;
        std::condition_variable cv;
        std::deque<std::function<void()>> tasks;
        std::multimap<Clock::time_point, std::function<void()>> timers;
        bool stop = false;
    };
    static void Run(std::shared_ptr<State> state);
    std::shared_ptr<State> state_;
    std::thread thread_;
};

}  // namespace media
}  // namespace libwebrtc

#endif
