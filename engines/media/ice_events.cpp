// The ICE agent's news, handled on the worker: our candidates and the end of their
// gathering (the SDK sends its description only then), and connectivity.
#include "session.h"

namespace libwebrtc {
namespace media {

Session::Line* Session::LineOf(guint nice_stream) {
    for (Line& line : lines_)
        if (line.nice_stream == nice_stream && nice_stream != 0) return &line;
    return nullptr;
}

void Session::OnLocalCandidate(guint stream, const sdp::Candidate& candidate) {
    Line* line = LineOf(stream);
    if (!line || gate_.closed()) return;
    line->candidates.push_back(candidate);
    if (!gathering_reported_) return;  // reported once the local description is set
    std::string mid;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (line->index >= local_desc_.media.size()) return;
        local_desc_.media[line->index].candidates.push_back(candidate);
        mid = local_desc_.media[line->index].mid;
    }
    FillDefaults();
    scoped_refptr<RTCIceCandidate> cand(new RefCountedObject<IceCandidateImpl>(
        candidate.Attribute(), mid, static_cast<int>(line->index)));
    Notify([&](RTCPeerConnectionObserver* o) { o->OnIceCandidate(cand); });
}

void Session::OnGathered(guint stream) {
    Line* line = LineOf(stream);
    if (!line) return;
    line->gathered = true;
    for (const Line& l : lines_)
        if (l.nice_stream && !l.gathered) return;
    Mark("media: gathering complete (ICE)");
    if (gathering_reported_) GatheringDone(gather_generation_);
}

// After SetLocalDescription: gathering, each candidate so far, then complete once
// every line has all its candidates. Non-trickle users wait for that last report:
// it comes within kGatheringMaxMs whatever happens.
void Session::StartGathering() {
    if (gathering_reported_) return;
    gathering_reported_ = true;
    unsigned generation = ++gather_generation_;
    gathering_ = RTCIceGatheringStateGathering;
    Notify([](RTCPeerConnectionObserver* o) {
        o->OnIceGatheringState(RTCIceGatheringStateGathering);
    });
    for (const Line& line : lines_) {
        std::string mid;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (line.index < local_desc_.media.size()) mid = local_desc_.media[line.index].mid;
        }
        for (const sdp::Candidate& c : line.candidates) {
            scoped_refptr<RTCIceCandidate> cand(new RefCountedObject<IceCandidateImpl>(
                c.Attribute(), mid, static_cast<int>(line.index)));
            Notify([&](RTCPeerConnectionObserver* o) { o->OnIceCandidate(cand); });
        }
    }
    FillDefaults();
    worker_.PostDelayed(kGatheringMaxMs, [w = weak_from_this(), generation] {
        if (auto self = w.lock()) self->GatheringDone(generation);
    });
    bool all = true;
    for (const Line& l : lines_) all = all && (!l.nice_stream || l.gathered);
    if (all) GatheringDone(generation);
}

void Session::GatheringDone(unsigned generation) {
    if (generation != gather_generation_ || gathering_ != RTCIceGatheringStateGathering) return;
    FillDefaults();
    gathering_ = RTCIceGatheringStateComplete;
    Mark("media: gathering complete (reported)");
    // A plain offer's twins, for the SIP engine to send in turn should a callee refuse
    // what it got: RTP/AVP (SIP phones without AVPF), then DTLS-SRTP (browsers).
    if (offerer_ && !alternative_shared_ && !offer_.media.empty() &&
        !sdp::IsDtls(offer_.media.front().profile) && !LocalFingerprint().empty()) {
        alternative_shared_ = true;
        std::string avp, dtls;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            avp = sdp::Write(sdp::WithPlainAvp(local_desc_));
            dtls = sdp::Write(sdp::WithDtls(local_desc_, LocalFingerprint()));
        }
        const char* variants[] = {avp.c_str(), dtls.c_str()};
        std::string ufrag = identity_.ice_ufrag;
        zarn_link_put_alternatives(ufrag.c_str(), variants, 2);
        OnClose([ufrag] { zarn_link_forget_alternative(ufrag.c_str()); });
    }
    Notify(
        [](RTCPeerConnectionObserver* o) { o->OnIceGatheringState(RTCIceGatheringStateComplete); });
}

