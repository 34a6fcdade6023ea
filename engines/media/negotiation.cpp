// Offer/answer: our descriptions, the far end's, and the call plan both make. Runs
// on the worker, in the order the application asked for it.
#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "media_settings.h"
#include "session.h"

namespace libwebrtc {
namespace media {

namespace {

std::string RandomDecimal() {
    // 62 bits, as o= lines are usually written: positive in any signed reader.
    unsigned long long v = (static_cast<unsigned long long>(g_random_int()) << 30) ^ g_random_int();
    return std::to_string(v & ((1ULL << 62) - 1));
}

uint32_t RandomSsrc() {
    uint32_t v = 0;
    while (v == 0) v = g_random_int();
    return v;
}

// "<tag> <suite> inline:<base64 key>[|lifetime][|mki]" of an a=crypto value.
bool ParseCrypto(const std::string& value, std::string* suite, std::string* key) {
    std::istringstream in(value);
    std::string tag, params;
    in >> tag >> *suite >> params;
    if (params.rfind("inline:", 0) != 0) return false;
    *key = params.substr(
        7, params.find('|') == std::string::npos ? std::string::npos : params.find('|') - 7);
    return !key->empty();
}

std::string RandomKey() {
    guint8 raw[30];
    for (guint8& b : raw) b = static_cast<guint8>(g_random_int_range(0, 256));
    GCharRef text(g_base64_encode(raw, sizeof(raw)));
    return text.get();
}

scoped_refptr<RTCSessionDescription> Describe(const std::string& text, const std::string& type) {
    return new RefCountedObject<SessionDescriptionImpl>(text, type);
}

}  // namespace

sdp::Capabilities Session::Caps() const {
    sdp::Capabilities caps;
    caps.h264 = !H264EncoderDescription(kMinVideoKbps).empty() && H264DecoderName() != nullptr;
    caps.vp8 = HasVp8();
    caps.require_encryption = RequireEncryption();
    std::vector<std::string> preferred = zarnrtc::settings::mediaSettings().videoCodecs;
    // What the installation prefers first; the other stays as a fallback.
    for (const std::string& c : {std::string("H264"), std::string("VP8")})
        if (std::find(preferred.begin(), preferred.end(), c) == preferred.end())
            preferred.push_back(c);
    caps.video_preference = preferred;
    caps.sdes = true;
    return caps;
}

// Who we are in descriptions: made once per call.
void Session::ShareIdentity() {
    if (!identity_.ice_ufrag.empty()) return;
    identity_.ice_ufrag = IceAgent::RandomToken(8);
    identity_.ice_pwd = IceAgent::RandomToken(24);
    identity_.fingerprint = LocalFingerprint();
    identity_.cname = IceAgent::RandomToken(16);
    identity_.session_id = RandomDecimal();
    identity_.session_version = "2";
    identity_.audio_ssrc = RandomSsrc();
    identity_.video_ssrc = RandomSsrc();
    identity_.video_rtx_ssrc = RandomSsrc();
    identity_.sdes_key = RandomKey();
    std::lock_guard<std::mutex> lock(mutex_);
    identity_.stream_id = local_.streams.empty() ? "stream" : local_.streams.front()->id();
    for (const LocalTrack& t : local_.tracks)
        (t.video ? identity_.video_track_id : identity_.audio_track_id) = t.track->id();
}

bool Session::EnsureIce() {
    if (ice_) return true;
    std::weak_ptr<Session> weak = weak_from_this();
    IceListener listener;
    listener.candidate = [weak](guint stream, const sdp::Candidate& c) {
        if (auto s = weak.lock())
            s->PostWeak([stream, c](Session* t) { t->OnLocalCandidate(stream, c); });
    };
    listener.gathered = [weak](guint stream) {
        if (auto s = weak.lock()) s->PostWeak([stream](Session* t) { t->OnGathered(stream); });
    };
    listener.state = [weak](guint stream, guint component, NiceComponentState state) {
        if (auto s = weak.lock())
            s->PostWeak([=](Session* t) { t->OnComponentState(stream, component, state); });
    };
    ice_ = IceAgent::Create(config_, MediaAddresses(), std::move(listener));
    if (!ice_) GST_ERROR("no ICE agent");
    return ice_ != nullptr;
}

void Session::CreateSdp(bool offer, OnSdpCreateSuccess success, OnSdpCreateFailure failure) {
    Post([offer, success, failure](Session* s) { s->DoCreateSdp(offer, success, failure); });
}

void Session::DoCreateSdp(bool offer, OnSdpCreateSuccess success, OnSdpCreateFailure failure) {
    if (gate_.closed()) return;
    Mark(offer ? "media: create offer" : "media: create answer");
    std::string error, text;
    if (offer) {
        if (!have_offer_ && !have_answer_) MakeOfferLines(&error);
        if (offerer_ && have_offer_) text = sdp::Write(offer_);
        if (text.empty() && error.empty()) error = "an offer was already answered";
    } else {
        if (!offerer_ && have_answer_) text = sdp::Write(answer_);
        if (text.empty()) error = "no remote offer to answer";
    }
    if (text.empty()) {
        GST_WARNING("create-%s failed: %s", offer ? "offer" : "answer", error.c_str());
        Reply([&] {
            if (failure) failure(error.c_str());
        });
        return;
    }
    Mark(offer ? "media: offer created" : "media: answer created");
    Reply([&] {
        if (success) success(text.c_str(), offer ? "offer" : "answer");
    });
}

// Our offer: audio then video, each when we send it or want to receive it.
bool Session::MakeOfferLines(std::string* error) {
    ShareIdentity();
    bool audio_track = false, video_track = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const LocalTrack& t : local_.tracks) (t.video ? video_track : audio_track) = true;
    }
    sdp::OfferOptions options;
    options.audio = audio_track || config_.offer_to_receive_audio;
    options.video = video_track || config_.offer_to_receive_video;
    options.audio_direction = audio_track ? sdp::Direction::kSendRecv : sdp::Direction::kRecvOnly;
    options.video_direction = video_track ? sdp::Direction::kSendRecv : sdp::Direction::kRecvOnly;
    options.dtls = config_.srtp_type != kSRTP_None || RequireEncryption();
    if (!options.audio && !options.video) {
        *error = "nothing to offer";
        return false;
    }
    if (!EnsureIce()) {
        *error = "no ICE agent";
        return false;
    }
    ice_->SetControlling(true);
    offer_ = sdp::MakeOffer(options, identity_, Caps());
    // Both components unless RTCP must be muxed: rtcp-mux is offered, not required.
    int components = config_.rtcp_mux_policy == RtcpMuxPolicy::kRtcpMuxPolicyRequire ? 1 : 2;
    for (size_t i = 0; i < offer_.media.size(); ++i) {
        Line line;
        line.index = i;
        line.kind = offer_.media[i].kind;
        line.components = components;
        line.nice_stream = ice_->AddStream(components, identity_.ice_ufrag, identity_.ice_pwd);
        if (line.nice_stream == 0 || !ice_->Gather(line.nice_stream)) {
            *error = "ICE could not start";
            return false;
        }
        lines_.push_back(std::move(line));
    }
    offerer_ = have_offer_ = true;
    return true;
}

