// The manager's media factory and local tracks.
#include <mutex>

#include "sdkconstants.h"
#include "sipenginemanager.h"

namespace zarnrtc {

using libwebrtc::scoped_refptr;

namespace {
// Guards the shared camera capturer and the factory pointer: an answer on the
// application's thread makes the capturer while the end of the last call on the SIP
// engine's thread drops it. Never held while the media engine runs.
std::mutex mediaMutex;
}  // namespace

scoped_refptr<libwebrtc::RTCPeerConnectionFactory> SipEngineManager::getRtcPeerConnectionFactory() {
    std::lock_guard<std::mutex> lock(mediaMutex);
    return rtcPeerConnectionFactory;
}

scoped_refptr<libwebrtc::RTCPeerConnection> SipEngineManager::createRtcPeerConnection(
    const libwebrtc::RTCConfiguration& configuration,
    scoped_refptr<libwebrtc::RTCMediaConstraints> constraints) {
    scoped_refptr<libwebrtc::RTCPeerConnectionFactory> factory = getRtcPeerConnectionFactory();
    if (!factory) {
        factory = libwebrtc::LibWebRTC::CreateRTCPeerConnectionFactory();
        std::lock_guard<std::mutex> lock(mediaMutex);
        if (!rtcPeerConnectionFactory) rtcPeerConnectionFactory = factory;
        factory = rtcPeerConnectionFactory;
    }
    if (!factory) return nullptr;
    return factory->Create(configuration, constraints);
}

scoped_refptr<libwebrtc::RTCMediaStream> SipEngineManager::createStream(const char* stream_id) {
    scoped_refptr<libwebrtc::RTCPeerConnectionFactory> factory = getRtcPeerConnectionFactory();
    if (!factory) return nullptr;
    return factory->CreateStream(stream_id);
}

scoped_refptr<libwebrtc::RTCAudioTrack> SipEngineManager::createAudioTrack(const char* track_id,
                                                                           uint16_t, uint16_t) {
    scoped_refptr<libwebrtc::RTCPeerConnectionFactory> factory = getRtcPeerConnectionFactory();
    if (!factory) return nullptr;
    scoped_refptr<libwebrtc::RTCAudioSource> source = factory->CreateAudioSource(track_id);
    return factory->CreateAudioTrack(source, track_id);
}

scoped_refptr<libwebrtc::RTCVideoTrack> SipEngineManager::createVideoTrack(
    const char* track_id, scoped_refptr<libwebrtc::RTCMediaConstraints> constraints, bool,
    const char* deviceName, uint32_t vdideoDeviceIndex, int videoWidth, int videoHeight,
    int videoFps) {
    scoped_refptr<libwebrtc::RTCPeerConnectionFactory> factory = getRtcPeerConnectionFactory();
    if (!factory) return nullptr;
    scoped_refptr<libwebrtc::RTCVideoCapturer> camera;
    {
        std::lock_guard<std::mutex> lock(mediaMutex);
        camera = capturer;
    }
    if (!camera) {
        scoped_refptr<libwebrtc::RTCVideoDevice> device = factory->GetVideoDevice();
        scoped_refptr<libwebrtc::RTCVideoCapturer> made;
        if (device)
            made = device->Create(deviceName, vdideoDeviceIndex, videoWidth, videoHeight, videoFps);
        std::lock_guard<std::mutex> lock(mediaMutex);
        if (!capturer) capturer = made;
        camera = capturer;
        // A capturer made by a racing answer is released with `made`, after the lock.
    }
    scoped_refptr<libwebrtc::RTCVideoSource> source =
        factory->CreateVideoSource(camera, track_id, constraints);
    return factory->CreateVideoTrack(source, track_id);
}

scoped_refptr<libwebrtc::RTCAudioTrack> SipEngineManager::getAudioTrack(uint16_t) {
    return createAudioTrack(kAudioTrackLabel, 0, 0);
}

scoped_refptr<libwebrtc::RTCVideoTrack> SipEngineManager::getVideoTrack(
    bool screenShare, uint32_t index, const char* strNameUTF8, int videoWidth, int videoHeight,
    int videoFps) {
    scoped_refptr<libwebrtc::RTCPeerConnectionFactory> factory = getRtcPeerConnectionFactory();
    if (!factory) return nullptr;
    scoped_refptr<libwebrtc::RTCVideoDevice> device = factory->GetVideoDevice();
    if (!device) return nullptr;
    scoped_refptr<libwebrtc::RTCVideoCapturer> own;
    if (screenShare)
        own = device->CreateScreenCapture(kScreenCaptureFps, 0);
    else
        own = device->Create(strNameUTF8, index, videoWidth, videoHeight, videoFps);
    scoped_refptr<libwebrtc::RTCVideoSource> source =
        factory->CreateVideoSource(own, kVideoTrackLabel, nullptr);
    return factory->CreateVideoTrack(source, kVideoTrackLabel);
}

bool SipEngineManager::hasCapturer() const {
    std::lock_guard<std::mutex> lock(mediaMutex);
    return capturer.get() != nullptr;
}

scoped_refptr<libwebrtc::RTCVideoCapturer> SipEngineManager::takeCamera() {
    scoped_refptr<libwebrtc::RTCVideoCapturer> taken;
    std::lock_guard<std::mutex> lock(mediaMutex);
    taken.swap(capturer);
    return taken;
}

void SipEngineManager::stoplocalVideoSource() {
    scoped_refptr<libwebrtc::RTCVideoCapturer> dropped = takeCamera();
    // The camera closes here, once no lock is held.
}

// There is no shared audio object to stop.
void SipEngineManager::stoplocalAudioSource() {}

void SipEngineManager::releaseMedia() {
    scoped_refptr<libwebrtc::RTCVideoCapturer> camera;
    scoped_refptr<libwebrtc::RTCPeerConnectionFactory> factory;
    {
        std::lock_guard<std::mutex> lock(mediaMutex);
        camera.swap(capturer);
        factory.swap(rtcPeerConnectionFactory);
    }
    // Outside the lock (a release reaches the media engine): camera, then factory.
    camera = nullptr;
    factory = nullptr;
}

}  // namespace zarnrtc
