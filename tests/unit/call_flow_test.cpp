// Whole calls against the fakes: the engine log and the handler's events are the
// evidence of what a device would see on the wire and in the application.
#include "callimpl.h"
#include "sipenginemanager.h"
#include "test_support.h"

using namespace zarnrtc;
using namespace zarnrtc::test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

class CallFlowTest : public EngineTest {
  protected:
    // Entries of one peer connection, without its name.
    std::vector<std::string> pcOps(fake::FakePeerConnection* pc) {
        std::vector<std::string> out;
        for (auto& e : ops(pc->name() + ".")) out.push_back(e.substr(pc->name().size() + 1));
        return out;
    }

    void completeGathering(fake::FakePeerConnection* pc) {
        pc->fireGathering(libwebrtc::RTCIceGatheringStateGathering);
        pc->fireCandidate("candidate:1 1 UDP 2122252543 192.168.1.20 40000 typ host");
        pc->fireCandidate("candidate:2 1 UDP 2122252543 10.0.0.20 40002 typ host");
        pc->fireGathering(libwebrtc::RTCIceGatheringStateComplete);
    }
};

}  // namespace

TEST_F(CallFlowTest, OutgoingCallFromDialToRemoteHangup) {
    fake::sipConfig().nextCallId = 5;
    ASSERT_EQ(engine->call("sip:door@10.0.0.1"), 5);
    auto* pc = fake::lastPeerConnection();
    ASSERT_NE(pc, nullptr);
    // The call's media: one audio and one video track over the camera, offered.
    EXPECT_EQ(fake::openCameras(), 1);
    EXPECT_THAT(ops("VideoDevice.Create"),
                ElementsAre("VideoDevice.Create(capturer,0,640,480,15)"));
    EXPECT_THAT(ops("Stream(stream_id).AddTrack"),
                ElementsAre("Stream(stream_id).AddTrack(audio_label)",
                            "Stream(stream_id).AddTrack(video_label)"));
    EXPECT_THAT(pcOps(pc), ::testing::Contains("AddStream(stream_id)"));
    EXPECT_EQ(pcOps(pc).back(), "CreateOffer");
    // Plain RTP and no ICE servers: nothing leaves the building but the call itself.
    const auto& c = pc->configuration();
    for (const auto& server : c.ice_servers) EXPECT_EQ(server.uri[0], 0);
    EXPECT_EQ(c.srtp_type, libwebrtc::kSRTP_None);

    // Nothing goes to SIP before gathering completes; then the whole SDP, once.
    fake::logClear();
    pc->resolveCreate("v=0\r\ns=offer\r\n");
    completeGathering(pc);
    completeGathering(pc);
    auto invites = ops("MakeCall");
    ASSERT_EQ(invites.size(), 1u);
    EXPECT_THAT(invites[0], HasSubstr("MakeCall(5,sip:door@10.0.0.1,zarnrtc,dev_indoor,v=0"));
    EXPECT_THAT(invites[0], HasSubstr("192.168.1.20 40000"));
    EXPECT_THAT(invites[0], HasSubstr("10.0.0.20 40002"));
    EXPECT_THAT(invites[0], HasSubstr(",160)"));

    calls->OnCallStateChange(5, kRinging, 180, "Ringing");
    calls->OnCallAnswer(5, "v=0\r\ns=answer\r\n", true, true);
    calls->OnCallStateChange(5, kAnswered, 200, "OK");
    EXPECT_EQ(pcOps(pc).back(), "SetRemoteDescription(answer,v=0\r\ns=answer\r\n)");

    CountingSink remote;
    pc->fireAddTrack("audio", "a0");
    pc->fireAddTrack("video", "v0");
    engine->setupRemoteVideo(5, &remote);
    pc->remoteVideoTrack()->pushFrame(fake::makeFrame(640, 480));
    EXPECT_EQ(remote.frames, 1);
    engine->audioPlay("/tmp/ring.wav");  // the call is current: reaches its receiver
    EXPECT_EQ(ops("Receiver").size(), 1u);

    calls->OnCallStateChange(5, kHangup, 200, "BYE");
    EXPECT_TRUE(pc == nullptr || fake::peerConnections().empty());
    EXPECT_THAT(handler.events(), ElementsAre("state(5,5,180)", "state(5,6,200)", "remoteVideo(5)",
                                              "state(5,7,200)"));
    EXPECT_EQ(manager->callCount(), 0u);
    EXPECT_EQ(fake::openCameras(), 0);
    EXPECT_EQ(fake::liveObjects(), baseline);
    EXPECT_EQ(remote.frames, 1);
}

