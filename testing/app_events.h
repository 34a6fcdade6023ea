// An application for tests of the whole SDK: records what the SDK tells it, for a
// test to wait on, and answers every incoming call when given the engine to do it.
#ifndef ZARNRTC_TESTING_APP_EVENTS_H
#define ZARNRTC_TESTING_APP_EVENTS_H

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "registrationStateObserver.h"
#include "videosink.h"
#include "zarnrtc.h"
#include "zarnrtcimpl.h"

namespace zarnrtc_testing {

// True once pred() holds, polled for up to `ms`.
template <typename Pred>
bool eventually(Pred pred, int ms) {
    for (int waited = 0; waited < ms; waited += 10) {
        if (pred()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return pred();
}

struct FrameCounter : zarnrtc::VideoSink {
    void OnFrame(libwebrtc::scoped_refptr<libwebrtc::RTCVideoFrame> frame) override {
        width = frame->width();
        ++frames;
    }
    std::atomic<int> frames{0}, width{0};
};

class AppEvents : public zarnrtc::IRtcEngineEventHandler,
                  public zarnrtc::RegistrationStateObserver {
  public:
    struct Report {
        int id, state, reason;
    };

    void onRegistrationState(int accId, int state, const char*) override {
        add(registrations_, {accId, state, 0});
        if (state == 1) registered = true;
    }
    void onIncomingCall(int callId, const char*, const char*) override {
        add(incomings_, {callId, 0, 0});
        incoming = callId;
        if (!answering) return;
        answering->setupRemoteVideo(callId, &remote);
        answering->answer(callId);
    }
    void onCallStateChange(int callId, int state, int reason) override {
        add(calls_, {callId, state, reason});
    }
    void onRemoteVideoReady(int) override { remoteReady = true; }
    void onMessage(const char*) override {}
    void onLocalVideoReady(int) override {}
    void onUpdatedByLocal(int, bool) override {}
    void onUpdatedByRemote(int, bool) override {}

    // Reasons of every report of `state` for the call (account), in order.
    std::vector<int> reasons(int callId, int state) { return matching(calls_, callId, state); }
    bool saw(int callId, int state) { return !reasons(callId, state).empty(); }
    bool sawRegistration(int accId, int state) {
        return !matching(registrations_, accId, state).empty();
    }
    // The id of the n-th incoming call (from 0), waited for up to 10 s; -1 if none.
    int nthIncoming(size_t n) {
        int id = -1;
        eventually(
            [&] {
                std::lock_guard<std::mutex> lock(mutex_);
                if (incomings_.size() > n) id = incomings_[n].id;
                return id != -1;
            },
            10000);
        return id;
    }

    zarnrtc::ZarnRtcImpl* answering = nullptr;
    FrameCounter remote;
    std::atomic<bool> registered{false}, remoteReady{false};
    std::atomic<int> incoming{0};

  private:
    void add(std::vector<Report>& list, Report r) {
        std::lock_guard<std::mutex> lock(mutex_);
        list.push_back(r);
    }
    std::vector<int> matching(std::vector<Report>& list, int id, int state) {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<int> out;
        for (const Report& r : list)
            if (r.id == id && r.state == state) out.push_back(r.reason);
        return out;
    }

    std::mutex mutex_;
    std::vector<Report> registrations_, incomings_, calls_;
};

}  // namespace zarnrtc_testing

#endif
