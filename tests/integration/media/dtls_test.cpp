// DTLS-SRTP key agreement between two endpoints in one process: datagrams cross a
// lossy "wire" on threads of their own, retransmission timers run on a main context
// of their own, as the engine's nicesrc threads and ICE thread do.
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <random>
#include <thread>

#include "dtls.h"
#include "loop_thread.h"

using libwebrtc::media::DtlsEndpoint;
using libwebrtc::media::IsDtlsPacket;
using libwebrtc::media::LocalFingerprint;
using libwebrtc::media::SrtpKeys;

namespace {

// One direction: datagrams dropped at `loss_percent`, the rest delivered in order on
// the wire's thread.
class Wire {
  public:
    Wire(int loss_percent, unsigned seed) : loss_(loss_percent), random_(seed) {
        thread_ = std::thread([this] { Run(); });
    }
    ~Wire() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        cv_.notify_all();
        thread_.join();
    }
    void To(std::shared_ptr<DtlsEndpoint> far) {
        std::lock_guard<std::mutex> lock(mutex_);
        far_ = std::move(far);
    }
    void Send(const uint8_t* data, size_t size) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (static_cast<int>(random_() % 100) < loss_) return;
        queue_.emplace_back(data, data + size);
        cv_.notify_all();
    }

  private:
    void Run() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            cv_.wait(lock, [this] { return stop_ || !queue_.empty(); });
            if (stop_) return;
            std::vector<uint8_t> d = std::move(queue_.front());
            queue_.pop_front();
            std::shared_ptr<DtlsEndpoint> far = far_;
            lock.unlock();
            if (far && IsDtlsPacket(d.data(), d.size())) far->Receive(d.data(), d.size());
            lock.lock();
        }
    }
    const int loss_;
    std::mt19937 random_;
    std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<std::vector<uint8_t>> queue_;
    std::shared_ptr<DtlsEndpoint> far_;
    bool stop_ = false;
    std::thread thread_;
};

// What an endpoint reported.
struct Outcome {
    std::mutex mutex;
    std::condition_variable cv;
    int keyed = 0, failed = 0;
    SrtpKeys keys;
    std::string why;
    bool WaitDone(std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, limit, [this] { return keyed + failed > 0; });
    }
};

std::shared_ptr<DtlsEndpoint> MakeEndpoint(bool client, const std::string& expected, Wire* out,
                                           Outcome* outcome, GMainContext* context) {
    DtlsEndpoint::Config c;
    c.client = client;
    c.remote_fingerprint_hash = "sha-256";
    c.remote_fingerprint = expected;
    c.name = client ? "client" : "server";
    c.context = context;
    c.send = [out](const uint8_t* d, size_t n) { out->Send(d, n); };
    c.keyed = [outcome](const SrtpKeys& k) {
        std::lock_guard<std::mutex> lock(outcome->mutex);
        outcome->keyed++;
        outcome->keys = k;
        outcome->cv.notify_all();
    };
    c.failed = [outcome](const std::string& why) {
        std::lock_guard<std::mutex> lock(outcome->mutex);
        outcome->failed++;
        outcome->why = why;
        outcome->cv.notify_all();
    };
    return DtlsEndpoint::Create(std::move(c));
}

class Dtls : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { gst_init(nullptr, nullptr); }
    void SetUp() override { ASSERT_FALSE(LocalFingerprint().empty()); }
};

// Loss on both directions loses whole flights; the retransmission timer has to
// bring each one through, and both ends must derive each other's keys.
TEST_F(Dtls, BothEndsAgreeOnMirroredKeysThroughLoss) {
    LoopThread timers;  // the endpoints' retransmission timers
    for (unsigned seed : {1u, 2u, 3u}) {
        Outcome client_out, server_out;
        Wire to_server(30, seed), to_client(30, seed + 100);
        auto client =
            MakeEndpoint(true, LocalFingerprint(), &to_server, &client_out, timers.context());
        auto server =
            MakeEndpoint(false, LocalFingerprint(), &to_client, &server_out, timers.context());
        ASSERT_TRUE(client && server);
        to_server.To(server);
        to_client.To(client);
        auto begun = std::chrono::steady_clock::now();
        client->Start();
        ASSERT_TRUE(client_out.WaitDone(std::chrono::seconds(8))) << "seed " << seed;
        ASSERT_TRUE(server_out.WaitDone(std::chrono::seconds(8))) << "seed " << seed;
        auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - begun);
        std::lock_guard<std::mutex> a(client_out.mutex), b(server_out.mutex);
        ASSERT_EQ(client_out.keyed, 1) << client_out.why;
        ASSERT_EQ(server_out.keyed, 1) << server_out.why;
        EXPECT_EQ(client_out.failed + server_out.failed, 0);
        EXPECT_EQ(client_out.keys.local.size(), 30u);
        EXPECT_EQ(client_out.keys.local, server_out.keys.remote);
        EXPECT_EQ(client_out.keys.remote, server_out.keys.local);
        EXPECT_NE(client_out.keys.local, client_out.keys.remote);
        EXPECT_EQ(client_out.keys.auth, server_out.keys.auth);
        std::printf("seed %u: keyed after %lld ms at 30 %% loss\n", seed,
                    static_cast<long long>(took.count()));
        client->Close();
        server->Close();
    }
}

