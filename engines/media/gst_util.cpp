#include "gst_util.h"

#include <chrono>

#include "media_internal.h"

namespace libwebrtc {
namespace media {

ElementRef MakeElement(const char* factory) {
    GstElement* raw = gst_element_factory_make(factory, nullptr);
    return ElementRef(raw ? GST_ELEMENT(gst_object_ref_sink(raw)) : nullptr);
}

ElementRef ParseBin(const std::string& description, const char* what) {
    ErrorRef err;
    GstElement* raw = gst_parse_bin_from_description(description.c_str(), TRUE, Out(err));
    // Floating: sink it so the holder owns a plain reference either way.
    ElementRef bin(raw ? GST_ELEMENT(gst_object_ref_sink(raw)) : nullptr);
    if (!bin || err) {
        GST_ERROR("%s: %s", what, err ? err->message : "?");
        return nullptr;
    }
    return bin;
}

ElementRef ParseLaunch(const std::string& description, const char* what) {
    ErrorRef err;
    GstElement* raw = gst_parse_launch(description.c_str(), Out(err));
    ElementRef pipeline(raw ? GST_ELEMENT(gst_object_ref_sink(raw)) : nullptr);
    if (!pipeline || err) {
        GST_ERROR("%s: %s", what, err ? err->message : "?");
        return nullptr;
    }
    return pipeline;
}

ElementRef ByName(GstElement* bin, const char* name) {
    return ElementRef(gst_bin_get_by_name(GST_BIN(bin), name));
}

std::string SdpText(const GstSDPMessage* msg) {
    if (!msg) return std::string();
    GCharRef text(gst_sdp_message_as_text(msg));
    return text ? std::string(text.get()) : std::string();
}

std::string SdpText(const GstWebRTCSessionDescription* desc) {
    return desc ? SdpText(desc->sdp) : std::string();
}

PromiseWaiter::PromiseWaiter(int timeout_ms)
    : state_(std::make_shared<State>()), timeout_ms_(timeout_ms) {
    // The promise may outlive this waiter inside webrtcbin: it owns its own
    // reference to the state.
    promise_ = gst_promise_new_with_change_func(
        &PromiseWaiter::Changed, new std::shared_ptr<State>(state_),
        [](gpointer d) { delete static_cast<std::shared_ptr<State>*>(d); });
}

PromiseWaiter::~PromiseWaiter() {
    gst_promise_unref(promise_);
}

void PromiseWaiter::Changed(GstPromise*, gpointer d) {
    auto& s = *static_cast<std::shared_ptr<State>*>(d);
    {
        std::lock_guard<std::mutex> lock(s->mutex);
        s->done = true;
    }
    s->cv.notify_all();
}

void PromiseWaiter::Cancel() {
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->cancelled = true;
    }
    state_->cv.notify_all();
}

const GstStructure* PromiseWaiter::Wait(std::string* error) {
    bool done, cancelled;
    {
        std::unique_lock<std::mutex> lock(state_->mutex);
        state_->cv.wait_for(lock, std::chrono::milliseconds(timeout_ms_),
                            [&] { return state_->done || state_->cancelled; });
        done = state_->done;
        cancelled = state_->cancelled;
    }
    // Not answered: give up on it. A reply that comes later is dropped by
    // GStreamer; interrupting an answered promise does nothing.
    if (!done) gst_promise_interrupt(promise_);
    if (gst_promise_wait(promise_) != GST_PROMISE_RESULT_REPLIED) {
        *error = cancelled ? "peer connection closed" : "timed out";
        return nullptr;
    }
    const GstStructure* reply = gst_promise_get_reply(promise_);
    if (reply && gst_structure_has_field(reply, "error")) {
        GError* raw = nullptr;  // varargs: no holder conversion here
        gst_structure_get(reply, "error", G_TYPE_ERROR, &raw, nullptr);
        ErrorRef err(raw);
        *error = err ? err->message : "failed";
        return nullptr;
    }
    return reply;
}

}  // namespace media
}  // namespace libwebrtc