void Session::SetDescription(bool local, std::string text, std::string type,
                             OnSetSdpSuccess success, OnSetSdpFailure failure) {
    Post([=](Session* s) { s->DoSetDescription(local, text, type, success, failure); });
}

void Session::DoSetDescription(bool local, const std::string& text, const std::string& type,
                               OnSetSdpSuccess success, OnSetSdpFailure failure) {
    if (gate_.closed()) return;
    std::string error;
    bool ok;
    if (local)
        ok = SetLocal(type, &error);
    else if (type == "offer")
        ok = TakeOffer(text, &error);
    else if (type == "answer" || type == "pranswer")
        ok = TakeAnswer(text, &error);
    else
        ok = (error = "unknown description type '" + type + "'", false);
    if (!ok) {
        GST_WARNING("set-%s-description(%s): %s", local ? "local" : "remote", type.c_str(),
                    error.c_str());
        Reply([&] {
            if (failure) failure(error.c_str());
        });
        return;
    }
    Mark(local ? "media: local description set" : "media: remote description set");
    if (local) StartGathering();
    StartLivenessWatch();
    Reply([&] {
        if (success) success();
    });
}

// Our own description as made by CreateOffer/CreateAnswer (the text handed back is
// ours; edits to it are not supported).
bool Session::SetLocal(const std::string& type, std::string* error) {
    bool offer = type == "offer";
    if (offer ? !(offerer_ && have_offer_) : !(!offerer_ && have_answer_)) {
        *error = offer ? "no offer was created" : "no answer was created";
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        bool first = local_type_.empty();
        local_desc_ = offer ? offer_ : answer_;
        local_type_ = offer ? "offer" : "answer";
        if (!first) return true;
        // Candidates gathered before the description was set go in now.
        for (const Line& line : lines_)
            if (line.index < local_desc_.media.size())
                for (const sdp::Candidate& c : line.candidates)
                    local_desc_.media[line.index].candidates.push_back(c);
    }
    SetSignaling(offer ? RTCSignalingStateHaveLocalOffer : RTCSignalingStateStable);
    return true;
}

