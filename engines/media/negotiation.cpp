// Offer/answer, descriptions, candidates and webrtcbin's state events. SDP work
// runs on the worker; webrtcbin events arrive on GStreamer threads, are read
// there and reported on the worker.
#include "negotiate.h"
#include "session.h"

namespace libwebrtc {
namespace media {

namespace {

RTCSignalingState MapSignaling(GstWebRTCSignalingState s) {
    switch (s) {
        case GST_WEBRTC_SIGNALING_STATE_HAVE_LOCAL_OFFER:
            return RTCSignalingStateHaveLocalOffer;
        case GST_WEBRTC_SIGNALING_STATE_HAVE_REMOTE_OFFER:
            return RTCSignalingStateHaveRemoteOffer;
        case GST_WEBRTC_SIGNALING_STATE_HAVE_LOCAL_PRANSWER:
            return RTCSignalingStateHaveLocalPrAnswer;
        case GST_WEBRTC_SIGNALING_STATE_HAVE_REMOTE_PRANSWER:
            return RTCSignalingStateHaveRemotePrAnswer;
        case GST_WEBRTC_SIGNALING_STATE_CLOSED:
            return RTCSignalingStateClosed;
        default:
            return RTCSignalingStateStable;
    }
}

RTCIceConnectionState MapIce(GstWebRTCICEConnectionState s) {
    switch (s) {
        case GST_WEBRTC_ICE_CONNECTION_STATE_CHECKING:
            return RTCIceConnectionStateChecking;
        case GST_WEBRTC_ICE_CONNECTION_STATE_CONNECTED:
            return RTCIceConnectionStateConnected;
        case GST_WEBRTC_ICE_CONNECTION_STATE_COMPLETED:
            return RTCIceConnectionStateCompleted;
        case GST_WEBRTC_ICE_CONNECTION_STATE_FAILED:
            return RTCIceConnectionStateFailed;
        case GST_WEBRTC_ICE_CONNECTION_STATE_DISCONNECTED:
            return RTCIceConnectionStateDisconnected;
        case GST_WEBRTC_ICE_CONNECTION_STATE_CLOSED:
            return RTCIceConnectionStateClosed;
        default:
            return RTCIceConnectionStateNew;
    }
}

// A provisional answer followed by the final one never connects in webrtcbin:
// every answer is final.
bool SdpType(const std::string& type, GstWebRTCSDPType* out) {
    if (type == "offer")
        *out = GST_WEBRTC_SDP_TYPE_OFFER;
    else if (type == "answer" || type == "pranswer")
        *out = GST_WEBRTC_SDP_TYPE_ANSWER;
    else
        return false;
    return true;
}

scoped_refptr<RTCSessionDescription> Describe(const GstWebRTCSessionDescription* desc,
                                              const std::string& text) {
    return new RefCountedObject<SessionDescriptionImpl>(text,
                                                        gst_webrtc_sdp_type_to_string(desc->type));
}

}  // namespace

const GstStructure* Session::Await(PromiseWaiter& waiter, std::string* error) {
    {
        std::lock_guard<std::mutex> lock(wait_mutex_);
        waiting_ = &waiter;
        if (gate_.closed()) waiter.Cancel();  // Close ran before we registered
    }
    const GstStructure* reply = waiter.Wait(error);
    std::lock_guard<std::mutex> lock(wait_mutex_);
    waiting_ = nullptr;
    return reply;
}

void Session::CreateSdp(bool offer, OnSdpCreateSuccess success, OnSdpCreateFailure failure) {
    Post([offer, success, failure](Session* s) { s->DoCreateSdp(offer, success, failure); });
}

void Session::DoCreateSdp(bool offer, OnSdpCreateSuccess success, OnSdpCreateFailure failure) {
    if (gate_.closed()) return;
    Mark(offer ? "media: create offer" : "media: create answer");
    if (offer) {
        AttachForOffer();
        AddRecvOnlyTransceivers();
    }
    WaitSinkCaps();
    Mark("media: send caps ready");
    PromiseWaiter waiter(kPromiseTimeoutMs);
    g_signal_emit_by_name(webrtc_, offer ? "create-offer" : "create-answer", nullptr,
                          waiter.promise());
    std::string error;
    const GstStructure* reply = Await(waiter, &error);
    GstWebRTCSessionDescription* raw = nullptr;
    if (reply)
        gst_structure_get(reply, offer ? "offer" : "answer", GST_TYPE_WEBRTC_SESSION_DESCRIPTION,
                          &raw, nullptr);
    DescriptionRef desc(raw);
    if (!desc) {
        if (error.empty()) error = "no description";
        GST_WARNING("create-%s failed: %s", offer ? "offer" : "answer", error.c_str());
        Reply([&] {
            if (failure) failure(error.c_str());
        });
        return;
    }
    std::string text = SdpText(desc.get());
    Mark(offer ? "media: offer created" : "media: answer created");
    Reply([&] {
        if (success) success(text.c_str(), offer ? "offer" : "answer");
    });
}

void Session::SetDescription(bool local, std::string text, std::string type,
                             OnSetSdpSuccess success, OnSetSdpFailure failure) {
    Post([=](Session* s) { s->DoSetDescription(local, text, type, success, failure); });
}

void Session::DoSetDescription(bool local, const std::string& text, const std::string& type,
                               OnSetSdpSuccess success, OnSetSdpFailure failure) {
    if (gate_.closed()) return;
    auto fail = [&](const std::string& error) {
        GST_WARNING("set-%s-description(%s): %s", local ? "local" : "remote", type.c_str(),
                    error.c_str());
        Reply([&] {
            if (failure) failure(error.c_str());
        });
    };
    GstWebRTCSDPType sdp_type;
    if (!SdpType(type, &sdp_type)) return fail("unknown description type '" + type + "'");
    // The same checks the SIP engine makes before it rings or accepts an answer.
    std::string unusable;
    if (!local && sdp_type == GST_WEBRTC_SDP_TYPE_OFFER) unusable = sdp::Unusable(text);
    if (!local && sdp_type != GST_WEBRTC_SDP_TYPE_OFFER) {
        scoped_refptr<RTCSessionDescription> ours = LocalDescription();
        const char* offer = ours ? ours->sdp() : nullptr;
        unusable = sdp::UnusableAnswer(offer ? offer : "", text);
    }
    if (!unusable.empty()) return fail(unusable);
    // webrtcbin needs a=mid on every m-line; older peers omit it.
    std::string edited = local ? text : sdp::AddMissingMids(text);
    SdpRef msg;
    GstSDPResult parsed = gst_sdp_message_new_from_text(edited.c_str(), Out(msg));
    if (parsed != GST_SDP_OK || !msg || gst_sdp_message_medias_len(msg.get()) == 0)
        return fail("unparsable SDP");
    if (!local) {
        std::lock_guard<std::mutex> lock(mutex_);
        remote_.sdp = edited;
    }
    DescriptionRef desc(gst_webrtc_session_description_new(sdp_type, msg.release()));
    PromiseWaiter waiter(kPromiseTimeoutMs);
    g_signal_emit_by_name(webrtc_, local ? "set-local-description" : "set-remote-description",
                          desc.get(), waiter.promise());
    std::string error;
    if (!Await(waiter, &error) && !error.empty()) return fail(error);
    Mark(local ? "media: local description set" : "media: remote description set");
    if (!local && sdp_type == GST_WEBRTC_SDP_TYPE_OFFER) AttachForAnswer(desc->sdp);
    if (local) StartGathering();
    StartLivenessWatch();
    Reply([&] {
        if (success) success();
    });
}

// Non-trickle users wait for completion: never let it hang.
void Session::StartGathering() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        local_set_ = true;
    }
    unsigned generation = ++gather_generation_;
    candidate_timer_armed_ = false;
    if (gathering_ != RTCIceGatheringStateGathering) {
        gathering_ = RTCIceGatheringStateGathering;
        Notify([](RTCPeerConnectionObserver* o) {
            o->OnIceGatheringState(RTCIceGatheringStateGathering);
        });
    }
    worker_.PostDelayed(kGatheringMaxMs, [w = weak_from_this(), generation] {
        if (auto self = w.lock()) self->GatheringDone(generation);
    });
    GstWebRTCICEGatheringState state;
    g_object_get(webrtc_, "ice-gathering-state", &state, nullptr);
    if (state == GST_WEBRTC_ICE_GATHERING_STATE_COMPLETE) GatheringDone(generation);
}