// A far end whose certificate is not the one its description named never gets
// keys, and says why; a handshake torn down half way reports nothing.
TEST_F(Dtls, AWrongFingerprintFailsAndCloseStopsEverything) {
    LoopThread timers;  // the endpoints' retransmission timers
    std::string wrong = LocalFingerprint();
    wrong[0] = wrong[0] == 'A' ? 'B' : 'A';
    {
        Outcome client_out, server_out;
        Wire to_server(0, 1), to_client(0, 2);
        auto client = MakeEndpoint(true, wrong, &to_server, &client_out, timers.context());
        auto server =
            MakeEndpoint(false, LocalFingerprint(), &to_client, &server_out, timers.context());
        to_server.To(server);
        to_client.To(client);
        client->Start();
        ASSERT_TRUE(client_out.WaitDone(std::chrono::seconds(5)));
        std::lock_guard<std::mutex> lock(client_out.mutex);
        EXPECT_EQ(client_out.keyed, 0);
        EXPECT_EQ(client_out.failed, 1);
        EXPECT_EQ(client_out.why, "DTLS certificate does not match the fingerprint");
        client->Close();
        server->Close();
    }
    {
        // Every datagram lost: only timers run. Closed, they stop.
        Outcome client_out;
        Wire nowhere(100, 1);
        auto client =
            MakeEndpoint(true, LocalFingerprint(), &nowhere, &client_out, timers.context());
        client->Start();
        std::this_thread::sleep_for(std::chrono::milliseconds(350));
        client->Close();
        client->Start();
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        std::lock_guard<std::mutex> lock(client_out.mutex);
        EXPECT_EQ(client_out.keyed + client_out.failed, 0);
    }
}

// Datagrams that look like DTLS but are anything: before, during and after a
// handshake, from two threads at once. Nothing crashes, leaks or reports twice.
TEST_F(Dtls, HostileDatagramsFromTwoThreads) {
    LoopThread timers;  // the endpoints' retransmission timers
    Outcome client_out, server_out;
    Wire to_server(0, 5), to_client(0, 6);
    auto client = MakeEndpoint(true, LocalFingerprint(), &to_server, &client_out, timers.context());
    auto server =
        MakeEndpoint(false, LocalFingerprint(), &to_client, &server_out, timers.context());
    to_server.To(server);
    to_client.To(client);
    std::atomic<bool> stop{false};
    auto garble = [&](std::shared_ptr<DtlsEndpoint> target, unsigned seed) {
        std::mt19937 r(seed);
        std::vector<uint8_t> d;
        while (!stop) {
            d.resize(r() % 1500);
            for (uint8_t& b : d) b = static_cast<uint8_t>(r());
            if (!d.empty()) d[0] = static_cast<uint8_t>(20 + r() % 44);
            if (d.size() > 2) d[1] = 0xfe, d[2] = 0xfd;  // DTLS 1.2 record version
            target->Receive(d.data(), d.size());
        }
    };
    std::thread a(garble, server, 11), b(garble, client, 12);
    client->Start();
    client_out.WaitDone(std::chrono::seconds(5));
    server_out.WaitDone(std::chrono::seconds(5));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    stop = true;
    a.join();
    b.join();
    client->Close();
    server->Close();
    for (Outcome* o : {&client_out, &server_out}) {
        std::lock_guard<std::mutex> lock(o->mutex);
        EXPECT_LE(o->keyed + o->failed, 1) << o->why;
    }
}

}  // namespace
