// Camera sharing, renderer wiring, render adapter and teardown of one call's media.
#include <stdexcept>

#include "callimpl.h"
#include "sipenginemanager.h"
#include "test_support.h"
#include "video_render_impl.h"

using namespace zarnrtc;
using namespace zarnrtc::test;
using ::testing::ElementsAre;

namespace {

CallParams format(int w, int h, int fps) {
    CallParams p;
    p.setVideoWidth(w);
    p.setVideoHeight(h);
    p.setVideoFps(fps);
    return p;
}

void end(CallImpl* c) {
    c->closeWebRTC();
    c->closeSip();
    delete c;
}

class ThrowingSink : public VideoSink {
  public:
    void OnFrame(libwebrtc::scoped_refptr<libwebrtc::RTCVideoFrame>) override {
        ++calls;
        throw std::runtime_error("sink failed");
    }
    int calls = 0;
};

int refCount(libwebrtc::RTCVideoFrame* f) {
    int n = f->AddRef();
    f->Release();
    return n - 1;
}

}  // namespace

class CallMediaTest : public FakeEngineTest {};

TEST_F(CallMediaTest, CallsShareOneCameraUntilTheLastOneLeaves) {
    SipEngineManager manager;
    auto* first = new CallImpl(1, &manager);
    first->makeCall("sip:door@x", format(640, 480, 15));
    auto* second = new CallImpl(2, &manager);
    second->makeCall("sip:gate@x", format(1280, 720, 30));

    EXPECT_THAT(ops("VideoDevice.Create"),
                ElementsAre("VideoDevice.Create(capturer,0,640,480,15)"));
    EXPECT_EQ(fake::openCameras(), 1);
    EXPECT_EQ(fake::localVideoTracks().size(), 2u);  // one track per call over the one camera

    end(first);
    EXPECT_EQ(fake::openCameras(), 1);
    end(second);
    EXPECT_EQ(fake::openCameras(), 0);

    auto* third = new CallImpl(3, &manager);
    third->makeCall("sip:door@x", format(320, 240, 10));
    EXPECT_EQ(ops("VideoDevice.Create").back(), "VideoDevice.Create(capturer,0,320,240,10)");
    end(third);
}

TEST_F(CallMediaTest, FailedCameraIsTriedAgainByTheNextCall) {
    SipEngineManager manager;
    fake::mediaConfig().failCamera = true;
    auto* first = new CallImpl(1, &manager);
    first->makeCall("sip:a@x", CallParams());
    EXPECT_THAT(ops("Factory.CreateVideoSource"),
                ElementsAre("Factory.CreateVideoSource(video_label,null)"));
    fake::mediaConfig().failCamera = false;
    auto* second = new CallImpl(2, &manager);
    second->makeCall("sip:b@x", CallParams());
    EXPECT_EQ(ops("VideoDevice.Create").size(), 2u);
    EXPECT_EQ(fake::openCameras(), 1);
    end(first);
    end(second);

    // Screen capture asks for 30 and 0 and leaves the shared camera alone.
    auto track = manager.getVideoTrack(true, 7, "cam", 1, 2, 3);
    EXPECT_NE(track, nullptr);
    EXPECT_THAT(ops("VideoDevice.CreateScreenCapture"),
                ElementsAre("VideoDevice.CreateScreenCapture(30,0)"));
    EXPECT_FALSE(manager.hasCapturer());
}

