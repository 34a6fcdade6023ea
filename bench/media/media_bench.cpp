// Per call, through the engine's API only: create-offer to gathering complete,
// and call start to the first decoded remote frame. Prints the median of the calls
// that worked; exit status 1 if any call failed.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "libwebrtc.h"
#include "settings_scope.h"
#include "stats.h"

using namespace libwebrtc;
using Clock = std::chrono::steady_clock;

namespace {

double Ms(Clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

struct Peer : RTCPeerConnectionObserver, RTCVideoRenderer<scoped_refptr<RTCVideoFrame>> {
    void OnSignalingState(RTCSignalingState) override {}
    void OnIceGatheringState(RTCIceGatheringState state) override {
        if (state != RTCIceGatheringStateComplete) return;
        std::lock_guard<std::mutex> lock(mutex);
        complete = Clock::now();
        cv.notify_all();
    }
    void OnIceConnectionState(RTCIceConnectionState) override {}
    void OnIceCandidate(scoped_refptr<RTCIceCandidate>) override {}
    void OnAddStream(scoped_refptr<RTCMediaStream>) override {}
    void OnRemoveStream(scoped_refptr<RTCMediaStream>) override {}
    void OnAddTrack(scoped_refptr<RTCMediaStream> stream,
                    scoped_refptr<RTCMediaTrack> track) override {
        if (std::string(track->kind()) != "video") return;
        std::lock_guard<std::mutex> lock(mutex);
        remote = stream->FindVideoTrack(track->id());
        if (remote) remote->AddRenderer(this);
    }
    void OnRemoveTrack(scoped_refptr<RTCMediaStream>, scoped_refptr<RTCMediaTrack>) override {}
    void OnRenegotiationNeeded() override {}
    void renderFrame(scoped_refptr<RTCVideoFrame>) override {
        std::lock_guard<std::mutex> lock(mutex);
        if (first_frame == Clock::time_point()) first_frame = Clock::now();
        cv.notify_all();
    }

    template <typename Pred>
    bool Wait(Pred pred) {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, std::chrono::seconds(10), pred);
    }

    void Start(scoped_refptr<RTCPeerConnectionFactory> f) {
        RTCConfiguration config;
        config.bundle_policy = kBundlePolicyMaxCompat;
        config.tcp_candidate_policy = TcpCandidatePolicy::kTcpCandidatePolicyDisabled;
        pc = f->Create(config, nullptr);
        pc->RegisterRTCPeerConnectionObserver(this);
        auto stream = f->CreateStream("stream_id");
        stream->AddTrack(f->CreateAudioTrack(f->CreateAudioSource("audio_label"), "audio_label"));
        stream->AddTrack(f->CreateVideoTrack(f->CreateVideoSource(camera, "video_label", nullptr),
                                             "video_label"));
        pc->AddStream(stream);
    }
    std::string Local(bool offer) {
        auto ref = pc;
        OnSdpCreateSuccess ok = [ref](const char* sdp, const char* type) {
            ref->SetLocalDescription(sdp, type, nullptr, nullptr);
        };
        if (offer)
            pc->CreateOffer(ok, nullptr, nullptr);
        else
            pc->CreateAnswer(ok, nullptr, nullptr);
        Wait([&] { return complete != Clock::time_point(); });
        auto desc = pc->GetLocalDescription();
        return desc ? desc->sdp() : "";
    }
    void Stop() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (remote) remote->RemoveRenderer(this);
            remote = nullptr;
        }
        pc->Close();
        pc = nullptr;
    }

    scoped_refptr<RTCVideoCapturer> camera;
    scoped_refptr<RTCPeerConnection> pc;
    scoped_refptr<RTCVideoTrack> remote;
    std::mutex mutex;
    std::condition_variable cv;
    Clock::time_point complete, first_frame;
};

}  // namespace

int main() {
    zarnrtc::testing::editSettings<zarnrtc::testing::MediaSettings>([](auto& s) {
        if (s.audioOutput == zarnrtc::settings::AudioOutput::kProbe)
            s.audioOutput = zarnrtc::settings::AudioOutput::kNone;
    });
    auto t0 = Clock::now();
    LibWebRTC::Initialize();
    auto factory = LibWebRTC::CreateRTCPeerConnectionFactory();
    std::printf("factory (GStreamer init + DTLS certificate): %.1f ms\n", Ms(Clock::now() - t0));
    auto camera = factory->GetVideoDevice()->Create("capturer", 0, 640, 480, 15);

    constexpr int kCalls = 5;
    bench::Samples gathering, first_frame;
    int failed = 0;
    for (int i = 0; i < kCalls; ++i) {
        Peer caller, callee;
        caller.camera = callee.camera = camera;
        auto start = Clock::now();
        caller.Start(factory);
        auto offer_at = Clock::now();
        std::string offer = caller.Local(true);
        callee.Start(factory);
        callee.pc->SetRemoteDescription(offer.c_str(), "offer", nullptr, nullptr);
        std::string answer = callee.Local(false);
        caller.pc->SetRemoteDescription(answer.c_str(), "answer", nullptr, nullptr);
        bool ok = caller.Wait([&] { return caller.first_frame != Clock::time_point(); });
        // Both ends must have gathered, or the offer and answer were incomplete.
        bool gathered =
            caller.complete != Clock::time_point() && callee.complete != Clock::time_point();
        if (gathered && ok) {
            gathering.add(Ms(caller.complete - offer_at));
            first_frame.add(Ms(caller.first_frame - start));
            std::printf("call %d: gathering %.1f ms, first remote frame %.1f ms\n", i + 1,
                        Ms(caller.complete - offer_at), Ms(caller.first_frame - start));
        } else {
            ++failed;
            std::printf("call %d: FAILED (%s)\n", i + 1,
                        !gathered ? "ICE gathering did not complete" : "no remote frame");
        }
        callee.Stop();
        caller.Stop();
    }
    std::printf("median of %zu calls that worked (%d of %d failed):\n", gathering.size(), failed,
                kCalls);
    if (!gathering.empty()) {
        std::printf("median create-offer -> gathering complete: %.1f ms (target < 400)\n",
                    gathering.median());
        std::printf("median call start -> first decoded remote frame: %.1f ms (target < 1000)\n",
                    first_frame.median());
    }
    return failed ? 1 : 0;
}
