#include "callparams.h"

namespace zarnrtc {

CallParams::CallParams()
    : enableAudio(true),
      enableVideo(true),
      enableScreenShare(false),
      videoWidth(640),
      videoHeight(480),
      videoFps(15),
      videoCodec("H264"),
      videoMaxBitrate(1000),
      audioCodec("PCMA"),
      audioStartBitrate(100),
      audioProcessing(true),
      agcControlLevel(3),
      agcControlGain(3),
      displayName("zarnrtc") {}

bool CallParams::getAudioEnabled() {
    return enableAudio;
}
void CallParams::setEnableAudio(bool enable) {
    enableAudio = enable;
}
bool CallParams::getAudioProcessing() {
    return audioProcessing;
}
void CallParams::setEnableaudioProcessing(bool enable) {
    audioProcessing = enable;
}
void CallParams::setAgcControlLevel(int level) {
    agcControlLevel = level;
}
int CallParams::getAgcControlLevel() {
    return agcControlLevel;
}
void CallParams::setAgcControlGain(int gain) {
    agcControlGain = gain;
}
int CallParams::getAgcControlGain() {
    return agcControlGain;
}
void CallParams::setAudioCodec(std::string codec) {
    audioCodec = codec;
}
std::string CallParams::getAudioCodec() {
    return audioCodec;
}
void CallParams::setAudioStartBitrate(int bitrate) {
    audioStartBitrate = bitrate;
}
int CallParams::getAudioStartBitrate() {
    return audioStartBitrate;
}
bool CallParams::getVideoEnabled() {
    return enableVideo;
}
void CallParams::setEnableVideo(bool enable) {
    enableVideo = enable;
}
void CallParams::setVideoWidth(int width) {
    videoWidth = width;
}
int CallParams::getVideoWidth() {
    return videoWidth;
}
void CallParams::setVideoHeight(int height) {
    videoHeight = height;
}
int CallParams::getVideoHeight() {
    return videoHeight;
}
void CallParams::setVideoFps(int fps) {
    videoFps = fps;
}
int CallParams::getVideoFps() {
    return videoFps;
}
void CallParams::setVideoCodec(std::string codec) {
    videoCodec = codec;
}
std::string CallParams::getVideoCodec() {
    return videoCodec;
}
void CallParams::setVideoMaxBitrate(int bitrate) {
    videoMaxBitrate = bitrate;
}
int CallParams::getVideoMaxBitrate() {
    return videoMaxBitrate;
}
void CallParams::setScreenShare(bool enable) {
    enableScreenShare = enable;
}
bool CallParams::getScreenShare() {
    return enableScreenShare;
}
void CallParams::setDisplayName(std::string name) {
    displayName = name;
}
std::string CallParams::getDisplayName() {
    return displayName;
}

}  // namespace zarnrtc
