// DTLS-SRTP handshakes over OpenSSL: one process-wide certificate, one SSL per ICE
// component, datagrams in and out through a BIO of our own, retransmissions on the
// caller's main context (the ICE thread's, in the engine).
#include "dtls.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <gst/gst.h>

#include <algorithm>
#include <cstring>
#include <mutex>

GST_DEBUG_CATEGORY_STATIC(zarn_dtls_debug);
#define GST_CAT_DEFAULT zarn_dtls_debug

namespace libwebrtc {
namespace media {

namespace {

constexpr long kDtlsMtu = 1200;  // as the media: no IP fragments on any path

std::string Hex(const unsigned char* data, unsigned len) {
    static const char kDigits[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned i = 0; i < len; ++i) {
        if (i) out += ':';
        out += kDigits[data[i] >> 4];
        out += kDigits[data[i] & 15];
    }
    return out;
}

// A certificate's fingerprint under an SDP hash name; "" for a hash we do not know.
std::string Fingerprint(X509* cert, const std::string& hash) {
    const EVP_MD* md = nullptr;
    if (g_ascii_strcasecmp(hash.c_str(), "sha-256") == 0)
        md = EVP_sha256();
    else if (g_ascii_strcasecmp(hash.c_str(), "sha-1") == 0)
        md = EVP_sha1();
    else if (g_ascii_strcasecmp(hash.c_str(), "sha-224") == 0)
        md = EVP_sha224();
    else if (g_ascii_strcasecmp(hash.c_str(), "sha-384") == 0)
        md = EVP_sha384();
    else if (g_ascii_strcasecmp(hash.c_str(), "sha-512") == 0)
        md = EVP_sha512();
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned len = 0;
    if (!md || !cert || X509_digest(cert, md, digest, &len) != 1) return "";
    return Hex(digest, len);
}

std::string OpenSslError() {
    unsigned long e = ERR_get_error();
    char text[256] = "unknown error";
    if (e) ERR_error_string_n(e, text, sizeof text);
    ERR_clear_error();
    return text;
}

// The peer's certificate is self-signed: only its fingerprint counts (Finish).
int AcceptAnyCertificate(int, X509_STORE_CTX*) {
    return 1;
}

unsigned int RetryTimer(SSL*, unsigned int previous_us) {
    if (previous_us == 0) return kDtlsFirstRetryMs * 1000;
    return std::min(previous_us * 2, kDtlsMaxRetryMs * 1000);
}

struct Identity {
    SSL_CTX* ctx = nullptr;
    std::string fingerprint;
};

// Made once and kept for the life of the process: every description we write names
// this certificate. Valid from a day ago for ten years: peers check the
// fingerprint, not the dates, and a device may run for years.
Identity* MakeIdentity() {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* cert = X509_new();
    SSL_CTX* ctx = SSL_CTX_new(DTLS_method());
    bool ok = key && cert && ctx;
    if (ok) {
        uint32_t serial = 0;
        RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial);
        X509_NAME* name = X509_get_subject_name(cert);
        ok = X509_set_version(cert, 2) &&
             ASN1_INTEGER_set(X509_get_serialNumber(cert), serial & 0x7fffffff) &&
             X509_gmtime_adj(X509_getm_notBefore(cert), -86400L) &&
             X509_gmtime_adj(X509_getm_notAfter(cert), 10L * 365 * 86400) &&
             X509_set_pubkey(cert, key) &&
             X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                        reinterpret_cast<const unsigned char*>("zarnrtc"), -1, -1,
                                        0) &&
             X509_set_issuer_name(cert, name) && X509_sign(cert, key, EVP_sha256()) > 0;
    }
    if (ok) {
        ok = SSL_CTX_use_certificate(ctx, cert) == 1 && SSL_CTX_use_PrivateKey(ctx, key) == 1 &&
             // Returns 0 on success.
             SSL_CTX_set_tlsext_use_srtp(ctx, "SRTP_AES128_CM_SHA1_80:SRTP_AES128_CM_SHA1_32") == 0;
        SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT,
                           AcceptAnyCertificate);
        SSL_CTX_set_read_ahead(ctx, 1);
    }
    Identity* id = nullptr;
    if (ok) {
        id = new Identity;
        id->ctx = ctx;
        id->fingerprint = Fingerprint(cert, "sha-256");
        ctx = nullptr;  // kept
    } else {
        GST_ERROR("no DTLS certificate (%s): DTLS-SRTP calls will fail", OpenSslError().c_str());
    }
    SSL_CTX_free(ctx);
    X509_free(cert);
    EVP_PKEY_free(key);
    return id;
}

Identity* GetIdentity() {
    static Identity* identity = MakeIdentity();
    return identity;
}

}  // namespace

const std::string& LocalFingerprint() {
    static const std::string none;
    Identity* id = GetIdentity();
    return id ? id->fingerprint : none;
}

// ---------------------------------------------------------------------------
// The BIO: what OpenSSL writes becomes one datagram each; what it reads is the one
// datagram Receive() was given.