TEST_F(CallFlowTest, IncomingCallAnsweredThenHungUpLocally) {
    calls->OnIncomingCall(1, 8, "Door", "sip:door@x", "sip:monitor@x");
    EXPECT_TRUE(handler.events().empty());
    EXPECT_TRUE(ops("Factory.Create").empty());
    calls->OnCallOffer(8, "v=0\r\ns=offer\r\n", true, true);
    EXPECT_THAT(handler.events(), ElementsAre("incoming(8,null,null)"));
    EXPECT_TRUE(ops("Factory.Create").empty());  // nothing is built before the answer

    engine->answer(8);
    auto* pc = fake::lastPeerConnection();
    ASSERT_NE(pc, nullptr);
    auto steps = pcOps(pc);
    ASSERT_GE(steps.size(), 2u);
    EXPECT_EQ(steps[steps.size() - 2], "SetRemoteDescription(offer,v=0\r\ns=offer\r\n)");
    EXPECT_EQ(steps.back(), "CreateAnswer");

    pc->resolveCreate("v=0\r\ns=answer\r\n");
    EXPECT_EQ(pcOps(pc).back(), "SetLocalDescription(answer)");
    completeGathering(pc);
    auto accepts = ops("Accept");
    ASSERT_EQ(accepts.size(), 1u);
    EXPECT_THAT(accepts[0], HasSubstr("Accept(8,v=0\r\ns=answer\r\n"));
    EXPECT_THAT(accepts[0], HasSubstr(",dev_indoor,true,true,480)"));

    calls->OnCallStateChange(8, kAnswered, 200, "OK");
    handler.clear();
    engine->hangup(8);
    EXPECT_THAT(ops("Hangup"), ElementsAre("Hangup(8)"));
    EXPECT_FALSE(pc->closed());  // media stays until the engine reports the end
    EXPECT_EQ(manager->callCount(), 0u);

    calls->OnCallStateChange(8, kHangup, 200, "BYE");
    EXPECT_TRUE(handler.events().empty());  // a local hang-up is never reported
    EXPECT_TRUE(fake::peerConnections().empty());
    EXPECT_EQ(fake::liveObjects(), baseline);
}

TEST_F(CallFlowTest, EarlyMediaGatheringAndFixedHandOffValues) {
    CallParams hd;
    hd.setVideoHeight(720);
    hd.setDisplayName("Door 1");
    fake::sipConfig().nextCallId = 3;
    manager->call("sip:monitor@x", hd);
    auto* pc = fake::lastPeerConnection();
    pc->resolveCreate();
    completeGathering(pc);
    EXPECT_THAT(ops("MakeCall")[0], HasSubstr("MakeCall(3,sip:monitor@x,Door 1,dev_indoor,"));
    EXPECT_THAT(ops("MakeCall")[0], HasSubstr(",160)"));

    calls->OnEarlyMediaSdp(3, "early");
    calls->OnCallAnswer(3, "final", true, true);
    auto remote = ops(pc->name() + ".SetRemoteDescription");
    EXPECT_THAT(remote, ElementsAre(pc->name() + ".SetRemoteDescription(answer,early)",
                                    pc->name() + ".SetRemoteDescription(answer,final)"));

    // Incoming with video disabled still accepts with audio and video.
    calls->OnIncomingCall(1, 4, nullptr, nullptr, nullptr);
    calls->OnCallOffer(4, "offer", true, false);
    CallParams noVideo = hd;
    noVideo.setEnableVideo(false);
    manager->answer(4, noVideo);
    auto* in = fake::lastPeerConnection();
    in->resolveCreate();
    completeGathering(in);
    EXPECT_THAT(ops("Accept")[0], HasSubstr(",dev_indoor,true,true,720)"));

    calls->OnCallStateChange(3, kHangup, 200, "");
    calls->OnCallStateChange(4, kHangup, 200, "");
    EXPECT_EQ(fake::liveObjects(), baseline);
}

