#ifndef ZARNRTC_TESTS_TEST_SUPPORT_H
#define ZARNRTC_TESTS_TEST_SUPPORT_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "fake_media.h"
#include "fake_sip.h"
#include "sipenginemanager.h"
#include "zarnrtcimpl.h"

namespace zarnrtc {
namespace test {

// Records every event the application would see, as text.
class RecordingHandler : public IRtcEngineEventHandler {
  public:
    void onRegistrationState(int accId, int state, const char* reason) override {
        add("registration(" + n(accId) + "," + n(state) + "," + fake::text(reason) + ")");
    }
    void onMessage(const char* message) override { add("message(" + fake::text(message) + ")"); }
    void onIncomingCall(int callId, const char* name, const char* uri) override {
        add("incoming(" + n(callId) + "," + fake::text(name) + "," + fake::text(uri) + ")");
    }
    void onCallStateChange(int callId, int stateCode, int reasonCode) override {
        add("state(" + n(callId) + "," + n(stateCode) + "," + n(reasonCode) + ")");
    }
    void onLocalVideoReady(int callId) override { add("localVideo(" + n(callId) + ")"); }
    void onRemoteVideoReady(int callId) override { add("remoteVideo(" + n(callId) + ")"); }
    void onUpdatedByLocal(int callId, bool video) override {
        add("updatedByLocal(" + n(callId) + (video ? ",true)" : ",false)"));
    }
    void onUpdatedByRemote(int callId, bool video) override {
        add("updatedByRemote(" + n(callId) + (video ? ",true)" : ",false)"));
    }

    std::vector<std::string> events();
    void clear();

  private:
    static std::string n(int v) { return std::to_string(v); }
    void add(const std::string& e);
    std::mutex m_;
    std::vector<std::string> events_;
};

class CountingSink : public VideoSink {
  public:
    void OnFrame(libwebrtc::scoped_refptr<libwebrtc::RTCVideoFrame> frame) override;
    std::atomic<int> frames{0};
    std::atomic<int> lastWidth{0};
};

// Starts every test with empty fake configuration and log.
class FakeEngineTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // The SIP engine of the most recently made engine.
    fake::SipEngineState* sip() { return fake::lastSipEngine(); }
    // Log entries starting with prefix.
    std::vector<std::string> ops(const std::string& prefix) { return fake::logMatching(prefix); }

    int liveAtStart = 0;
};

// A whole engine over the fakes, with the application's handler installed.
class EngineTest : public FakeEngineTest {
  protected:
    void SetUp() override;
    void TearDown() override;

    ZarnRtcImpl* engine = nullptr;
    CallStateDelegate* calls = nullptr;   // the engine's SIP callbacks
    SipEngineManager* manager = nullptr;  // the same object, for registry checks
    RecordingHandler handler;
    int baseline = 0;      // live media objects: the shared factory
    size_t pcsBefore = 0;  // peer connections other engines left alive
};

}  // namespace test
}  // namespace zarnrtc

#endif
