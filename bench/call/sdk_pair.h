// Two SDK engines in one process (a door station and a monitor), registered at a
// Kamailio of their own on loopback. Shared by bench_call and bench_soak.
//
// Engine events are stamped on the engine's thread and queued; everything that
// calls into the SDK runs on the main thread.
#ifndef ZARNRTC_BENCH_SDK_PAIR_H
#define ZARNRTC_BENCH_SDK_PAIR_H

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>

#include "event_queue.h"
#include "kamailio_server.h"
#include "settings_scope.h"
#include "zarnrtcimpl.h"

#ifdef ZARNRTC_BENCH_FAKE_MEDIA
#include "fake_media.h"
#endif

namespace bench {

using Clock = std::chrono::steady_clock;

inline double msBetween(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double, std::milli>(b - a).count();
}

enum Side { kDoor = 0, kMonitor = 1 };

struct Event {
    enum Kind { Registration, Incoming, State, RemoteVideo } kind = State;
    Side side = kDoor;
    int id = 0, a = 0, b = 0;
    Clock::time_point at;
};

using EventQueue = zarnrtc::examples::EventQueue<Event>;

// Only stamps and queues: no SDK operation from inside a callback.
class Handler : public zarnrtc::IRtcEngineEventHandler {
  public:
    Handler(Side side, EventQueue& q) : side_(side), q_(q) {}
    void onRegistrationState(int accId, int state, const char*) override {
        post(Event::Registration, accId, state, 0);
    }
    void onMessage(const char*) override {}
    void onIncomingCall(int callId, const char*, const char*) override {
        post(Event::Incoming, callId, 0, 0);
    }
    void onCallStateChange(int callId, int state, int reason) override {
        post(Event::State, callId, state, reason);
    }
    void onLocalVideoReady(int) override {}
    void onRemoteVideoReady(int callId) override { post(Event::RemoteVideo, callId, 0, 0); }
    void onUpdatedByLocal(int, bool) override {}
    void onUpdatedByRemote(int, bool) override {}

  private:
    void post(Event::Kind kind, int id, int a, int b) {
        Event e;
        e.kind = kind;
        e.side = side_;
        e.id = id;
        e.a = a;
        e.b = b;
        e.at = Clock::now();
        q_.push(e);
    }
    Side side_;
    EventQueue& q_;
};

// Counts frames and remembers when the first one arrived since the last reset.
class FrameSink : public zarnrtc::VideoSink {
  public:
    void OnFrame(libwebrtc::scoped_refptr<libwebrtc::RTCVideoFrame> frame) override {
        if (!frame) return;
        int64_t now = Clock::now().time_since_epoch().count();
        int64_t none = 0;
        first_.compare_exchange_strong(none, now);
        frames_.fetch_add(1);
    }
    void reset() {
        first_ = 0;
        frames_ = 0;
    }
    bool hasFrame() const { return first_.load() != 0; }
    Clock::time_point first() const { return Clock::time_point(Clock::duration(first_.load())); }
    long frames() const { return frames_.load(); }