BIO* DtlsEndpoint::NewBio(DtlsEndpoint* self) {
    static BIO_METHOD* method = [] {
        BIO_METHOD* m = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "zarnrtc dtls");
        BIO_meth_set_write(m, BioWrite);
        BIO_meth_set_read(m, BioRead);
        BIO_meth_set_ctrl(m, BioCtrl);
        BIO_meth_set_create(m, [](BIO* b) {
            BIO_set_init(b, 1);
            return 1;
        });
        return m;
    }();
    BIO* bio = method ? BIO_new(method) : nullptr;
    if (bio) BIO_set_data(bio, self);
    return bio;
}

int DtlsEndpoint::BioWrite(BIO* bio, const char* data, int size) {
    auto* self = static_cast<DtlsEndpoint*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    if (size <= 0) return 0;
    if (self->outgoing_) self->outgoing_->emplace_back(data, data + size);
    return size;
}

int DtlsEndpoint::BioRead(BIO* bio, char* data, int size) {
    auto* self = static_cast<DtlsEndpoint*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    if (!self->incoming_ || size <= 0) {
        BIO_set_retry_read(bio);
        return -1;
    }
    size_t n = std::min(self->incoming_size_, static_cast<size_t>(size));
    std::memcpy(data, self->incoming_, n);
    self->incoming_ = nullptr;
    self->incoming_size_ = 0;
    return static_cast<int>(n);
}

long DtlsEndpoint::BioCtrl(BIO* bio, int cmd, long, void*) {
    auto* self = static_cast<DtlsEndpoint*>(BIO_get_data(bio));
    switch (cmd) {
        case BIO_CTRL_FLUSH:
            return 1;
        case BIO_CTRL_PENDING:
            return self->incoming_ ? static_cast<long>(self->incoming_size_) : 0;
        case BIO_CTRL_DGRAM_QUERY_MTU:
        case BIO_CTRL_DGRAM_GET_FALLBACK_MTU:
            return kDtlsMtu;
        default:
            return 0;
    }
}

// ---------------------------------------------------------------------------

std::shared_ptr<DtlsEndpoint> DtlsEndpoint::Create(Config config) {
    static std::once_flag category;
    std::call_once(category, [] {
        GST_DEBUG_CATEGORY_INIT(zarn_dtls_debug, "zarndtls", 0, "ZarnRtc DTLS handshakes");
    });
    Identity* id = GetIdentity();
    if (!id) return nullptr;
    std::shared_ptr<DtlsEndpoint> self(new DtlsEndpoint(std::move(config)));
    self->ssl_ = SSL_new(id->ctx);
    BIO* bio = self->ssl_ ? NewBio(self.get()) : nullptr;
    if (!bio) return nullptr;  // the destructor frees the SSL
    SSL_set_bio(self->ssl_, bio, bio);
    SSL_set_options(self->ssl_, SSL_OP_NO_QUERY_MTU);
    DTLS_set_link_mtu(self->ssl_, kDtlsMtu);
    DTLS_set_timer_cb(self->ssl_, RetryTimer);
    if (self->config_.client)
        SSL_set_connect_state(self->ssl_);
    else
        SSL_set_accept_state(self->ssl_);
    return self;
}

DtlsEndpoint::~DtlsEndpoint() {
    if (timer_) {
        g_source_destroy(timer_);
        g_source_unref(timer_);
    }
    SSL_free(ssl_);
}

void DtlsEndpoint::Start() {
    Outcome out;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (started_ || closed_) return;
        started_ = true;
        Step(&out);
        ScheduleTimer();
    }
    Deliver(std::move(out));
}

void DtlsEndpoint::Receive(const uint8_t* data, size_t size) {
    GST_LOG("%s: DTLS datagram in, %zu bytes", config_.name.c_str(), size);
    Outcome out;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (closed_ || (reported_ && !done_)) return;
        started_ = true;
        incoming_ = data;
        incoming_size_ = size;
        Step(&out);
        incoming_ = nullptr;
        incoming_size_ = 0;
        ScheduleTimer();
    }
    Deliver(std::move(out));
}

void DtlsEndpoint::Close() {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    if (timer_) {
        g_source_destroy(timer_);
        g_source_unref(timer_);
        timer_ = nullptr;
    }
}

void DtlsEndpoint::Step(Outcome* out) {
    ERR_clear_error();
    outgoing_ = &out->datagrams;
    if (!done_) {
        int r = SSL_do_handshake(ssl_);
        int error = r == 1 ? SSL_ERROR_NONE : SSL_get_error(ssl_, r);
        GST_LOG("%s: handshake r=%d error=%d state=%s", config_.name.c_str(), r, error,
                SSL_state_string_long(ssl_));
        if (r == 1)
            Finish(out);
        else if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE)
            out->failure = "DTLS handshake failed: " + OpenSslError();
    } else {
        // After the handshake: a far end that lost our last flight sends its own
        // again, and OpenSSL answers it here. There is no application data.
        unsigned char sink[2048];
        while (SSL_read(ssl_, sink, sizeof sink) > 0) {
        }
        ERR_clear_error();
    }
    outgoing_ = nullptr;
    if (!out->failure.empty() || out->keys) reported_ = true;
}