TEST_F(CallMediaTest, RendererWiringAsTheApplicationSeesIt) {
    SipEngineManager manager;
    CountingSink early, local1, local2, remote1, remote2;
    auto* call = new CallImpl(1, &manager);
    call->setLocalVideoRender(&early);  // before the track exists: never attached
    call->makeCall("sip:door@x", CallParams());
    call->setLocalVideoRender(&local1);  // first adapter on the track
    call->setLocalVideoRender(&local2);  // later ones are not attached
    call->setRemoteVideoRender(&remote1);

    auto* pc = fake::lastPeerConnection();
    pc->fireAddTrack("video", "remote_video");
    call->setRemoteVideoRender(&remote2);  // every remote adapter is attached

    fake::localVideoTracks().back()->pushFrame(fake::makeFrame(640, 480));
    pc->remoteVideoTrack()->pushFrame(fake::makeFrame(320, 240));
    EXPECT_EQ(early.frames, 0);
    EXPECT_EQ(local1.frames, 1);
    EXPECT_EQ(local2.frames, 0);
    EXPECT_EQ(remote1.frames, 1);
    EXPECT_EQ(remote2.frames, 1);
    EXPECT_EQ(remote2.lastWidth, 320);

    call->openflowStream();
    pc->remoteVideoTrack()->pushFrame(fake::makeFrame(320, 240));
    EXPECT_EQ(remote2.frames, 1);
    EXPECT_EQ(remote1.frames, 2);  // the earlier adapter was never detached
    EXPECT_FALSE(fake::localVideoTracks().back()->enabled());
    end(call);
}

TEST_F(CallMediaTest, EveryReferenceIsReleasedWhenTheCallEnds) {
    SipEngineManager manager;
    int before = fake::liveObjects();
    CountingSink sink;
    auto* call = new CallImpl(1, &manager);
    call->makeCall("sip:door@x", CallParams());
    call->setLocalVideoRender(&sink);
    call->setRemoteVideoRender(&sink);
    auto* pc = fake::lastPeerConnection();
    pc->resolveCreate();
    pc->fireCandidate("candidate:1 1 UDP 1 127.0.0.1 5000 typ host");
    pc->fireAddTrack("video", "v");
    pc->fireAddTrack("audio", "a");
    call->audioPlay("/tmp/chime.wav");
    auto played = ops("Receiver");
    ASSERT_EQ(played.size(), 1u);
    EXPECT_NE(played[0].find(".audioPlay(/tmp/chime.wav)"), std::string::npos);
    end(call);
    EXPECT_EQ(fake::liveObjects(), before);
}

TEST_F(CallMediaTest, RejectAndCloseWithoutMedia) {
    SipEngineManager manager;
    auto* zero = new CallImpl(0, &manager);
    zero->reject(486, "busy");  // id 0: nothing at all, the object lives on
    EXPECT_TRUE(ops("Reject").empty());
    EXPECT_EQ(zero->getCallId(), 0);
    EXPECT_EQ(manager.callCount(), 1u);
    delete zero;  // its entry can never be unregistered; deleting drops it
    EXPECT_EQ(manager.callCount(), 0u);

    RecordingHandler handler;
    manager.setCallStateObserver(nullptr);
    auto* call = new CallImpl(12, &manager);
    call->makeCall("sip:door@x", CallParams());
    auto* other = new CallImpl(13, &manager);
    call->reject(603, "declined");
    EXPECT_THAT(ops("Reject"), ElementsAre("Reject(12,603)"));
    EXPECT_EQ(manager.callCount(), 1u);  // no stale entry for 12

    // An incoming call that never had a peer connection can be closed.
    other->closeWebRTC();
    other->closeSip();
    other->closeSip();
    delete other;
    EXPECT_EQ(manager.callCount(), 0u);
}

TEST(VideoRenderImplTest, DeliversDropsAndSurvivesAThrowingSink) {
    auto frame = fake::makeFrame(4, 4);
    int refs = refCount(frame.get());

    VideoRenderImpl silent(nullptr);
    silent.renderFrame(frame);

    ThrowingSink bad;
    VideoRenderImpl adapter(&bad);
    EXPECT_THROW(adapter.renderFrame(frame), std::runtime_error);
    EXPECT_THROW(adapter.renderFrame(frame), std::runtime_error);  // nothing left locked
    EXPECT_EQ(bad.calls, 2);
    EXPECT_EQ(refCount(frame.get()), refs);

    CountingSink good;
    { VideoRenderImpl a(&good); }  // destroying an adapter never calls the sink
    EXPECT_EQ(good.frames, 0);
}
