// Seeded random sequences of application operations and engine callbacks on one
// thread: no crash, no freed call left behind, and no media object but the shared
// factory once every call has ended (run under the sanitizers).
#include <algorithm>
#include <functional>
#include <random>

#include "sipenginemanager.h"
#include "test_support.h"
#include "kept_engine.h"

using namespace zarnrtc;
using namespace zarnrtc::test;

namespace {

void runSeed(unsigned seed, int steps) {
    fake::resetSip();
    fake::resetMedia();
    fake::mediaConfig().autoNegotiate = (seed % 3 == 0);
    auto* engine = static_cast<ZarnRtcImpl*>(zarnrtc_testing::keptEngine());
    RecordingHandler handler;
    engine->setZarnRtcEvent(&handler);
    CallStateDelegate* calls = fake::lastSipEngine()->calls;
    auto* manager = static_cast<SipEngineManager*>(calls);
    const int baseline = fake::liveObjects();
    const int cameras = fake::openCameras();
    const auto before = fake::peerConnections();  // other engines' leftovers are not ours
    auto ours = [&before]() {
        std::vector<fake::FakePeerConnection*> out;
        for (auto* p : fake::peerConnections())
            if (std::find(before.begin(), before.end(), p) == before.end()) out.push_back(p);
        return out;
    };

    std::mt19937 rng(seed);
    auto pick = [&](int n) { return int(rng() % unsigned(n)); };
    const int maxId = 12;
    fake::sipConfig().nextCallId = 1;
    CountingSink sink;
    const char* targets[] = {"sip:a@x", "sip:b@x", "sip:c@x"};

    // Operations by number; each reads the step's id and peer connection.
    int id = 0;
    fake::FakePeerConnection* pc = nullptr;
    const uint8_t pkt[2] = {0, 1};
    const std::function<void()> operations[] = {
        [&] { engine->call(targets[pick(3)]); },
        [&] { engine->answer(id); },
        [&] { engine->earlyAnswer(id); },
        [&] { engine->hangup(id); },
        [&] {
            engine->callForward({targets[pick(3)], targets[pick(3)]}, nullptr, true, false, 0, 0, 0,
                                0, nullptr);
        },
        [&] { calls->OnIncomingCall(1, id, "x", "sip:x@y", "sip:me@y"); },
        [&] { calls->OnCallOffer(id, "v=0 offer", true, true); },
        [&] { calls->OnCallStateChange(id, pick(14), 200, "x"); },
        [&] { calls->OnCallStateChange(id, kHangup, 200, "x"); },
        [&] { calls->OnCallAnswer(id, "v=0 answer", true, true); },
        [&] { calls->OnEarlyMediaSdp(id, "v=0 early"); },
        [&] {
            if (pc) pc->resolveCreate();
        },
        [&] {
            if (pc) pc->fireGathering(libwebrtc::RTCIceGatheringStateComplete);
        },
        [&] {
            if (pc) pc->fireCandidate("candidate:1 1 UDP 1 127.0.0.1 1 typ host");
        },
        [&] {
            if (pc) pc->fireAddTrack(pick(2) ? "video" : "audio", "t");
        },
        [&] { engine->setupRemoteVideo(id, &sink); },
        [&] { engine->setupLocalVideo(id, pick(2) ? &sink : nullptr); },
        [&] {
            if (pc && pc->remoteVideoTrack())
                pc->remoteVideoTrack()->pushFrame(fake::makeFrame(2, 2));
        },
        [&] { engine->flowStream(); },
        [&] {
            engine->sendVideoPacket(pkt, 2, 96, 1);
            engine->audioPlay("f.wav");
        },
    };
    for (int step = 0; step < steps; ++step) {
        if (fake::sipConfig().nextCallId > maxId) fake::sipConfig().nextCallId = 1;
        id = 1 + pick(maxId);
        auto pcs = ours();
        pc = pcs.empty() ? nullptr : pcs[size_t(pick(int(pcs.size())))];
        operations[pick(20)]();
    }
    // The engine ends every call it ever knew.
    for (int id = 1; id <= maxId + 2; ++id) calls->OnCallStateChange(id, kHangup, 200, "end");
    EXPECT_EQ(manager->callCount(), 0u) << "seed " << seed;
    EXPECT_TRUE(ours().empty()) << "seed " << seed;
    EXPECT_EQ(fake::openCameras(), cameras) << "seed " << seed;
    EXPECT_EQ(fake::liveObjects(), baseline) << "seed " << seed;
    engine->setZarnRtcEvent(nullptr);
}

}  // namespace

TEST(StressTest, RandomOperationSequencesLeaveNothingBehind) {
    fake::logClear();
    for (unsigned seed = 1; seed <= 60; ++seed) {
        runSeed(seed, 3000);
        fake::logClear();  // keeps memory flat across seeds
        if (HasFailure()) break;
    }
}
