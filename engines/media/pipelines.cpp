// Pipeline descriptions (gst-launch syntax) of calls, capture and playback.
#include "pipelines.h"

#include "gst_util.h"

namespace libwebrtc {
namespace media {

namespace {

bool HasElement(const char* name) {
    return GstRef<GstElementFactory>(gst_element_factory_find(name)) != nullptr;
}

}  // namespace

std::string H264EncoderDescription(unsigned kbps) {
    static const bool x264 = HasElement("x264enc");
    if (x264)
        return "x264enc tune=zerolatency speed-preset=ultrafast key-int-max=30 bitrate=" +
               std::to_string(kbps) + " threads=1";
    return "openh264enc bitrate=" + std::to_string(kbps * 1000) +
           " gop-size=30 complexity=low rate-control=bitrate";
}

const char* H264DecoderName() {
    static const char* name = HasElement("avdec_h264") ? "avdec_h264" : "openh264dec";
    return name;
}

std::string VideoSendBranch(unsigned kbps, int payload) {
    if (payload < 0 || payload > 127) payload = kVideoPayload;
    std::string pt = std::to_string(payload);
    return std::string(
               "appsrc name=src is-live=true format=time do-timestamp=true "
               "leaky-type=downstream max-buffers=3 ! queue max-size-buffers=3 leaky=downstream "
               "! videoconvert ! video/x-raw,format=I420 ! ") +
           H264EncoderDescription(kbps) +
           " ! video/x-h264,profile=constrained-baseline ! "
           "rtph264pay config-interval=-1 aggregate-mode=zero-latency pt=" +
           pt +
           " ! capsfilter caps=\"application/x-rtp,media=video,encoding-name=H264,payload=" + pt +
           ",clock-rate=90000\"";
}

std::string AudioSendBranch(bool capture_device) {
    std::string src = capture_device ? "autoaudiosrc"
                                     : "audiotestsrc is-live=true wave=sine freq=440 volume=0.1 "
                                       "samplesperbuffer=160";
    return src + " ! audioconvert ! audioresample ! " + kAudioRaw8k +
           " ! volume name=vol ! audiomixer name=mix start-time-selection=first ! " + kAudioRaw8k +
           " ! alawenc ! rtppcmapay pt=8 ! capsfilter caps=\"" + kAudioRtpCaps + "\"";
}

std::string VideoReceiveBranch() {
    return std::string("queue ! rtph264depay ! h264parse ! ") + H264DecoderName() +
           " ! videoconvert ! video/x-raw,format=I420 ! "
           "appsink name=out sync=false max-buffers=2 drop=true";
}

std::string AudioReceiveBranch(const std::string& encoding) {
    std::string depay;
    if (encoding == kAudioCodec)
        depay = "queue ! rtppcmadepay ! alawdec";
    else if (encoding == kAudioCodecAlt)
        depay = "queue ! rtppcmudepay ! mulawdec";
    else
        return std::string();
    return depay + " ! audioconvert ! audioresample ! volume name=vol";
}

// Paced by its own clock (sync=true) so that a non-live decoder never
// disturbs the live call pipeline.
std::string PlaybackDecoder() {
    return std::string("filesrc name=file ! decodebin ! audioconvert ! audioresample ! ") +
           kAudioRaw8k + " ! appsink name=out sync=true max-buffers=4";
}

std::string PlaybackEntry() {
    return std::string("appsrc name=src is-live=true format=time do-timestamp=true caps=") +
           kAudioRaw8k + " ! queue";
}

std::string CaptureDescription(const std::string& source, int width, int height, int fps) {
    std::string caps = "video/x-raw,format=I420,width=" + std::to_string(width) +
                       ",height=" + std::to_string(height) + ",framerate=" + std::to_string(fps) +
                       "/1,pixel-aspect-ratio=1/1";
    std::string sink = " ! appsink name=out sync=false max-buffers=2 drop=true emit-signals=true";
    // The test pattern makes exactly what is asked for. videorate would also hold its
    // first picture back until the second one came, a whole frame period per call.
    if (source.rfind("videotestsrc", 0) == 0) return source + " ! " + caps + sink;
    return source + " ! videoconvert ! videoscale ! videorate ! " + caps + sink;
}

}  // namespace media
}  // namespace libwebrtc