void Session::GatheringDone(unsigned generation) {
    if (generation != gather_generation_ || gathering_ != RTCIceGatheringStateGathering) return;
    gathering_ = RTCIceGatheringStateComplete;
    Mark("media: gathering complete (reported)");
    Notify(
        [](RTCPeerConnectionObserver* o) { o->OnIceGatheringState(RTCIceGatheringStateComplete); });
}

// Offers made before the encoders negotiated lose their ssrc/msid lines. Pad
// caps have no change signal of their own here, hence the short sleeps.
void Session::WaitSinkCaps() {
    const gint64 deadline = g_get_monotonic_time() + kCapsWaitMs * G_TIME_SPAN_MILLISECOND;
    while (g_get_monotonic_time() < deadline && !gate_.closed()) {
        bool all = true;
        GstIterator* it = gst_element_iterate_sink_pads(webrtc_);
        GValue v = G_VALUE_INIT;
        while (gst_iterator_next(it, &v) == GST_ITERATOR_OK) {
            CapsRef caps(gst_pad_get_current_caps(GST_PAD(g_value_get_object(&v))));
            all = all && caps;
            g_value_reset(&v);
        }
        g_value_unset(&v);
        gst_iterator_free(it);
        if (all) return;
        g_usleep(500);  // the encoder is a few ms from its caps: every one counts
    }
    GST_WARNING("sink pads without caps: the description may lack ssrc lines");
}