  private:
    std::atomic<int64_t> first_{0};
    std::atomic<long> frames_{0};
};

struct Endpoint {
    zarnrtc::ZarnRtcImpl* engine = nullptr;
    std::unique_ptr<Handler> handler;
    FrameSink local, remote;
};

// Kamailio + two registered engines. Engines are never destroyed (the SDK's engine
// lives as long as the process), so programs leave through std::_Exit after stop().
class SdkPair {
  public:
    // `callee`: the monitor's account ("monitor"; "secure" takes DTLS-SRTP only, so
    // Kamailio refuses the door's plain offers and the call falls back).
    bool start(const char* callee = "monitor") {
        if (!siptest::KamailioServer::installed()) {
            std::fprintf(stderr, "kamailio is not installed (Debian package: kamailio)\n");
            return false;
        }
        if (!server_.start()) {
            std::fprintf(stderr, "kamailio did not start\n");
            return false;
        }
#ifdef ZARNRTC_BENCH_FAKE_MEDIA
        zarnrtc::fake::mediaConfig().autoNegotiate = true;
#endif
        // Each engine binds its own ephemeral port, on loopback only.
        zarnrtc::testing::bindSipToLoopback();
        const bool secure = std::string(callee) == "secure";
        const char* users[2][3] = {{"door", "door123", "Front door"},
                                   {callee, secure ? "secure123" : "monitor123", "Indoor monitor"}};
        for (int s = 0; s < 2; ++s) {
            Endpoint& ep = side(Side(s));
            ep.handler.reset(new Handler(Side(s), events));
            ep.engine = static_cast<zarnrtc::ZarnRtcImpl*>(zarnrtc::ZarnRtc::createZarnRtcEngine());
            ep.engine->setZarnRtcEvent(ep.handler.get());
            if (ep.engine->registerAccount(server_.address().c_str(), users[s][0], users[s][1],
                                           users[s][2]) < 0) {
                std::fprintf(stderr, "%s: the SIP engine refused the account\n", users[s][0]);
                return false;
            }
        }
        bool registered[2] = {false, false};
        auto deadline = Clock::now() + std::chrono::seconds(5);
        while (!(registered[0] && registered[1]) && Clock::now() < deadline) {
            Event e;
            if (!events.pop(e, std::chrono::milliseconds(50))) continue;
            if (e.kind == Event::Registration && e.a == 1) registered[e.side] = true;
            if (e.kind == Event::Registration && e.a == 3) {
                std::fprintf(stderr, "%s: registration failed\n", users[e.side][0]);
                return false;
            }
        }
        if (!(registered[0] && registered[1])) {
            std::fprintf(stderr, "registration timed out\n");
            return false;
        }
        calleeUri_ = std::string("sip:") + callee + "@" + server_.address();
        return true;
    }

    // Also removes Kamailio's run directory: the programs leave through std::_Exit,
    // past the server's destructor.
    void stop() {
        server_.stop();
        const char* keep = std::getenv("ZARNRTC_TEST_KEEP_LOGS");
        if (!server_.runDir().empty() && !(keep && *keep == '1'))
            siptest::runCommand("rm -rf '" + server_.runDir() + "'");
    }

    Endpoint& side(Side s) {
        return s == kDoor ? door : monitor;
    }
    const std::string& calleeUri() const {
        return calleeUri_;
    }

#ifdef ZARNRTC_BENCH_FAKE_MEDIA
    // The fake engine carries no media: give every live connection a remote video
    // track and one frame, as the real engine's decoder would.
    void pumpFakeFrames() {
        for (auto* pc : zarnrtc::fake::peerConnections()) {
            if (pc->closed()) continue;
            if (!pc->remoteVideoTrack()) pc->fireAddTrack("video", "remote_video");
            if (auto* track = pc->remoteVideoTrack())
                track->pushFrame(zarnrtc::fake::makeFrame(64, 48));
        }
    }
#else
    void pumpFakeFrames() {}
#endif

    EventQueue events;
    Endpoint door, monitor;

