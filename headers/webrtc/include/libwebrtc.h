#ifndef LIBWEBRTC_LIBWEBRTC_H
#define LIBWEBRTC_LIBWEBRTC_H

// The media engine's object API, implemented by libmediaengine.

#include "rtc_peerconnection_factory.h"

namespace libwebrtc {

class LibWebRTC {
  public:
    // Once per process; further calls return true and do nothing.
    LIB_WEBRTC_API static bool Initialize();
    // A new reference to the process's factory, or null.
    LIB_WEBRTC_API static scoped_refptr<RTCPeerConnectionFactory> CreateRTCPeerConnectionFactory();
    LIB_WEBRTC_API static void Terminate();
};

}  // namespace libwebrtc

#endif
