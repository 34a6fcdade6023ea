// Every pipeline description, codec name, label and timing constant of the
// engine, in one place.
#ifndef ZARNRTC_MEDIA_PIPELINES_H
#define ZARNRTC_MEDIA_PIPELINES_H

#include <string>

namespace libwebrtc {
namespace media {

// Timing of offer/answer and ICE gathering (milliseconds).
constexpr int kPromiseTimeoutMs = 5000;
constexpr int kCapsWaitMs = 1500;
constexpr int kGatheringAfterFirstCandidateMs = 1000;
constexpr int kGatheringMaxMs = 2000;
constexpr unsigned kJitterLatencyMs = 100;
constexpr unsigned kIcePacingMs = 5;
constexpr unsigned kFaststartPackets = 2;  // in order: a stream starts without the latency

// Capture defaults; I420 needs even sizes.
constexpr int kDefaultWidth = 640;
constexpr int kDefaultHeight = 480;
constexpr int kDefaultFps = 15;
constexpr int kScreenWidth = 1280;
constexpr int kScreenHeight = 720;

// Video bit rate when the configuration gives none (or an unusable one), kbit/s.
constexpr unsigned kMinVideoKbps = 64;
constexpr unsigned kDefaultVideoKbps = 512;

// Codecs on the wire.
constexpr const char* kVideoCodec = "H264";
constexpr const char* kAudioCodec = "PCMA";
constexpr const char* kAudioCodecAlt = "PCMU";  // accepted on receive only
constexpr int kVideoPayload = 96;               // in our offers; an answer takes the offer's
constexpr const char* kVideoRtpCaps =
    "application/x-rtp,media=video,encoding-name=H264,payload=96,clock-rate=90000";
constexpr const char* kAudioRtpCaps =
    "application/x-rtp,media=audio,encoding-name=PCMA,payload=8,clock-rate=8000";
constexpr const char* kAudioRaw8k =
    "audio/x-raw,format=S16LE,rate=8000,channels=1,layout=interleaved";

// Ids of remote media whose description names none (remote_<kind><m-line>).
constexpr const char* kRemoteStreamId = "remote_stream";
constexpr const char* kRemoteTrackPrefix = "remote_";

// Element names inside the branches below.
constexpr const char* kSrcName = "src";       // appsrc entry
constexpr const char* kOutName = "out";       // appsink exit
constexpr const char* kVolumeName = "vol";    // volume of an audio branch
constexpr const char* kMixerName = "mix";     // send audio mixer
constexpr const char* kFileSrcName = "file";  // playback file source

// The elements picked once: encoder and decoder for H264.
std::string H264EncoderDescription(unsigned kbps);
const char* H264DecoderName();

// Send branches: raw frames (appsrc) or a tone/microphone to RTP for webrtcbin.
// `payload`: the RTP payload type the far end's offer gave H264 (kVideoPayload in
// our own offers).
std::string VideoSendBranch(unsigned kbps, int payload = kVideoPayload);
std::string AudioSendBranch(bool capture_device);
// Receive branches from webrtcbin's RTP pads; empty for a codec we do not decode.
std::string VideoReceiveBranch();
std::string AudioReceiveBranch(const std::string& encoding);
constexpr const char* kDiscardBranch = "fakesink sync=false async=false";
// File playback: its decoder pipeline and its entry into the call's mixer.
std::string PlaybackDecoder();
std::string PlaybackEntry();
// A capturer: raw video from `source` to an appsink, scaled to the request.
std::string CaptureDescription(const std::string& source, int width, int height, int fps);

}  // namespace media
}  // namespace libwebrtc

#endif