void DtlsEndpoint::Finish(Outcome* out) {
    X509* peer = SSL_get1_peer_certificate(ssl_);
    std::string seen = Fingerprint(peer, config_.remote_fingerprint_hash);
    X509_free(peer);
    if (seen.empty() || g_ascii_strcasecmp(seen.c_str(), config_.remote_fingerprint.c_str()) != 0) {
        out->failure = "DTLS certificate does not match the fingerprint";
        return;
    }
    const SRTP_PROTECTION_PROFILE* profile = SSL_get_selected_srtp_profile(ssl_);
    if (!profile) {
        out->failure = "DTLS agreed no SRTP profile";
        return;
    }
    // RFC 5764: client key, server key, client salt, server salt.
    constexpr size_t kKey = 16, kSalt = 14;
    unsigned char m[2 * (kKey + kSalt)];
    static const char kLabel[] = "EXTRACTOR-dtls_srtp";
    if (SSL_export_keying_material(ssl_, m, sizeof m, kLabel, sizeof kLabel - 1, nullptr, 0, 0) !=
        1) {
        out->failure = "DTLS gave no SRTP keys: " + OpenSslError();
        return;
    }
    auto keys = std::make_unique<SrtpKeys>();
    keys->auth = profile->id == SRTP_AES128_CM_SHA1_32 ? "hmac-sha1-32" : "hmac-sha1-80";
    std::vector<uint8_t> client(m, m + kKey), server(m + kKey, m + 2 * kKey);
    client.insert(client.end(), m + 2 * kKey, m + 2 * kKey + kSalt);
    server.insert(server.end(), m + 2 * kKey + kSalt, m + sizeof m);
    OPENSSL_cleanse(m, sizeof m);
    keys->local = config_.client ? client : server;
    keys->remote = config_.client ? server : client;
    OPENSSL_cleanse(client.data(), client.size());
    OPENSSL_cleanse(server.data(), server.size());
    out->keys = std::move(keys);
    done_ = true;
    GST_INFO("%s: DTLS done as %s, %s", config_.name.c_str(), config_.client ? "client" : "server",
             SSL_get_cipher_name(ssl_));
}

// Under mutex_: one timer at a time, as long as OpenSSL wants one.
void DtlsEndpoint::ScheduleTimer() {
    if (timer_) {
        g_source_destroy(timer_);
        g_source_unref(timer_);
        timer_ = nullptr;
    }
    struct timeval tv = {0, 0};
    if (closed_ || (reported_ && !done_) || DTLSv1_get_timeout(ssl_, &tv) != 1) return;
    guint ms = static_cast<guint>(tv.tv_sec * 1000 + (tv.tv_usec + 999) / 1000);
    timer_ = g_timeout_source_new(ms);
    g_source_set_callback(timer_, OnTimer, new std::weak_ptr<DtlsEndpoint>(weak_from_this()),
                          [](gpointer d) { delete static_cast<std::weak_ptr<DtlsEndpoint>*>(d); });
    g_source_attach(timer_, config_.context);
}

// On the ICE thread: a flight went unanswered.
gboolean DtlsEndpoint::OnTimer(gpointer data) {
    std::shared_ptr<DtlsEndpoint> self = static_cast<std::weak_ptr<DtlsEndpoint>*>(data)->lock();
    if (!self) return G_SOURCE_REMOVE;
    Outcome out;
    {
        std::lock_guard<std::mutex> lock(self->mutex_);
        if (self->closed_) return G_SOURCE_REMOVE;
        GST_DEBUG("%s: DTLS flight unanswered, sending it again", self->config_.name.c_str());
        ERR_clear_error();
        self->outgoing_ = &out.datagrams;
        if (DTLSv1_handle_timeout(self->ssl_) < 0 && !self->done_) {
            out.failure = "DTLS handshake timed out: " + OpenSslError();
            self->reported_ = true;
        }
        self->outgoing_ = nullptr;
        self->ScheduleTimer();
    }
    self->Deliver(std::move(out));
    return G_SOURCE_REMOVE;
}

void DtlsEndpoint::Deliver(Outcome out) {
    if (!out.datagrams.empty())
        GST_LOG("%s: %zu DTLS datagrams out", config_.name.c_str(), out.datagrams.size());
    if (config_.send)
        for (const std::vector<uint8_t>& d : out.datagrams) config_.send(d.data(), d.size());
    if (out.keys && config_.keyed) config_.keyed(*out.keys);
    if (!out.failure.empty()) GST_WARNING("%s: %s", config_.name.c_str(), out.failure.c_str());
    if (!out.failure.empty() && config_.failed) config_.failed(out.failure);
    if (out.keys) {
        OPENSSL_cleanse(out.keys->local.data(), out.keys->local.size());
        OPENSSL_cleanse(out.keys->remote.data(), out.keys->remote.size());
    }
}

}  // namespace media
}  // namespace libwebrtc