TEST_F(CallFlowTest, HandOffSurvivesMissingEmptyOrFailedDescriptions) {
    fake::sipConfig().nextCallId = 1;
    engine->call("sip:a@x");  // no description yet: completion sends nothing, may retry
    auto* a = fake::lastPeerConnection();
    fake::mediaConfig().nullLocalDescription = true;
    a->fireGathering(libwebrtc::RTCIceGatheringStateComplete);
    fake::mediaConfig().nullLocalDescription = false;
    a->resolveCreate();
    a->fireGathering(libwebrtc::RTCIceGatheringStateComplete);
    EXPECT_EQ(ops("MakeCall").size(), 1u);

    engine->call("sip:b@x");  // empty SDP: nothing now and never after
    auto* b = fake::lastPeerConnection();
    b->setLocalSdp("");
    b->fireGathering(libwebrtc::RTCIceGatheringStateComplete);
    b->resolveCreate();
    b->fireGathering(libwebrtc::RTCIceGatheringStateComplete);
    EXPECT_EQ(ops("MakeCall").size(), 1u);

    engine->call("sip:c@x");  // offer creation fails: silently no INVITE
    EXPECT_TRUE(fake::lastPeerConnection()->failCreate("no codecs"));
    fake::mediaConfig().failPeerConnection = true;
    EXPECT_EQ(engine->call("sip:d@x"), 4);  // no peer connection: the call still exists
    EXPECT_EQ(ops("MakeCall").size(), 1u);
    EXPECT_EQ(manager->callCount(), 4u);

    for (int id = 1; id <= 4; ++id) calls->OnCallStateChange(id, kHangup, 487, "");
    EXPECT_EQ(manager->callCount(), 0u);
    EXPECT_EQ(fake::liveObjects(), baseline);
}

TEST_F(CallFlowTest, ReportingRulesForUnknownIdsAndAnswers) {
    calls->OnCallStateChange(42, kRinging, 180, "");  // empty registry: nothing
    calls->OnCallOffer(42, "x", true, true);
    EXPECT_TRUE(handler.events().empty());

    calls->OnIncomingCall(1, 7, nullptr, nullptr, nullptr);
    calls->OnCallStateChange(42, kRinging, 180, "");  // unknown id, others registered
    calls->OnCallStateChange(42, kHangup, 200, "");
    calls->OnCallOffer(42, "x", true, true);
    calls->OnCallAnswer(42, "x", true, true);
    calls->OnEarlyMediaSdp(42, "x");
    calls->OnDtmfEvent(7, 5, 100, false);
    EXPECT_THAT(handler.events(), ElementsAre("state(42,5,180)", "incoming(42,null,null)"));

    engine->answer(42);  // unknown: nothing built, current call cleared
    EXPECT_TRUE(ops("Factory.Create").empty());
    EXPECT_EQ(manager->currentCall(), nullptr);
    engine->earlyAnswer(7);  // same as answer
    EXPECT_EQ(fake::peerConnections().size(), 1u);
    EXPECT_EQ(engine->hangup(99), 0);
    EXPECT_TRUE(ops("Hangup").empty());

    // Local hang-up, and the engine never reports the end: the call is not lost.
    engine->hangup(7);
    EXPECT_EQ(manager->callCount(), 0u);
    EXPECT_EQ(ops("Hangup").size(), 1u);

    // CreateCall failing: no call object, the application gets -1.
    fake::sipConfig().callIds = {0};
    EXPECT_EQ(engine->call("sip:x@y"), -1);
    EXPECT_EQ(manager->callCount(), 0u);
}