// A complete description names its default candidate in c= and m= (and a=rtcp).
void Session::FillDefaults() {
    if (!ice_) return;
    std::lock_guard<std::mutex> lock(mutex_);
    for (const Line& line : lines_) {
        if (!line.nice_stream || line.index >= local_desc_.media.size()) continue;
        sdp::Media& m = local_desc_.media[line.index];
        std::string address;
        int port = 0;
        if (!ice_->Default(line.nice_stream, 1, &address, &port)) continue;
        m.port = port;
        m.address = address;
        if (local_desc_.origin_address == "0.0.0.0") local_desc_.origin_address = address;
        if (line.components == 2 && ice_->Default(line.nice_stream, 2, &address, &port)) {
            m.rtcp_port = port;
            m.rtcp_address = address;
        }
    }
}

void Session::OnComponentState(guint stream, guint component, NiceComponentState state) {
    Line* line = LineOf(stream);
    if (!line || component < 1 || component > 2 || gate_.closed()) return;
    line->state[component] = state;
    if (state == NICE_COMPONENT_STATE_CONNECTING) Mark("media: ICE checking");
    if ((state == NICE_COMPONENT_STATE_CONNECTED || state == NICE_COMPONENT_STATE_READY) &&
        line->transport)
        ComponentUp(*line, component);
    if (state == NICE_COMPONENT_STATE_FAILED) Mark("media: ICE failed");
    UpdateIceConnection();
}

// Our side can send on the component: so can the transport, and until the far end
// is heard there, it is nudged (ice_nudge.h).
void Session::ComponentUp(Line& line, guint component) {
    line.transport->ComponentReady(component);
    if (line.nudge[component] || line.heard->component[component]) return;
    for (const sdp::StreamPlan& sp : plan_.streams) {
        if (sp.index != line.index) continue;
        NudgeTarget target;
        target.stream = line.nice_stream;
        target.component = component;
        target.local_ufrag = identity_.ice_ufrag;
        target.remote_ufrag = sp.remote_ufrag;
        target.remote_pwd = sp.remote_pwd;
        line.nudge[component] = IceNudge::Start(IceContext(), ice_->agent(), target, line.heard);
        OnClose([nudge = line.nudge[component]] { nudge->Stop(); });
        return;
    }
}

// One state for the call from every component that carries it.
void Session::UpdateIceConnection() {
    bool any = false, failed = false, checking = false, connected = true;
    for (const sdp::StreamPlan& sp : plan_.streams) {
        if (!sp.active || sp.index >= lines_.size()) continue;
        const Line& line = lines_[sp.index];
        for (int c = 1; c <= (sp.rtcp_mux ? 1 : 2); ++c) {
            any = true;
            NiceComponentState st = line.state[c];
            failed = failed || st == NICE_COMPONENT_STATE_FAILED;
            checking = checking || st == NICE_COMPONENT_STATE_CONNECTING;
            connected = connected &&
                        (st == NICE_COMPONENT_STATE_CONNECTED || st == NICE_COMPONENT_STATE_READY);
        }
    }
    RTCIceConnectionState state = RTCIceConnectionStateNew;
    if (failed)
        state = RTCIceConnectionStateFailed;
    else if (any && connected)
        state = RTCIceConnectionStateConnected;
    else if (checking)
        state = RTCIceConnectionStateChecking;
    if (ice_connection_.exchange(state) == state) return;
    if (state == RTCIceConnectionStateConnected) Mark("media: ICE connected (call)");
    Notify([state](RTCPeerConnectionObserver* o) { o->OnIceConnectionState(state); });
}

}  // namespace media
}  // namespace libwebrtc