bool Session::TakeOffer(const std::string& text, std::string* error) {
    if (have_offer_ || have_answer_) {
        *error = "a second offer is not supported";
        return false;
    }
    ShareIdentity();
    sdp::Description offer;
    bool audio_track = false, video_track = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const LocalTrack& t : local_.tracks) (t.video ? video_track : audio_track) = true;
    }
    std::string why;
    if (!sdp::Parse(text, &offer, &why) || !sdp::AnswerOffer(offer, identity_, Caps(), audio_track,
                                                             video_track, &answer_, &plan_, &why)) {
        zarn_link_report_unusable(text.c_str(), 488, why.c_str());
        *error = why;
        return false;
    }
    offer_ = std::move(offer);
    have_answer_ = true;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        remote_text_ = text;
        remote_type_ = "offer";
    }
    if (!MakeAnswerLines(error)) {
        zarn_link_report_unusable(text.c_str(), 500, error->c_str());
        return false;
    }
    SetSignaling(RTCSignalingStateHaveRemoteOffer);
    ApplyPlan();
    return true;
}

// The answerer's ICE starts at once: its checks may reach the offerer before our
// answer does, which saves a round trip.
bool Session::MakeAnswerLines(std::string* error) {
    if (!EnsureIce()) {
        *error = "no ICE agent";
        return false;
    }
    ice_->SetControlling(plan_.ice_controlling);
    for (const sdp::StreamPlan& sp : plan_.streams) {
        Line line;
        line.index = sp.index;
        line.kind = sp.kind;
        if (sp.active) {
            line.components = sp.rtcp_mux ? 1 : 2;
            line.nice_stream =
                ice_->AddStream(line.components, identity_.ice_ufrag, identity_.ice_pwd);
            if (line.nice_stream == 0 || !ice_->Gather(line.nice_stream) ||
                !ice_->SetRemote(line.nice_stream, sp.remote_ufrag, sp.remote_pwd,
                                 sp.remote_candidates)) {
                *error = "ICE could not start";
                return false;
            }
        }
        lines_.push_back(std::move(line));
    }
    return true;
}

bool Session::TakeAnswer(const std::string& text, std::string* error) {
    if (!offerer_ || !have_offer_) {
        *error = "no local offer to answer";
        return false;
    }
    if (planned_) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (text == remote_text_) return true;  // the same answer again (early media, then final)
        *error = "the call is already answered";
        return false;
    }
    sdp::Description answer;
    std::string why;
    if (!sdp::Parse(text, &answer, &why) ||
        !sdp::ApplyAnswer(offer_, answer, Caps(), &plan_, &why)) {
        zarn_link_report_unusable(text.c_str(), 488, why.c_str());
        *error = why;
        return false;
    }
    answer_ = std::move(answer);
    have_answer_ = true;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        remote_text_ = text;
        remote_type_ = "answer";
    }
    ice_->SetControlling(plan_.ice_controlling);
    for (const sdp::StreamPlan& sp : plan_.streams)
        if (sp.active && sp.index < lines_.size() && lines_[sp.index].nice_stream)
            ice_->SetRemote(lines_[sp.index].nice_stream, sp.remote_ufrag, sp.remote_pwd,
                            sp.remote_candidates);
    SetSignaling(RTCSignalingStateStable);
    ApplyPlan();
    return true;
}

