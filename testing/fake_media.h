#ifndef ZARNRTC_TESTING_FAKE_MEDIA_H
#define ZARNRTC_TESTING_FAKE_MEDIA_H

// Control of the fake libmediaengine: libwebrtc objects that record every operation in
// the fake log, count themselves (liveObjects), and let a test fire every observer
// callback and push frames into video tracks.

#include <string>
#include <vector>

#include "fake_log.h"
#include "libwebrtc.h"

namespace zarnrtc {
namespace fake {

struct MediaConfig {
    bool failFactory = false;           // CreateRTCPeerConnectionFactory returns null
    bool failPeerConnection = false;    // factory Create returns null
    bool failCamera = false;            // video device Create returns null
    bool nullLocalDescription = false;  // GetLocalDescription returns null
    // CreateOffer/CreateAnswer answer at once with a made-up SDP, and
    // SetLocalDescription reports gathering (gathering, one candidate, complete)
    // at once, so a whole call runs without a test driving it.
    bool autoNegotiate = false;
};

ZARNRTC_FAKE_API MediaConfig& mediaConfig();
ZARNRTC_FAKE_API void resetMedia();

class ZARNRTC_FAKE_API FakeVideoTrack : public libwebrtc::RTCVideoTrack {
  public:
    // Hands the frame to every attached renderer, as the engine's thread would.
    virtual void pushFrame(libwebrtc::scoped_refptr<libwebrtc::RTCVideoFrame> frame) = 0;
    virtual size_t rendererCount() = 0;
};

class ZARNRTC_FAKE_API FakePeerConnection : public libwebrtc::RTCPeerConnection {
  public:
    virtual libwebrtc::RTCPeerConnectionObserver* observer() = 0;
    virtual const libwebrtc::RTCConfiguration& configuration() = 0;
    // Completes the pending CreateOffer/CreateAnswer with sdp (made up when null).
    virtual bool resolveCreate(const char* sdp = nullptr) = 0;
    virtual bool failCreate(const char* error) = 0;
    virtual void fireGathering(libwebrtc::RTCIceGatheringState state) = 0;
    virtual void fireCandidate(const char* candidate) = 0;
    // A remote track of kind "audio" or "video" (video tracks are FakeVideoTracks
    // found through the stream's FindVideoTrack unless findable is false).
    virtual void fireAddTrack(const char* kind, const char* trackId, bool findable = true) = 0;
    virtual void fireRemoveTrack(const char* kind, const char* trackId) = 0;
    virtual FakeVideoTrack* remoteVideoTrack() = 0;
    virtual bool closed() = 0;
    virtual std::string localSdp() = 0;  // what GetLocalDescription returns
    virtual void setLocalSdp(const std::string& sdp) = 0;
    virtual std::string remoteSdp() = 0;
    // "PC<n>", the prefix of this connection's log entries.
    virtual std::string name() = 0;
};

// Live peer connections in creation order (not references: use while alive).
ZARNRTC_FAKE_API std::vector<FakePeerConnection*> peerConnections();
ZARNRTC_FAKE_API FakePeerConnection* lastPeerConnection();
// Local video tracks made by the factory, live ones, in creation order.
ZARNRTC_FAKE_API std::vector<FakeVideoTrack*> localVideoTracks();
// Number of camera capturers currently open.
ZARNRTC_FAKE_API int openCameras();
ZARNRTC_FAKE_API libwebrtc::scoped_refptr<libwebrtc::RTCVideoFrame> makeFrame(int width,
                                                                              int height);

}  // namespace fake
}  // namespace zarnrtc

#endif
