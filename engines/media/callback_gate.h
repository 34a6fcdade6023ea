// The one door through which a peer connection calls its observer and SDP
// handlers: once closed nothing passes, and closing waits for whoever is inside.
#ifndef ZARNRTC_MEDIA_CALLBACK_GATE_H
#define ZARNRTC_MEDIA_CALLBACK_GATE_H

#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>

#include "media_internal.h"

namespace libwebrtc {
namespace media {

class CallbackGate {
  public:
    // Runs fn(observer) unless closed, or unless needs_observer and none is set.
    // No engine lock is held while fn runs; exceptions stop here.
    template <typename F>
    void Run(bool needs_observer, F&& fn) {
        RTCPeerConnectionObserver* observer;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (closed_ || (needs_observer && !observer_)) return;
            observer = observer_;
            ++inside_;
            thread_ = std::this_thread::get_id();
        }
        try {
            fn(observer);
        } catch (const std::exception& e) {
            GST_WARNING("callback threw: %s", e.what());
        } catch (...) {
            GST_WARNING("callback threw");
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            --inside_;
        }
        cv_.notify_all();
    }

    // A deregistered observer may be deleted at once: a running callback ends first.
    void SetObserver(RTCPeerConnectionObserver* observer) {
        std::unique_lock<std::mutex> lock(mutex_);
        observer_ = observer;
        if (!observer) WaitOthersLocked(lock);
    }

    // Once this returns nothing passes again. From inside a callback it does
    // not wait for itself.
    void Close() {
        std::unique_lock<std::mutex> lock(mutex_);
        closed_ = true;
        WaitOthersLocked(lock);
    }

    bool closed() const { return closed_; }

  private:
    void WaitOthersLocked(std::unique_lock<std::mutex>& lock) {
        cv_.wait(lock, [&] { return inside_ == 0 || thread_ == std::this_thread::get_id(); });
    }

    std::mutex mutex_;
    std::condition_variable cv_;
    RTCPeerConnectionObserver* observer_ = nullptr;  // not owned
    int inside_ = 0;
    std::thread::id thread_;  // of the last one in
    std::atomic<bool> closed_{false};
};

}  // namespace media
}  // namespace libwebrtc

#endif
