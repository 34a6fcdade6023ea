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
    static const bool openh264 = HasElement("openh264enc");
    if (x264)
        return "x264enc tune=zerolatency speed-preset=ultrafast key-int-max=" +
               std::to_string(kKeyFrameSafetyFrames) + " bitrate=" + std::to_string(kbps) +
               " threads=1";
    if (openh264)
        return "openh264enc bitrate=" + std::to_string(kbps * 1000) +
               " gop-size=" + std::to_string(kKeyFrameSafetyFrames) +
               " complexity=low rate-control=bitrate";
    return "";
}

const char* H264DecoderName() {
    static const char* name = HasElement("avdec_h264")    ? "avdec_h264"
                              : HasElement("openh264dec") ? "openh264dec"
                                                          : nullptr;
    return name;
}

bool HasVp8() {
    static const bool vp8 = HasElement("vp8enc") && HasElement("vp8dec");
    return vp8;
}

namespace {

std::string Upper(const std::string& s) {
    std::string out = s;
    for (char& c : out) c = static_cast<char>(g_ascii_toupper(c));
    return out;
}

// The payloader's settings every codec shares.
std::string Rtp(const sdp::Codec& codec, uint32_t ssrc) {
    return std::string(" name=") + kPayName + " pt=" + std::to_string(codec.pt) +
           " ssrc=" + std::to_string(ssrc) + " mtu=" + std::to_string(kRtpMtu);
}

}  // namespace

std::string VideoSendBranch(const sdp::Codec& codec, uint32_t ssrc, unsigned kbps) {
    if (codec.pt < 0 || codec.pt > 127) return "";
    std::string encode;
    std::string name = Upper(codec.name);
    if (name == "H264" && !H264EncoderDescription(kbps).empty()) {
        // Packetization mode 0 sends each NAL unit whole: slices small enough for a packet.
        bool single = codec.Param("packetization-mode") != "1";
        std::string enc = H264EncoderDescription(kbps);
        if (single && enc.rfind("x264enc", 0) == 0) enc += " option-string=slice-max-size=1100";
        encode = enc +
                 " ! video/x-h264,profile=constrained-baseline ! rtph264pay "
                 "config-interval=-1 aggregate-mode=" +
                 std::string(single ? "none" : "zero-latency") + Rtp(codec, ssrc);
    } else if (name == "VP8" && HasVp8()) {
        encode =
            "vp8enc deadline=1 cpu-used=8 end-usage=cbr lag-in-frames=0 threads=1 "
            "error-resilient=default keyframe-max-dist=" +
            std::to_string(kKeyFrameSafetyFrames) +
            " target-bitrate=" + std::to_string(kbps * 1000) +
            " ! rtpvp8pay picture-id-mode=15-bit" + Rtp(codec, ssrc);
    } else {
        return "";
    }
    return std::string(
               "appsrc name=src is-live=true format=time do-timestamp=true "
               "leaky-type=downstream max-buffers=3 ! queue max-size-buffers=3 leaky=downstream "
               "! videoconvert ! video/x-raw,format=I420 ! ") +
           encode;
}

std::string AudioSendBranch(const sdp::Codec& codec, uint32_t ssrc, AudioSource source) {
    std::string name = Upper(codec.name), encode;
    if (name == "PCMA")
        encode = "alawenc ! rtppcmapay";
    else if (name == "PCMU")
        encode = "mulawenc ! rtppcmupay";
    else
        return "";
    std::string src;
    if (source == AudioSource::kDevice)
        src = "autoaudiosrc";
    else if (source == AudioSource::kClicks)
        src = std::string("audiotestsrc name=") + kMicName +
              " is-live=true wave=silence samplesperbuffer=160 ! " + kAudioRaw8k;
    else
        src = "audiotestsrc is-live=true wave=sine freq=440 volume=0.1 samplesperbuffer=160";
    return src + " ! audioconvert ! audioresample ! " + kAudioRaw8k +
           " ! volume name=vol ! audiomixer name=mix start-time-selection=first "
           "output-buffer-duration=" +
           std::to_string(kAudioPacketMs * 1000000ULL) + " ! " + kAudioRaw8k + " ! " + encode +
           Rtp(codec, ssrc);
}

// Decoders wait for a clean key frame after a loss and ask for one: a damaged
// picture never reaches the application.
std::string VideoReceiveBranch(const std::string& encoding) {
    std::string decode;
    if (encoding == "H264" && H264DecoderName()) {
        std::string dec = H264DecoderName();
        if (dec == "avdec_h264") dec += " output-corrupt=false";
        decode = std::string("rtph264depay name=") + kDepayName +
                 " request-keyframe=true wait-for-keyframe=true ! h264parse ! " + dec;
    } else if (encoding == "VP8" && HasVp8()) {
        decode = std::string("rtpvp8depay name=") + kDepayName +
                 " request-keyframe=true wait-for-keyframe=true ! vp8dec";
    } else {
        return "";
    }
    // async=false: a sink added to the playing pipeline must not take it back to
    // PAUSED until its first picture; with that key frame lost, the call's live
    // sources stopped, and with them the far end's chance of sending another.
    return "queue ! " + decode +
           " ! videoconvert ! video/x-raw,format=I420 ! "
           "appsink name=out sync=false async=false max-buffers=2 drop=true";
}

std::string AudioReceiveBranch(const std::string& encoding, bool clicks) {
    std::string depay;
    if (encoding == "PCMA")
        depay = "queue ! rtppcmadepay ! alawdec";
    else if (encoding == "PCMU")
        depay = "queue ! rtppcmudepay ! mulawdec";
    else
        return std::string();
    return depay + " ! audioconvert ! audioresample ! " +
           (clicks ? kAudioRaw8k + std::string(" ! ") : "") + "volume name=vol";
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
