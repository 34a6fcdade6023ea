// Shared helpers of the media engine tests: a recording observer, a frame
// counter and the non-trickle exchange the SDK performs.
#ifndef ZARNRTC_TESTS_MEDIA_TEST_UTIL_H
#define ZARNRTC_TESTS_MEDIA_TEST_UTIL_H

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "libwebrtc.h"

namespace mediatest {

using namespace libwebrtc;
using Clock = std::chrono::steady_clock;

// Waits on a predicate guarded by one mutex, with a deadline.
class Waitable {
  public:
    template <typename Pred>
    bool WaitFor(int ms, Pred pred) {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, std::chrono::milliseconds(ms), pred);
    }

  protected:
    void Changed() { cv_.notify_all(); }
    std::mutex mutex_;
    std::condition_variable cv_;
};

class FrameCounter : public RTCVideoRenderer<scoped_refptr<RTCVideoFrame>>, public Waitable {
  public:
    void renderFrame(scoped_refptr<RTCVideoFrame> frame) override {
        std::lock_guard<std::mutex> lock(mutex_);
        ++frames;
        width = frame->width();
        height = frame->height();
        // Touch the planes so ASan sees a bad mapping.
        sum += frame->DataY()[0] + frame->DataU()[frame->StrideU() - 1] +
               frame->DataV()[(frame->height() / 2 - 1) * frame->StrideV()];
        Changed();
    }
    int Frames() {
        std::lock_guard<std::mutex> lock(mutex_);
        return frames;
    }
    // The callers' bounds hold on an idle machine; a sanitized build on a busy CI
    // machine can take longer for ICE and DTLS. Only a failing wait uses the floor.
    bool WaitFrames(int n, int ms) {
        constexpr int kBusyMachineFloorMs = 15000;
        return WaitFor(std::max(ms, kBusyMachineFloorMs), [&] { return frames >= n; });
    }
    int frames = 0, width = 0, height = 0;
    unsigned sum = 0;
};

class RecordingObserver : public RTCPeerConnectionObserver, public Waitable {
  public:
    void OnSignalingState(RTCSignalingState) override { Record(); }
    void OnIceGatheringState(RTCIceGatheringState state) override {
        Record();
        std::lock_guard<std::mutex> lock(mutex_);
        gathering.push_back(state);
        if (state == RTCIceGatheringStateComplete) complete_at = Clock::now();
        Changed();
    }
    void OnIceConnectionState(RTCIceConnectionState state) override {
        Record();
        std::lock_guard<std::mutex> lock(mutex_);
        ice = state;
        Changed();
    }
    void OnIceCandidate(scoped_refptr<RTCIceCandidate> c) override {
        Record();
        std::lock_guard<std::mutex> lock(mutex_);
        candidates.push_back(c->candidate());
    }
    void OnAddStream(scoped_refptr<RTCMediaStream>) override { Record(); }
    void OnRemoveStream(scoped_refptr<RTCMediaStream>) override { Record(); }
    void OnAddTrack(scoped_refptr<RTCMediaStream> stream,
                    scoped_refptr<RTCMediaTrack> track) override {
        Record();
        std::lock_guard<std::mutex> lock(mutex_);
        if (!std::strcmp(track->kind(), "video")) {
            video_track = stream->FindVideoTrack(track->id());
            if (video_track && renderer) video_track->AddRenderer(renderer);
        } else if (!std::strcmp(track->kind(), "audio")) {
            audio_tracks++;
        }
        Changed();
    }
    void OnRemoveTrack(scoped_refptr<RTCMediaStream>, scoped_refptr<RTCMediaTrack>) override {
        Record();
    }
    void OnRenegotiationNeeded() override { Record(); }

    bool WaitComplete(int ms) {
        return WaitFor(ms, [&] {
            return !gathering.empty() && gathering.back() == RTCIceGatheringStateComplete;
        });
    }

    // Set before the connection starts; attached to the remote video track.
    RTCVideoRenderer<scoped_refptr<RTCVideoFrame>>* renderer = nullptr;
    std::atomic<bool> closed{false};
    std::atomic<int> after_close{0};
    std::vector<RTCIceGatheringState> gathering;
    std::vector<std::string> candidates;
    RTCIceConnectionState ice = RTCIceConnectionStateNew;
    scoped_refptr<RTCVideoTrack> video_track;
    int audio_tracks = 0;
    Clock::time_point complete_at;

  private:
    void Record() {
        if (closed) ++after_close;
    }
};

// Collects what one SDP handler reported.
struct SdpResult : Waitable {
    void Set(const char* sdp_text, const char* error_text) {
        std::lock_guard<std::mutex> lock(mutex_);
        done = true;
        if (sdp_text) sdp = sdp_text;
        if (error_text) error = error_text;
        Changed();
    }
    bool Wait(int ms = 5000) {
        return WaitFor(ms, [&] { return done; });
    }
    bool done = false;
    std::string sdp, error;
};

