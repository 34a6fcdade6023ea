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

// The members stand in consecutive slots from `first` on, in the order given.
template <typename... F>
void expectSlots(long first, F... members) {
    long expected = first;
    for (long slot : {slotOf(members)...}) {
        EXPECT_EQ(slot, expected) << "member " << expected - first << " of the list";
        ++expected;
    }
}

}  // namespace

TEST(Abi, ZarnRtcSlots) {
    expectSlots(0, &ZarnRtc::setRecordingDevice, &ZarnRtc::setPlayoutDevice,
                &ZarnRtc::setVideoDevice, &ZarnRtc::registerAccount, &ZarnRtc::call,
                &ZarnRtc::callForward, &ZarnRtc::earlyAnswer, &ZarnRtc::answer, &ZarnRtc::hangup,
                &ZarnRtc::setZarnRtcEvent, &ZarnRtc::flowStream, &ZarnRtc::sendVideoPacket);
    EXPECT_FALSE(std::has_virtual_destructor<ZarnRtc>::value);
}

TEST(Abi, EventHandlerAndSinkSlots) {
    expectSlots(
        0, &IRtcEngineEventHandler::onRegistrationState, &IRtcEngineEventHandler::onMessage,
        &IRtcEngineEventHandler::onIncomingCall, &IRtcEngineEventHandler::onCallStateChange,
        &IRtcEngineEventHandler::onLocalVideoReady, &IRtcEngineEventHandler::onRemoteVideoReady,
        &IRtcEngineEventHandler::onUpdatedByLocal, &IRtcEngineEventHandler::onUpdatedByRemote);
    // The sink's destructor comes first (two table entries), then OnFrame.
    EXPECT_EQ(slotOf(&VideoSink::OnFrame), 2);
}

TEST(Abi, ObserverSlots) {
    expectSlots(0, &RegistrationStateObserver::onRegistrationState,
                &RegistrationStateObserver::onMessage);
    expectSlots(0, &CallStateObserver::onIncomingCall, &CallStateObserver::onCallStateChange);
    expectSlots(0, &CallStreamObserver::onLocalVideoReady, &CallStreamObserver::onRemoteVideoReady,
                &CallStreamObserver::onUpdatedByLocal, &CallStreamObserver::onUpdatedByRemote);
}

TEST(Abi, ImplementationTableExtendsTheEngineInterface) {
    // Twelve interface slots, the destructor pair, then the observer overrides.
    EXPECT_EQ(slotOf(&ZarnRtcImpl::sendVideoPacket), 11);
    expectSlots(14, &ZarnRtcImpl::onRegistrationState, &ZarnRtcImpl::onMessage,
                &ZarnRtcImpl::onIncomingCall, &ZarnRtcImpl::onCallStateChange,
                &ZarnRtcImpl::onLocalVideoReady, &ZarnRtcImpl::onRemoteVideoReady,
                &ZarnRtcImpl::onUpdatedByLocal, &ZarnRtcImpl::onUpdatedByRemote);
}

TEST(Abi, CallSlots) {
    using MakeAnswerPlain = void (Call::*)();
    using MakeAnswerParams = void (Call::*)(CallParams);
    expectSlots(
        0, &Call::makeCall, &Call::earlyAccept, static_cast<MakeAnswerPlain>(&Call::makeAnswer),
        static_cast<MakeAnswerParams>(&Call::makeAnswer), &Call::reject, &Call::hangup,
        &Call::updateCall, &Call::hold, &Call::unHold, &Call::sendDtmf, &Call::transfer,
        &Call::onCallOffer, &Call::onCallAnswer, &Call::onMediaStateChange,
        &Call::setVideoMaxBitrate, &Call::closeWebRTC, &Call::closeSip, &Call::enableStatsEvents,
        &Call::setAudioEnabled, &Call::setVideoEnabled, &Call::isActive, &Call::getWebtcErrMessage,
        &Call::startVideoSending, &Call::startVideoReceiving, &Call::stopVideoSending,
        &Call::stopVideoReceiving, &Call::startAudioSending, &Call::stopAudioSending,
        &Call::startAudioReceiving, &Call::stopAudioReceiving, &Call::switchCamera,
        &Call::changeCaptureFormat, &Call::setLocalVideoRender, &Call::setRemoteVideoRender,
        &Call::updateCallState, &Call::updatePeerDeviceType, &Call::onCallReceiveReinvite,
        &Call::onEarlyMediaSdp, &Call::photoShot, &Call::recordMedia, &Call::stopRecordMedia,
        &Call::record, &Call::localsnap, &Call::remotesnap, &Call::setSelfHangup, &Call::selfHangup,
        &Call::openflowStream, &Call::sendStreamPacket, &Call::sendRtcp, &Call::audioPlay,
        &Call::getCallId, &Call::direction, &Call::call_state, &Call::support_video,
        &Call::support_data);
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
