// Events from the engines' threads, handled on the application's main thread: the
// handlers only push, so no SDK operation runs inside an SDK callback.
#ifndef ZARNRTC_EXAMPLES_EVENT_QUEUE_H
#define ZARNRTC_EXAMPLES_EVENT_QUEUE_H

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>

namespace zarnrtc {
namespace examples {

template <typename Event>
class EventQueue {
  public:
    void push(Event e) {
        {
            std::lock_guard<std::mutex> lock(m_);
            q_.push_back(std::move(e));
        }
        cv_.notify_one();
    }
    // False when nothing arrived within timeout.
    bool pop(Event& e, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(m_);
        if (!cv_.wait_for(lock, timeout, [&] { return !q_.empty(); })) return false;
        e = std::move(q_.front());
        q_.pop_front();
        return true;
    }

  private:
    std::mutex m_;
    std::condition_variable cv_;
    std::deque<Event> q_;
};

}  // namespace examples
}  // namespace zarnrtc

#endif