inline scoped_refptr<RTCPeerConnectionFactory> Factory() {
    LibWebRTC::Initialize();
    return LibWebRTC::CreateRTCPeerConnectionFactory();
}

inline RTCConfiguration SdkConfiguration() {
    RTCConfiguration config;
    config.sdp_semantics = SdpSemantics::kPlanB;
    config.srtp_type = kSRTP_None;
    config.rtcp_mux_policy = RtcpMuxPolicy::kRtcpMuxPolicyNegotiate;
    config.tcp_candidate_policy = TcpCandidatePolicy::kTcpCandidatePolicyDisabled;
    config.bundle_policy = kBundlePolicyMaxCompat;
    return config;
}

// One endpoint as the SDK builds it: a stream with an audio track and a video
// track over a capturer of the given size.
struct Endpoint {
    Endpoint(scoped_refptr<RTCPeerConnectionFactory> f, int width, int height,
             const RTCConfiguration& config = SdkConfiguration())
        : factory(f) {
        pc = factory->Create(config, RTCMediaConstraints::Create());
        pc->RegisterRTCPeerConnectionObserver(&observer);
        observer.renderer = &remote_frames;
        stream = factory->CreateStream("stream_id");
        stream->AddTrack(
            factory->CreateAudioTrack(factory->CreateAudioSource("audio_label"), "audio_label"));
        capturer = factory->GetVideoDevice()->Create("capturer", 99, width, height, 15);
        video = factory->CreateVideoTrack(
            factory->CreateVideoSource(capturer, "video_label", nullptr), "video_label");
        stream->AddTrack(video);
        pc->AddStream(stream);
    }
    ~Endpoint() {
        if (pc) Close();
    }
    void Close() {
        if (observer.video_track) observer.video_track->RemoveRenderer(&remote_frames);
        pc->Close();
        observer.closed = true;
        pc = nullptr;
    }

    // Creates the offer (or the answer), applies it and returns the local
    // description once gathering is complete.
    std::string Negotiate(bool offer) {
        auto pc_ref = pc;
        OnSdpCreateSuccess ok = [pc_ref](const char* sdp, const char* type) {
            pc_ref->SetLocalDescription(sdp, type, nullptr, [](const char*) {});
        };
        OnSdpCreateFailure fail = [this](const char* e) { create_error.Set(nullptr, e); };
        if (offer)
            pc->CreateOffer(ok, fail, RTCMediaConstraints::Create());
        else
            pc->CreateAnswer(ok, fail, RTCMediaConstraints::Create());
        if (!observer.WaitComplete(5000)) return std::string();
        auto desc = pc->GetLocalDescription();
        return desc ? desc->sdp() : std::string();
    }

    void SetRemote(const std::string& sdp, const char* type, SdpResult* result = nullptr) {
        pc->SetRemoteDescription(
            sdp.c_str(), type,
            [result] {
                if (result) result->Set("", nullptr);
            },
            [result](const char* e) {
                if (result) result->Set(nullptr, e);
            });
    }

    scoped_refptr<RTCPeerConnectionFactory> factory;
    scoped_refptr<RTCPeerConnection> pc;
    RecordingObserver observer;
    FrameCounter remote_frames;
    scoped_refptr<RTCMediaStream> stream;
    scoped_refptr<RTCVideoCapturer> capturer;
    scoped_refptr<RTCVideoTrack> video;
    SdpResult create_error;
};

// The text without the lines that start with any of `prefixes`.
inline std::string WithoutLines(const std::string& sdp,
                                std::initializer_list<const char*> prefixes) {
    std::string out;
    size_t pos = 0;
    while (pos < sdp.size()) {
        size_t eol = sdp.find('\n', pos);
        size_t next = eol == std::string::npos ? sdp.size() : eol + 1;
        bool drop = false;
        for (const char* p : prefixes) drop = drop || sdp.compare(pos, std::strlen(p), p) == 0;
        if (!drop) out.append(sdp, pos, next - pos);
        pos = next;
    }
    return out;
}

// Lines that start with `prefix` (and hold `part`, when given).
inline int CountLines(const std::string& sdp, const char* prefix, const char* part = nullptr) {
    int n = 0;
    size_t pos = 0, len = std::strlen(prefix);
    while (pos < sdp.size()) {
        size_t eol = sdp.find('\n', pos);
        if (sdp.compare(pos, len, prefix) == 0 &&
            (!part || sdp.substr(pos, eol == std::string::npos ? eol : eol - pos).find(part) !=
                          std::string::npos))
            ++n;
        pos = sdp.find('\n', pos);
        if (pos == std::string::npos) break;
        ++pos;
    }
    return n;
}

}  // namespace mediatest

#endif
