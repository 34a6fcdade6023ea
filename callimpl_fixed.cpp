// The call operations this version answers with a constant or leaves empty.
#include "callimpl.h"

namespace zarnrtc {

void CallImpl::earlyAccept(bool, bool) {}
void CallImpl::makeAnswer() {}
int CallImpl::hangup() {
    return 0;
}
int CallImpl::updateCall(bool) {
    return 0;
}
int CallImpl::hold() {
    return 0;
}
int CallImpl::unHold() {
    return 0;
}
int CallImpl::sendDtmf(DtmfMethod, const char*, bool) {
    return 0;
}
int CallImpl::transfer(const char*) {
    return 0;
}
void CallImpl::onMediaStateChange(const char*, bool, bool) {}
void CallImpl::setVideoMaxBitrate(int) {}
void CallImpl::enableStatsEvents(bool, int) {}
void CallImpl::setAudioEnabled(bool) {}
void CallImpl::setVideoEnabled(bool) {}
bool CallImpl::isActive() {
    return true;
}
const char* CallImpl::getWebtcErrMessage() {
    return nullptr;
}
void CallImpl::startVideoSending() {}
void CallImpl::startVideoReceiving() {}
void CallImpl::stopVideoSending() {}
void CallImpl::stopVideoReceiving() {}
void CallImpl::startAudioSending() {}
void CallImpl::stopAudioSending() {}
void CallImpl::startAudioReceiving() {}
void CallImpl::stopAudioReceiving() {}
void CallImpl::switchCamera() {}
void CallImpl::changeCaptureFormat(int, int, int) {}
void CallImpl::updatePeerDeviceType(const char*) {}
void CallImpl::onCallReceiveReinvite(const char*) {}
void CallImpl::photoShot(bool, const char*) {}
void CallImpl::recordMedia(const char*, bool, bool) {}
void CallImpl::stopRecordMedia() {}
void CallImpl::record(const char*, const char*) {}
void CallImpl::localsnap(const char*) {}
void CallImpl::remotesnap(const char*) {}
Direction CallImpl::direction() {
    return kIncoming;
}
CallState CallImpl::call_state() {
    return kAnswered;
}
bool CallImpl::support_video() {
    return true;
}
bool CallImpl::support_data() {
    return true;
}

}  // namespace zarnrtc