scoped_refptr<RTCSessionDescription> Session::LocalDescription() {
    sdp::Candidates candidates;
    std::string offer;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!local_set_ || shut_) return nullptr;
        candidates = candidates_;
        offer = remote_.sdp;
    }
    GstWebRTCSessionDescription* raw = nullptr;
    g_object_get(webrtc_, "local-description", &raw, nullptr);
    DescriptionRef desc(raw);
    if (!desc) return nullptr;
    // Candidates reported but not yet written into the description go in too.
    std::string text = sdp::AddCandidates(SdpText(desc.get()), candidates);
    if (desc->type == GST_WEBRTC_SDP_TYPE_ANSWER) text = sdp::AnswerH264Profile(text, offer);
    return Describe(desc.get(), text);
}

scoped_refptr<RTCSessionDescription> Session::RemoteDescription() {
    if (gate_.closed()) return nullptr;
    GstWebRTCSessionDescription* raw = nullptr;
    g_object_get(webrtc_, "remote-description", &raw, nullptr);
    DescriptionRef desc(raw);
    if (!desc) return nullptr;
    return Describe(desc.get(), SdpText(desc.get()));
}

void Session::AddCandidate(const char* candidate, int mline) {
    if (!candidate || mline < 0 || gate_.closed()) return;
    std::string c(candidate);
    if (c.rfind("a=", 0) == 0) c = c.substr(2);
    Post([c, mline](Session* s) {
        if (!s->gate_.closed())
            g_signal_emit_by_name(s->webrtc_, "add-ice-candidate", static_cast<guint>(mline),
                                  c.c_str());
    });
}

// ---------------------------------------------------------------------------
// webrtcbin events (GStreamer threads)

void Session::OnSignalingChanged() {
    GstWebRTCSignalingState st;
    g_object_get(webrtc_, "signaling-state", &st, nullptr);
    RTCSignalingState mapped = MapSignaling(st);
    signaling_ = mapped;
    Post([mapped](Session* s) {
        s->Notify([&](RTCPeerConnectionObserver* o) { o->OnSignalingState(mapped); });
    });
}

void Session::OnGatheringChanged() {
    GstWebRTCICEGatheringState st;
    g_object_get(webrtc_, "ice-gathering-state", &st, nullptr);
    if (st == GST_WEBRTC_ICE_GATHERING_STATE_GATHERING) Mark("media: gathering");
    if (st != GST_WEBRTC_ICE_GATHERING_STATE_COMPLETE) return;
    Mark("media: gathering complete (webrtcbin)");
    // Queued behind the candidate reports, so they are all in by then.
    Post([](Session* s) { s->GatheringDone(s->gather_generation_); });
}

void Session::OnIceConnectionChanged() {
    GstWebRTCICEConnectionState st;
    g_object_get(webrtc_, "ice-connection-state", &st, nullptr);
    RTCIceConnectionState mapped = MapIce(st);
    if (mapped == RTCIceConnectionStateChecking) Mark("media: ICE checking");
    if (mapped == RTCIceConnectionStateConnected) Mark("media: ICE connected");
    if (mapped == RTCIceConnectionStateFailed) Mark("media: ICE failed");
    ice_connection_ = mapped;
    Post([mapped](Session* s) {
        s->Notify([&](RTCPeerConnectionObserver* o) { o->OnIceConnectionState(mapped); });
    });
}

void Session::OnIceCandidate(guint mline, const char* candidate) {
    std::string c = Str(candidate);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        candidates_.emplace_back(mline, c);
    }
    Post([mline, c](Session* s) {
        if (!s->candidate_timer_armed_ && s->gathering_ == RTCIceGatheringStateGathering) {
            s->candidate_timer_armed_ = true;
            unsigned generation = s->gather_generation_;
            s->worker_.PostDelayed(kGatheringAfterFirstCandidateMs,
                                   [w = s->weak_from_this(), generation] {
                                       if (auto self = w.lock()) self->GatheringDone(generation);
                                   });
        }
        scoped_refptr<RTCIceCandidate> cand(
            new RefCountedObject<IceCandidateImpl>(c, s->MidOf(mline), static_cast<int>(mline)));
        s->Notify([&](RTCPeerConnectionObserver* o) { o->OnIceCandidate(cand); });
    });
}

std::string Session::MidOf(guint mline) {
    GArray* transceivers = nullptr;
    g_signal_emit_by_name(webrtc_, "get-transceivers", &transceivers);
    std::string mid;
    for (guint i = 0; transceivers && i < transceivers->len; ++i) {
        GstWebRTCRTPTransceiver* t = g_array_index(transceivers, GstWebRTCRTPTransceiver*, i);
        guint index = 0;
        gchar* raw = nullptr;
        g_object_get(t, "mlineindex", &index, "mid", &raw, nullptr);
        GCharRef m(raw);
        if (index == mline && m) mid = m.get();
    }
    if (transceivers) g_array_unref(transceivers);
    return mid.empty() ? std::to_string(mline) : mid;
}

}  // namespace media
}  // namespace libwebrtc