// Both descriptions are known: send branches, then the transports they go out on.
void Session::ApplyPlan() {
    planned_ = true;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        shared_plan_ = plan_;
    }
    for (const sdp::StreamPlan& sp : plan_.streams) {
        if (!sp.active || sp.index >= lines_.size()) continue;
        Line& line = lines_[sp.index];
        if (!line.gate) line.gate = std::make_shared<SendGate>(line.kind == "video");
        OnClose([gate = line.gate] { gate->Discard(); });
        if (sp.send) line.sending = AttachSendBranch(line, sp);
        BuildTransport(line, sp);
    }
}

void Session::BuildTransport(Line& line, const sdp::StreamPlan& sp) {
    TransportConfig tc;
    tc.session = static_cast<guint>(sp.index);
    tc.nice_stream = line.nice_stream;
    tc.rtcp_mux = sp.rtcp_mux;
    tc.profile = sp.profile;
    tc.dtls_client = sp.dtls_client;
    tc.remote_fingerprint_hash = sp.remote_fingerprint_hash;
    tc.remote_fingerprint = sp.remote_fingerprint;
    if (!sp.local_crypto.empty() && !sp.remote_crypto.empty()) {
        std::string their_suite;
        if (!ParseCrypto(sp.local_crypto, &tc.suite, &tc.local_key) ||
            !ParseCrypto(sp.remote_crypto, &their_suite, &tc.remote_key)) {
            PeerLost("unreadable SRTP keys");
            return;
        }
    }
    tc.connection_id = "zrtc-" + std::to_string(timeline_id_) + "-" + std::to_string(sp.index);
    tc.timeline_id = timeline_id_;
    tc.heard = line.heard;
    TransportHooks hooks;
    std::weak_ptr<Session> weak = weak_from_this();
    size_t index = sp.index;
    hooks.ready = [weak, index] {
        if (auto s = weak.lock()) s->PostWeak([index](Session* t) { t->OnTransportReady(index); });
    };
    hooks.failed = [weak](const std::string& why) {
        if (auto s = weak.lock()) s->PostWeak([why](Session* t) { t->PeerLost(why); });
    };
    line.transport = LineTransport::Build(pipeline_, rtpbin_, ice_->agent(), tc, line.gate,
                                          arrivals_, std::move(hooks));
    if (!line.transport) {
        PeerLost("the media path could not be built");
        return;
    }
    OnClose(line.transport->Closer());
    TuneRtpSession(sp);
    for (guint c = 1; c <= 2; ++c)
        if (line.state[c] == NICE_COMPONENT_STATE_CONNECTED ||
            line.state[c] == NICE_COMPONENT_STATE_READY)
            ComponentUp(line, c);
}

void Session::OnTransportReady(size_t index) {
    GST_INFO("line %zu carries media", index);
}

void Session::SetSignaling(RTCSignalingState state) {
    if (signaling_.exchange(state) == state) return;
    Notify([state](RTCPeerConnectionObserver* o) { o->OnSignalingState(state); });
}

scoped_refptr<RTCSessionDescription> Session::LocalDescription() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (local_type_.empty() || shut_) return nullptr;
    return Describe(sdp::Write(local_desc_), local_type_);
}

scoped_refptr<RTCSessionDescription> Session::RemoteDescription() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (remote_type_.empty() || shut_) return nullptr;
    return Describe(remote_text_, remote_type_);
}

void Session::AddCandidate(const char* candidate, int mline) {
    sdp::Candidate c;
    if (!candidate || mline < 0 || gate_.closed() || !sdp::ParseCandidate(candidate, &c)) return;
    PostWeak([c, mline](Session* s) {
        if (static_cast<size_t>(mline) < s->lines_.size() && s->lines_[mline].nice_stream &&
            s->ice_)
            s->ice_->AddRemoteCandidate(s->lines_[mline].nice_stream, c);
    });
}

}  // namespace media
}  // namespace libwebrtc
