#ifndef ZARNRTC_ZARNRTC_H
#define ZARNRTC_ZARNRTC_H

#include <cstdint>
#include <list>

#include "IRtcEngineEventHandler.h"
#include "call.h"
#include "callparams.h"
#include "sipmessage.h"
#include "videosink.h"
#include "zarnrtcsdkglobal.h"

namespace zarnrtc {

// The engine. Made by createZarnRtcEngine and never destroyed: it lives as long as
// the process (there is deliberately no virtual destructor and no release).
class ZARNRTC_API ZarnRtc {
  public:
    static ZarnRtc* createZarnRtcEngine();

    virtual int setRecordingDevice(const char* guid) = 0;
    virtual int setPlayoutDevice(const char* guid) = 0;
    virtual int setVideoDevice(const char* guid) = 0;
    virtual int registerAccount(const char* serverIp, const char* username, const char* password,
                                const char* displayname) = 0;
    virtual int call(const char* calleeUri) = 0;
    virtual void callForward(std::list<const char*> callForwardUsers, const char* localDisplayName,
                             bool isVideo, bool hwAcceleration, int width, int height, int fps,
                             int bitrate, const char* deviceType) = 0;
    virtual int earlyAnswer(int callId) = 0;
    virtual int answer(int callId) = 0;
    virtual int hangup(int callId) = 0;
    virtual void setZarnRtcEvent(IRtcEngineEventHandler* iRtcEngineEventHandler) = 0;
    virtual void flowStream() = 0;
    virtual void sendVideoPacket(const uint8_t* packet, int len, uint8_t payloadType,
                                 uint32_t timeStamp) = 0;
};

}  // namespace zarnrtc

#endif