  private:
    siptest::KamailioServer server_;
    std::string calleeUri_;
};

// One call from the door to the monitor, driven from the main thread. The monitor
// answers as soon as its INVITE is reported. Times are from call().
struct CallResult {
    bool ok = false;
    std::string error;
    double inviteMs = -1, answeredMs = -1, remoteVideoMs = -1, firstFrameMs = -1;
    long remoteFrames = 0;
    Clock::time_point t0;  // call()
};

struct CallPlan {
    // After the answer: stay at least this long, and until the first remote frame
    // (bounded by frameTimeout).
    std::chrono::milliseconds minMedia{0};
    std::chrono::milliseconds setupTimeout{10000};
    std::chrono::milliseconds frameTimeout{5000};
    std::chrono::milliseconds endTimeout{5000};
};

inline CallResult runCall(SdkPair& pair, const CallPlan& plan) {
    CallResult r;
    pair.door.remote.reset();
    pair.door.local.reset();
    pair.monitor.remote.reset();
    pair.monitor.local.reset();

    const Clock::time_point t0 = Clock::now();
    r.t0 = t0;
    int callId = pair.door.engine->call(pair.calleeUri().c_str());
    if (callId < 0) {
        r.error = "call() returned -1";
        return r;
    }
    pair.door.engine->setupRemoteVideo(callId, &pair.door.remote);
    pair.door.engine->setupLocalVideo(callId, &pair.door.local);

    int calleeId = -1;
    bool callerEnded = false, calleeEnded = false;
    Clock::time_point answeredAt{};
    bool answering = true;  // false once we end the call: a late INVITE is left to the CANCEL
    auto handle = [&](const Event& e) {
        if (e.side == kMonitor && e.kind == Event::Incoming && calleeId < 0 && answering) {
            calleeId = e.id;
            r.inviteMs = msBetween(t0, e.at);
            pair.monitor.engine->answer(calleeId);
            pair.monitor.engine->setupRemoteVideo(calleeId, &pair.monitor.remote);
            pair.monitor.engine->setupLocalVideo(calleeId, &pair.monitor.local);
        } else if (e.side == kDoor && e.kind == Event::RemoteVideo && e.id == callId &&
                   r.remoteVideoMs < 0) {
            r.remoteVideoMs = msBetween(t0, e.at);
        } else if (e.kind == Event::State && e.a == zarnrtc::kHangup) {
            if (e.side == kDoor && e.id == callId) callerEnded = true;
            if (e.side == kMonitor && e.id == calleeId) calleeEnded = true;
        } else if (e.side == kDoor && e.kind == Event::State && e.id == callId &&
                   e.a == zarnrtc::kAnswered && r.answeredMs < 0) {
            answeredAt = e.at;
            r.answeredMs = msBetween(t0, e.at);
        }
    };

    // Set-up: until answered, then the media phase.
    const auto setupDeadline = t0 + plan.setupTimeout;
    Clock::time_point mediaDeadline{}, frameDeadline{};
    auto lastPump = Clock::time_point{};
    for (;;) {
        Event e;
        if (pair.events.pop(e, std::chrono::milliseconds(2))) {
            handle(e);
            continue;
        }
        const auto now = Clock::now();
        if (callerEnded || calleeEnded) {
            r.error = "the call ended early";
            break;
        }
        if (r.answeredMs < 0) {
            if (now > setupDeadline) {
                r.error = calleeId < 0 ? "no INVITE at the callee" : "not answered";
                break;
            }
            continue;
        }
        if (mediaDeadline == Clock::time_point{}) {
            mediaDeadline = answeredAt + plan.minMedia;
            frameDeadline = answeredAt + plan.frameTimeout;
        }
        if (now - lastPump > std::chrono::milliseconds(33)) {
            pair.pumpFakeFrames();
            lastPump = now;
        }
        bool frame = pair.door.remote.hasFrame();
        if (frame && now >= mediaDeadline) break;
        if (now > frameDeadline) {
            r.error = "no remote frame at the caller";
            break;
        }
    }
    if (pair.door.remote.hasFrame()) r.firstFrameMs = msBetween(t0, pair.door.remote.first());
    r.remoteFrames = pair.door.remote.frames();

    // The end: our hang-up, and the callee's state 7.
    answering = false;
    if (!callerEnded) pair.door.engine->hangup(callId);
    if (calleeId < 0) {
        // The INVITE may still be on its way: the CANCEL ends it at the monitor.
        const auto until = Clock::now() + plan.endTimeout;
        while (Clock::now() < until) {
            Event e;
            if (pair.events.pop(e, std::chrono::milliseconds(20))) handle(e);
        }
    } else {
        const auto until = Clock::now() + plan.endTimeout;
        while (!calleeEnded && Clock::now() < until) {
            Event e;
            if (pair.events.pop(e, std::chrono::milliseconds(20))) handle(e);
        }
        if (!calleeEnded && r.error.empty()) r.error = "the callee did not see the end";
    }
    r.ok = r.error.empty() && r.answeredMs >= 0 && r.firstFrameMs >= 0;
    return r;
}

}  // namespace bench

#endif
