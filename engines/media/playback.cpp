// audioPlay: a file decoded in its own small pipeline and mixed into what the
// far end hears.
#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>

#include "session.h"

namespace libwebrtc {
namespace media {

namespace {

// Each decoded buffer of the file's appsink goes into the call's appsrc, which
// stamps it with the call's clock.
void ForwardSamples(GstElement* decoder, GstElement* appsrc) {
    ElementRef out = ByName(decoder, kOutName);
    GstAppSinkCallbacks cb{};
    cb.new_sample = [](GstAppSink* sink, gpointer d) -> GstFlowReturn {
        GstSample* s = gst_app_sink_pull_sample(sink);
        if (!s) return GST_FLOW_EOS;
        GstBuffer* b = gst_buffer_copy(gst_sample_get_buffer(s));
        gst_sample_unref(s);
        GST_BUFFER_PTS(b) = GST_BUFFER_DTS(b) = GST_CLOCK_TIME_NONE;
        gst_app_src_push_buffer(GST_APP_SRC(d), b);
        return GST_FLOW_OK;
    };
    cb.eos = [](GstAppSink*, gpointer d) { gst_app_src_end_of_stream(GST_APP_SRC(d)); };
    gst_app_sink_set_callbacks(GST_APP_SINK(out.get()), &cb, gst_object_ref(appsrc),
                               gst_object_unref);
}

}  // namespace

// Inside the send branch's bin, next to the mixer, so the pads can link.
void Session::LinkToMixer(GstElement* entry) {
    gst_bin_add(GST_BIN(GST_ELEMENT_PARENT(local_.mixer.get())), entry);
    PadRef mixpad(gst_element_request_pad_simple(local_.mixer.get(), "sink_%u"));
    PadRef srcpad(gst_element_get_static_pad(entry, "src"));
    gst_pad_link(srcpad.get(), mixpad.get());
    gst_element_sync_state_with_parent(entry);
}

void Session::PlayFile(const std::string& file) {
    if (!g_file_test(file.c_str(), G_FILE_TEST_IS_REGULAR)) {
        GST_WARNING("audioPlay: no such file '%s'", file.c_str());
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (shut_ || !local_.mixer) return;
    ElementRef entry = ParseBin(PlaybackEntry(), "audioPlay");
    ElementRef decoder = entry ? ParseLaunch(PlaybackDecoder(), "audioPlay") : nullptr;
    if (!entry || !decoder) return;
    g_object_set(ByName(decoder.get(), kFileSrcName).get(), "location", file.c_str(), nullptr);
    InstallBusDropHandler(decoder.get(), "audioPlay");
    LinkToMixer(entry.get());
    ElementRef appsrc = ByName(entry.get(), kSrcName);
    ForwardSamples(decoder.get(), appsrc.get());
    gst_element_set_state(decoder.get(), GST_STATE_PLAYING);
    local_.playbacks.push_back({std::move(decoder), std::move(appsrc)});
}

void RtpReceiverImpl::audioPlay(const char* file_name) {
    if (!file_name) return;
    if (auto s = session_.lock()) s->PlayFile(file_name);
}

}  // namespace media
}  // namespace libwebrtc
