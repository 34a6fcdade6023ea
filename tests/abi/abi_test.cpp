// Applications compiled against the headers call through fixed virtual-table slots
// and pass fixed enumeration values: both must never move.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "callimpl.h"
#include "callStateObserver.h"
#include "callstreamobserver.h"
#include "registrationStateObserver.h"
#include "zarnrtcimpl.h"

using namespace zarnrtc;

namespace {

// Decodes the Itanium C++ ABI representation of a pointer to a virtual member
// function: x86 keeps 1 + the table offset in the pointer word; 32- and 64-bit
// ARM keep the plain offset there and flag "virtual" in the low bit of the
// adjustment word.
template <typename F>
long slotOf(F member) {
    static_assert(sizeof(F) == 2 * sizeof(uintptr_t), "unexpected member pointer size");
    uintptr_t words[2];
    std::memcpy(words, &member, sizeof(words));
#if defined(__arm__) || defined(__aarch64__)
    if ((words[1] & 1) == 0) return -1;  // not virtual
    return long(words[0] / sizeof(void*));
#else
    if ((words[0] & 1) == 0) return -1;
    return long((words[0] - 1) / sizeof(void*));
#endif
}

}  // namespace

TEST(Abi, ZarnRtcSlots) {
    EXPECT_EQ(slotOf(&ZarnRtc::setRecordingDevice), 0);
    EXPECT_EQ(slotOf(&ZarnRtc::setPlayoutDevice), 1);
    EXPECT_EQ(slotOf(&ZarnRtc::setVideoDevice), 2);
    EXPECT_EQ(slotOf(&ZarnRtc::registerAccount), 3);
    EXPECT_EQ(slotOf(&ZarnRtc::call), 4);
    EXPECT_EQ(slotOf(&ZarnRtc::callForward), 5);
    EXPECT_EQ(slotOf(&ZarnRtc::earlyAnswer), 6);
    EXPECT_EQ(slotOf(&ZarnRtc::answer), 7);
    EXPECT_EQ(slotOf(&ZarnRtc::hangup), 8);
    EXPECT_EQ(slotOf(&ZarnRtc::setZarnRtcEvent), 9);
    EXPECT_EQ(slotOf(&ZarnRtc::flowStream), 10);
    EXPECT_EQ(slotOf(&ZarnRtc::sendVideoPacket), 11);
    EXPECT_FALSE(std::has_virtual_destructor<ZarnRtc>::value);
}

TEST(Abi, EventHandlerAndSinkSlots) {
    EXPECT_EQ(slotOf(&IRtcEngineEventHandler::onRegistrationState), 0);
    EXPECT_EQ(slotOf(&IRtcEngineEventHandler::onMessage), 1);
    EXPECT_EQ(slotOf(&IRtcEngineEventHandler::onIncomingCall), 2);
    EXPECT_EQ(slotOf(&IRtcEngineEventHandler::onCallStateChange), 3);
    EXPECT_EQ(slotOf(&IRtcEngineEventHandler::onLocalVideoReady), 4);
    EXPECT_EQ(slotOf(&IRtcEngineEventHandler::onRemoteVideoReady), 5);
    EXPECT_EQ(slotOf(&IRtcEngineEventHandler::onUpdatedByLocal), 6);
    EXPECT_EQ(slotOf(&IRtcEngineEventHandler::onUpdatedByRemote), 7);
    // The sink's destructor comes first (two table entries), then OnFrame.
    EXPECT_EQ(slotOf(&VideoSink::OnFrame), 2);
}

TEST(Abi, ObserverSlots) {
    EXPECT_EQ(slotOf(&RegistrationStateObserver::onRegistrationState), 0);
    EXPECT_EQ(slotOf(&RegistrationStateObserver::onMessage), 1);
    EXPECT_EQ(slotOf(&CallStateObserver::onIncomingCall), 0);
    EXPECT_EQ(slotOf(&CallStateObserver::onCallStateChange), 1);
    EXPECT_EQ(slotOf(&CallStreamObserver::onLocalVideoReady), 0);
    EXPECT_EQ(slotOf(&CallStreamObserver::onRemoteVideoReady), 1);
    EXPECT_EQ(slotOf(&CallStreamObserver::onUpdatedByLocal), 2);
    EXPECT_EQ(slotOf(&CallStreamObserver::onUpdatedByRemote), 3);
}

TEST(Abi, ImplementationTableExtendsTheEngineInterface) {
    // Twelve interface slots, the destructor pair, then the observer overrides.
    EXPECT_EQ(slotOf(&ZarnRtcImpl::sendVideoPacket), 11);
    EXPECT_EQ(slotOf(&ZarnRtcImpl::onRegistrationState), 14);
    EXPECT_EQ(slotOf(&ZarnRtcImpl::onMessage), 15);
    EXPECT_EQ(slotOf(&ZarnRtcImpl::onIncomingCall), 16);
    EXPECT_EQ(slotOf(&ZarnRtcImpl::onCallStateChange), 17);
    EXPECT_EQ(slotOf(&ZarnRtcImpl::onLocalVideoReady), 18);
    EXPECT_EQ(slotOf(&ZarnRtcImpl::onRemoteVideoReady), 19);
    EXPECT_EQ(slotOf(&ZarnRtcImpl::onUpdatedByLocal), 20);
    EXPECT_EQ(slotOf(&ZarnRtcImpl::onUpdatedByRemote), 21);
}

