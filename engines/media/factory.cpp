// Process-wide state: GStreamer start-up, the one factory, helper threads.
#include <glib/gstdio.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <thread>

#include "gst_util.h"
#include "media_internal.h"
#include "media_settings.h"
#include "dtls.h"
#include "transport.h"

GST_DEBUG_CATEGORY(zarn_media_debug);

namespace libwebrtc {
namespace media {

namespace {

std::mutex g_factory_mutex;
RTCPeerConnectionFactory* g_factory = nullptr;  // one reference held while set

struct Reaper {
    std::mutex mutex;
    std::condition_variable cv;
    std::deque<std::function<void()>> queue;
};

// Never freed: pipelines may still be reaped while the process exits.
Reaper* GetReaper() {
    static Reaper* reaper = [] {
        auto* r = new Reaper;
        std::thread([r] {
            pthread_setname_np(pthread_self(), "zrtc-reaper");
            for (;;) {
                std::function<void()> fn;
                {
                    std::unique_lock<std::mutex> lock(r->mutex);
                    r->cv.wait(lock, [&] { return !r->queue.empty(); });
                    fn = std::move(r->queue.front());
                    r->queue.pop_front();
                }
                fn();
            }
        }).detach();
        return r;
    }();
    return reaper;
}

GstBusSyncReply DropMessage(GstBus*, GstMessage* msg, gpointer what) {
    if (GST_MESSAGE_TYPE(msg) == GST_MESSAGE_ERROR ||
        GST_MESSAGE_TYPE(msg) == GST_MESSAGE_WARNING) {
        ErrorRef err;
        GCharRef dbg;
        if (GST_MESSAGE_TYPE(msg) == GST_MESSAGE_ERROR)
            gst_message_parse_error(msg, Out(err), Out(dbg));
        else
            gst_message_parse_warning(msg, Out(err), Out(dbg));
        GST_WARNING("%s pipeline: %s from %s (%s)", static_cast<const char*>(what),
                    err ? err->message : "?", GST_OBJECT_NAME(GST_MESSAGE_SRC(msg)),
                    dbg ? dbg.get() : "");
    }
    // A sync handler that drops a message owns it; an unfreed message keeps its
    // source element, and with it the whole pipeline, alive.
    gst_message_unref(msg);
    return GST_BUS_DROP;
}

}  // namespace

void Reap(std::function<void()> fn) {
    Reaper* r = GetReaper();
    {
        std::lock_guard<std::mutex> lock(r->mutex);
        r->queue.push_back(std::move(fn));
    }
    r->cv.notify_one();
}

void InstallBusDropHandler(GstElement* pipeline, const char* what) {
    GstRef<GstBus> bus(gst_element_get_bus(pipeline));
    gst_bus_set_sync_handler(bus.get(), DropMessage, const_cast<char*>(what), nullptr);
}

bool AudioOutputAvailable() {
    using zarnrtc::settings::AudioOutput;
    const zarnrtc::settings::MediaSettings settings = zarnrtc::settings::mediaSettings();
    if (settings.audioOutput == AudioOutput::kNone) return false;
    if (settings.audioOutput == AudioOutput::kDevice) return true;
    // Probe: a sound server socket or an ALSA playback node.
    if (!settings.pulseServer.empty()) return true;
    if (!settings.runtimeDir.empty()) {
        const std::string& dir = settings.runtimeDir;
        if (g_file_test((dir + "/pulse/native").c_str(), G_FILE_TEST_EXISTS) ||
            g_file_test((dir + "/pipewire-0").c_str(), G_FILE_TEST_EXISTS))
            return true;
    }
    GDir* snd = g_dir_open("/dev/snd", 0, nullptr);
    if (!snd) return false;
    bool found = false;
    while (const char* n = g_dir_read_name(snd)) {
        if (g_str_has_prefix(n, "pcmC") && g_str_has_suffix(n, "p")) found = true;
    }
    g_dir_close(snd);
    return found;
}

AudioSource LocalAudioSource() {
    switch (zarnrtc::settings::mediaSettings().audioInput) {
        case zarnrtc::settings::AudioInput::kDevice:
            return AudioSource::kDevice;
        case zarnrtc::settings::AudioInput::kClicks:
            return AudioSource::kClicks;
        default:
            return AudioSource::kTone;
    }
}

std::vector<std::string> MediaAddresses() {
    return zarnrtc::settings::mediaSettings().addresses;
}

bool RequireEncryption() {
    return zarnrtc::settings::mediaSettings().requireEncryption;
}

// ---------------------------------------------------------------------------

PeerConnectionFactoryImpl::PeerConnectionFactoryImpl() {
    // The process's DTLS certificate, made here rather than inside the first
    // call's offer.
    LocalFingerprint();
    GetReaper();
}

scoped_refptr<RTCPeerConnection> PeerConnectionFactoryImpl::Create(
    const RTCConfiguration& configuration, scoped_refptr<RTCMediaConstraints>) {
    return CreatePeerConnection(configuration);
}

void PeerConnectionFactoryImpl::Delete(scoped_refptr<RTCPeerConnection> peerconnection) {
    if (peerconnection) peerconnection->Close();
}

scoped_refptr<RTCAudioDevice> PeerConnectionFactoryImpl::GetAudioDevice() {
    return new RefCountedObject<AudioDeviceImpl>();
}

scoped_refptr<RTCVideoDevice> PeerConnectionFactoryImpl::GetVideoDevice() {
    return new RefCountedObject<VideoDeviceImpl>();
}

scoped_refptr<RTCAudioSource> PeerConnectionFactoryImpl::CreateAudioSource(const char* label) {
    return new RefCountedObject<AudioSourceImpl>(Str(label));
}

scoped_refptr<RTCVideoSource> PeerConnectionFactoryImpl::CreateVideoSource(
    scoped_refptr<RTCVideoCapturer> capturer, const char* label,
    scoped_refptr<RTCMediaConstraints>) {
    // A capturer of another engine cannot feed us: treat it like none.
    scoped_refptr<CapturerImpl> ours(dynamic_cast<CapturerImpl*>(capturer.get()));
    return new RefCountedObject<VideoSourceImpl>(ours, Str(label));
}

scoped_refptr<RTCAudioTrack> PeerConnectionFactoryImpl::CreateAudioTrack(
    scoped_refptr<RTCAudioSource>, const char* track_id) {
    return new RefCountedObject<AudioTrackImpl>(Str(track_id), false);
}

scoped_refptr<RTCVideoTrack> PeerConnectionFactoryImpl::CreateVideoTrack(
    scoped_refptr<RTCVideoSource> source, const char* track_id) {
    scoped_refptr<VideoSourceImpl> ours(dynamic_cast<VideoSourceImpl*>(source.get()));
    if (!ours) ours = new RefCountedObject<VideoSourceImpl>(nullptr, Str(track_id));
    return new RefCountedObject<VideoTrackImpl>(Str(track_id), ours);
}

scoped_refptr<RTCMediaStream> PeerConnectionFactoryImpl::CreateStream(const char* stream_id) {
    return new RefCountedObject<MediaStreamImpl>(Str(stream_id));
}

}  // namespace media

// ---------------------------------------------------------------------------

bool LibWebRTC::Initialize() {
    static std::once_flag once;
    static bool ok = false;
    std::call_once(once, [] {
        media::ErrorRef err;
        ok = gst_init_check(nullptr, nullptr, media::Out(err));
        if (!ok) {
            g_printerr("media engine: GStreamer init failed: %s\n", err ? err->message : "?");
            return;
        }
        GST_DEBUG_CATEGORY_INIT(zarn_media_debug, "zarnmedia", 0, "ZarnRtc host media engine");
    });
    return ok;
}

scoped_refptr<RTCPeerConnectionFactory> LibWebRTC::CreateRTCPeerConnectionFactory() {
    if (!Initialize()) return nullptr;
    std::lock_guard<std::mutex> lock(media::g_factory_mutex);
    if (!media::g_factory) {
        media::g_factory = new RefCountedObject<media::PeerConnectionFactoryImpl>();
        media::g_factory->AddRef();
    }
    return media::g_factory;
}

void LibWebRTC::Terminate() {
    RTCPeerConnectionFactory* f = nullptr;
    {
        std::lock_guard<std::mutex> lock(media::g_factory_mutex);
        f = media::g_factory;
        media::g_factory = nullptr;
    }
    // GStreamer stays initialised: it cannot be started twice in one process.
    if (f) f->Release();
}

scoped_refptr<RTCMediaConstraints> RTCMediaConstraints::Create() {
    return new RefCountedObject<media::MediaConstraintsImpl>();
}

}  // namespace libwebrtc
