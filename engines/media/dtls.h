// DTLS-SRTP key agreement for one ICE component, done here with OpenSSL rather than
// by GStreamer's DTLS elements: their retransmission timer is OpenSSL's default (1 s,
// doubling), which under 20 % loss left video without keys for the whole call. Ours
// starts at kDtlsFirstRetryMs. The keys go to srtpenc/srtpdec (transport.cpp).
#ifndef ZARNRTC_MEDIA_DTLS_H
#define ZARNRTC_MEDIA_DTLS_H

#include <glib.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

typedef struct ssl_st SSL;
typedef struct bio_st BIO;

namespace libwebrtc {
namespace media {

// First retransmission of a flight, doubling up to the ceiling. OpenSSL gives up
// after 12 retransmissions (about 10 s here); the call's dead-peer watch is sooner.
constexpr unsigned kDtlsFirstRetryMs = 100;
constexpr unsigned kDtlsMaxRetryMs = 1000;

// SHA-256 fingerprint ("AB:CD:...") of the process's certificate, made at first use
// (ECDSA P-256, self-signed: peers check it against the fingerprint in our
// description, nothing else). "" when OpenSSL could not make one.
const std::string& LocalFingerprint();

// A master key with its salt, for the AES-128 suites.
constexpr size_t kSrtpMasterKeyBytes = 30;

// What the handshake agreed: the SRTP suite and the two master keys with their
// salts.
struct SrtpKeys {
    std::string auth;  // "hmac-sha1-80" or "hmac-sha1-32"
    std::vector<uint8_t> local, remote;
};

// A first byte in 20..63: a DTLS record (RFC 7983), not RTP, RTCP or STUN.
inline bool IsDtlsPacket(const uint8_t* data, size_t size) {
    return size > 0 && data[0] >= 20 && data[0] <= 63;
}

class DtlsEndpoint : public std::enable_shared_from_this<DtlsEndpoint> {
  public:
    struct Config {
        bool client = false;
        std::string remote_fingerprint_hash, remote_fingerprint;
        std::string name;                 // for logs
        GMainContext* context = nullptr;  // runs the retransmission timer; must outlive us
        // Called without any lock held, from the thread that fed the endpoint (a
        // streaming thread or the ICE thread's timer).
        std::function<void(const uint8_t*, size_t)> send;    // one datagram
        std::function<void(const SrtpKeys&)> keyed;          // once, certificate checked
        std::function<void(const std::string& why)> failed;  // once; never after keyed
    };
    // Null when OpenSSL cannot make the session (no certificate).
    static std::shared_ptr<DtlsEndpoint> Create(Config config);
    ~DtlsEndpoint();
    DtlsEndpoint(const DtlsEndpoint&) = delete;
    DtlsEndpoint& operator=(const DtlsEndpoint&) = delete;

    // The client's first flight, once ICE can carry it. A server waits for it.
    void Start();
    // A datagram from the far end that IsDtlsPacket() said is ours.
    void Receive(const uint8_t* data, size_t size);
    // Nothing is sent or reported after this; timers stop.
    void Close();

  private:
    explicit DtlsEndpoint(Config config) : config_(std::move(config)) {}
    struct Outcome {
        std::vector<std::vector<uint8_t>> datagrams;
        std::unique_ptr<SrtpKeys> keys;
        std::string failure;
    };
    // Under mutex_: drives the handshake, collects what to send and report.
    void Step(Outcome* out);
    void Finish(Outcome* out);
    void ScheduleTimer();
    void Deliver(Outcome out);
    static gboolean OnTimer(gpointer data);

    static int BioWrite(BIO* bio, const char* data, int size);
    static int BioRead(BIO* bio, char* data, int size);
    static long BioCtrl(BIO* bio, int cmd, long num, void* ptr);
    static BIO* NewBio(DtlsEndpoint* self);

    const Config config_;
    std::mutex mutex_;
    SSL* ssl_ = nullptr;
    bool started_ = false, done_ = false, closed_ = false, reported_ = false;
    GSource* timer_ = nullptr;
    // The BIO's view of the world while mutex_ is held.
    const uint8_t* incoming_ = nullptr;
    size_t incoming_size_ = 0;
    std::vector<std::vector<uint8_t>>* outgoing_ = nullptr;
};

}  // namespace media
}  // namespace libwebrtc

#endif