TEST(Abi, CallSlots) {
    using MakeAnswerPlain = void (Call::*)();
    using MakeAnswerParams = void (Call::*)(CallParams);
    EXPECT_EQ(slotOf(&Call::makeCall), 0);
    EXPECT_EQ(slotOf(&Call::earlyAccept), 1);
    EXPECT_EQ(slotOf(static_cast<MakeAnswerPlain>(&Call::makeAnswer)), 2);
    EXPECT_EQ(slotOf(static_cast<MakeAnswerParams>(&Call::makeAnswer)), 3);
    EXPECT_EQ(slotOf(&Call::reject), 4);
    EXPECT_EQ(slotOf(&Call::hangup), 5);
    EXPECT_EQ(slotOf(&Call::updateCall), 6);
    EXPECT_EQ(slotOf(&Call::hold), 7);
    EXPECT_EQ(slotOf(&Call::unHold), 8);
    EXPECT_EQ(slotOf(&Call::sendDtmf), 9);
    EXPECT_EQ(slotOf(&Call::transfer), 10);
    EXPECT_EQ(slotOf(&Call::onCallOffer), 11);
    EXPECT_EQ(slotOf(&Call::onCallAnswer), 12);
    EXPECT_EQ(slotOf(&Call::onMediaStateChange), 13);
    EXPECT_EQ(slotOf(&Call::setVideoMaxBitrate), 14);
    EXPECT_EQ(slotOf(&Call::closeWebRTC), 15);
    EXPECT_EQ(slotOf(&Call::closeSip), 16);
    EXPECT_EQ(slotOf(&Call::enableStatsEvents), 17);
    EXPECT_EQ(slotOf(&Call::setAudioEnabled), 18);
    EXPECT_EQ(slotOf(&Call::setVideoEnabled), 19);
    EXPECT_EQ(slotOf(&Call::isActive), 20);
    EXPECT_EQ(slotOf(&Call::getWebtcErrMessage), 21);
    EXPECT_EQ(slotOf(&Call::startVideoSending), 22);
    EXPECT_EQ(slotOf(&Call::startVideoReceiving), 23);
    EXPECT_EQ(slotOf(&Call::stopVideoSending), 24);
    EXPECT_EQ(slotOf(&Call::stopVideoReceiving), 25);
    EXPECT_EQ(slotOf(&Call::startAudioSending), 26);
    EXPECT_EQ(slotOf(&Call::stopAudioSending), 27);
    EXPECT_EQ(slotOf(&Call::startAudioReceiving), 28);
    EXPECT_EQ(slotOf(&Call::stopAudioReceiving), 29);
    EXPECT_EQ(slotOf(&Call::switchCamera), 30);
    EXPECT_EQ(slotOf(&Call::changeCaptureFormat), 31);
    EXPECT_EQ(slotOf(&Call::setLocalVideoRender), 32);
    EXPECT_EQ(slotOf(&Call::setRemoteVideoRender), 33);
    EXPECT_EQ(slotOf(&Call::updateCallState), 34);
    EXPECT_EQ(slotOf(&Call::updatePeerDeviceType), 35);
    EXPECT_EQ(slotOf(&Call::onCallReceiveReinvite), 36);
    EXPECT_EQ(slotOf(&Call::onEarlyMediaSdp), 37);
    EXPECT_EQ(slotOf(&Call::photoShot), 38);
    EXPECT_EQ(slotOf(&Call::recordMedia), 39);
    EXPECT_EQ(slotOf(&Call::stopRecordMedia), 40);
    EXPECT_EQ(slotOf(&Call::record), 41);
    EXPECT_EQ(slotOf(&Call::localsnap), 42);
    EXPECT_EQ(slotOf(&Call::remotesnap), 43);
    EXPECT_EQ(slotOf(&Call::setSelfHangup), 44);
    EXPECT_EQ(slotOf(&Call::selfHangup), 45);
    EXPECT_EQ(slotOf(&Call::openflowStream), 46);
    EXPECT_EQ(slotOf(&Call::sendStreamPacket), 47);
    EXPECT_EQ(slotOf(&Call::sendRtcp), 48);
    EXPECT_EQ(slotOf(&Call::audioPlay), 49);
    EXPECT_EQ(slotOf(&Call::getCallId), 50);
    EXPECT_EQ(slotOf(&Call::direction), 51);
    EXPECT_EQ(slotOf(&Call::call_state), 52);
    EXPECT_EQ(slotOf(&Call::support_video), 53);
    EXPECT_EQ(slotOf(&Call::support_data), 54);
}

TEST(Abi, EnumerationValues) {
    static_assert(sizeof(CallState) == 4 && sizeof(Direction) == 4 && sizeof(DtmfMethod) == 4,
                  "32-bit enumerations");
    EXPECT_EQ(kDtmfRFC2833, 0);
    EXPECT_EQ(kDtmfInfo, 1);
    EXPECT_EQ(kIncoming, 0);
    EXPECT_EQ(kOutgoing, 1);
    const int states[] = {kNewCall, kCancel,  kFailed, kRejected, kEarlyMedia, kRinging,  kAnswered,
                          kHangup,  kPausing, kPaused, kResuming, kResumed,    kUpdating, kUpdated};
    for (int i = 0; i < 14; ++i) EXPECT_EQ(states[i], i);
    EXPECT_EQ(CallImpl::Incoming, 1);
    EXPECT_EQ(CallImpl::Outgoing, 2);
    EXPECT_EQ(CallImpl::Unknown, -1);
}
