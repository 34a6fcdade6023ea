// Every pipeline description, codec name, label and timing constant of the
// engine, in one place.
#ifndef ZARNRTC_MEDIA_PIPELINES_H
#define ZARNRTC_MEDIA_PIPELINES_H

#include <string>

#include "sdp_model.h"

namespace libwebrtc {
namespace media {

// Timing of ICE gathering, jitter buffers and retransmission (milliseconds).
constexpr int kGatheringMaxMs = 2000;
// Jitter buffer latency: floors, ceiling, and how fast it comes down (rtp_setup.cpp).
constexpr unsigned kVideoJitterFloorMs = 150;
constexpr unsigned kAudioJitterFloorMs = 20;
constexpr unsigned kVideoJitterMaxMs = 200;
constexpr unsigned kAudioJitterMaxMs = 150;
constexpr unsigned kJitterStepDownMs = 5;
constexpr unsigned kIcePacingMs = 5;
// Transmissions of one connectivity check (500 ms apart, doubling). libnice's 3 gave
// up on a pair after three losses; an answering side whose checks all failed never
// recovers, since the caller, done, sends no more (seen under 20 % loss).
constexpr unsigned kIceCheckTransmissions = 7;
constexpr unsigned kFaststartPackets = 2;          // in order: a stream starts without the latency
constexpr unsigned kRtxHistoryMs = 1000;           // what the sender keeps for retransmission
constexpr int kRtxFirstRequestMs = 10;             // a gap waits this long for a late packet
constexpr int kRtxMinRetryMs = 10;                 // retries no closer than this
constexpr double kFeedbackRtcpBytesPerS = 100000;  // RTCP budget of lines with NACK/PLI
// Audio leaves in packets of this many milliseconds, one for each buffer the source
// captures (the mixer's default of 10 ms sent them in pairs: 10 ms of jitter).
constexpr unsigned kAudioPacketMs = 20;
constexpr unsigned kRtpMtu = 1200;  // room for SRTP, DTLS and tunnels on any path

// Capture defaults; I420 needs even sizes.
constexpr int kDefaultWidth = 640;
constexpr int kDefaultHeight = 480;
constexpr int kDefaultFps = 15;
constexpr int kScreenWidth = 1280;
constexpr int kScreenHeight = 720;

// Key frames come when the far end asks (PLI, FIR) after a loss; one every this
// many pictures anyway, as a safety net (10 s at 15 fps).
constexpr int kKeyFrameSafetyFrames = 150;
// A receiver that has shown nothing for this long while packets come asks again.
constexpr unsigned kKeyFrameRetryMs = 400;

// Video bit rate when the configuration gives none (or an unusable one), kbit/s.
constexpr unsigned kMinVideoKbps = 64;
constexpr unsigned kDefaultVideoKbps = 512;

// Codecs on the wire (payload types come from the descriptions).
constexpr const char* kVideoCodec = "H264";
constexpr const char* kAudioCodec = "PCMA";
constexpr const char* kAudioRaw8k =
    "audio/x-raw,format=S16LE,rate=8000,channels=1,layout=interleaved";

// Ids of remote media whose description names none (remote_<kind><m-line>).
constexpr const char* kRemoteStreamId = "remote_stream";
constexpr const char* kRemoteTrackPrefix = "remote_";

// Element names inside the branches below.
constexpr const char* kSrcName = "src";       // appsrc entry
constexpr const char* kOutName = "out";       // appsink exit
constexpr const char* kVolumeName = "vol";    // volume of an audio branch
constexpr const char* kMicName = "mic";       // the clicking source of a send branch
constexpr const char* kPayName = "pay";       // a send branch's payloader
constexpr const char* kDepayName = "depay";   // a video receive branch's depayloader
constexpr const char* kMixerName = "mix";     // send audio mixer
constexpr const char* kFileSrcName = "file";  // playback file source

// The elements picked once: encoder and decoder for H264 ("" / null when missing).
std::string H264EncoderDescription(unsigned kbps);
const char* H264DecoderName();
bool HasVp8();

// What a call sends as audio: a quiet tone, the default capture device, or the
// benchmarks' clicks (stamp.h; drawn into a silent source named kMicName).
enum class AudioSource { kTone, kDevice, kClicks };

// Send branches: raw frames (appsrc) or a tone/microphone, encoded as `codec`
// (its payload type, and for H264 its packetization mode), in RTP with `ssrc`.
// "" for a codec we cannot send.
std::string VideoSendBranch(const sdp::Codec& codec, uint32_t ssrc, unsigned kbps);
std::string AudioSendBranch(const sdp::Codec& codec, uint32_t ssrc, AudioSource source);
// Receive branches from rtpbin's pads; "" for an encoding we do not decode. With
// `clicks` the decoded audio is 8 kHz mono S16 at the volume (kVolumeName), where
// the benchmarks' clicks are listened for.
std::string VideoReceiveBranch(const std::string& encoding);
std::string AudioReceiveBranch(const std::string& encoding, bool clicks = false);
constexpr const char* kDiscardBranch = "fakesink sync=false async=false";
// File playback: its decoder pipeline and its entry into the call's mixer.
std::string PlaybackDecoder();
std::string PlaybackEntry();
// A capturer: raw video from `source` to an appsink, scaled to the request.
std::string CaptureDescription(const std::string& source, int width, int height, int fps);

}  // namespace media
}  // namespace libwebrtc

#endif
