#include "test_support.h"
#include "kept_engine.h"

namespace zarnrtc {
namespace test {

namespace {
std::string t(const char* s) {
    return s ? s : "null";
}
std::string b(bool v) {
    return v ? "true" : "false";
}
}  // namespace

void RecordingHandler::add(const std::string& e) {
    std::lock_guard<std::mutex> lock(m_);
    events_.push_back(e);
}

std::vector<std::string> RecordingHandler::events() {
    std::lock_guard<std::mutex> lock(m_);
    return events_;
}

void RecordingHandler::clear() {
    std::lock_guard<std::mutex> lock(m_);
    events_.clear();
}

void RecordingHandler::onRegistrationState(int accId, int state, const char* reason) {
    add("registration(" + std::to_string(accId) + "," + std::to_string(state) + "," + t(reason) +
        ")");
}
void RecordingHandler::onMessage(const char* message) {
    add("message(" + t(message) + ")");
}
void RecordingHandler::onIncomingCall(int callId, const char* name, const char* uri) {
    add("incoming(" + std::to_string(callId) + "," + t(name) + "," + t(uri) + ")");
}
void RecordingHandler::onCallStateChange(int callId, int stateCode, int reasonCode) {
    add("state(" + std::to_string(callId) + "," + std::to_string(stateCode) + "," +
        std::to_string(reasonCode) + ")");
}
void RecordingHandler::onLocalVideoReady(int callId) {
    add("localVideo(" + std::to_string(callId) + ")");
}
void RecordingHandler::onRemoteVideoReady(int callId) {
    add("remoteVideo(" + std::to_string(callId) + ")");
}
void RecordingHandler::onUpdatedByLocal(int callId, bool video) {
    add("updatedByLocal(" + std::to_string(callId) + "," + b(video) + ")");
}
void RecordingHandler::onUpdatedByRemote(int callId, bool video) {
    add("updatedByRemote(" + std::to_string(callId) + "," + b(video) + ")");
}

void CountingSink::OnFrame(libwebrtc::scoped_refptr<libwebrtc::RTCVideoFrame> frame) {
    ++frames;
    if (frame) lastWidth = frame->width();
}

void FakeEngineTest::SetUp() {
    fake::resetSip();
    fake::resetMedia();
    fake::logClear();
    liveAtStart = fake::liveObjects();
}

void FakeEngineTest::TearDown() {
    fake::resetSip();
    fake::resetMedia();
}

int FakeEngineTest::indexOf(const std::vector<std::string>& log, const std::string& e) {
    for (size_t i = 0; i < log.size(); ++i)
        if (log[i] == e) return int(i);
    return -1;
}

void EngineTest::SetUp() {
    FakeEngineTest::SetUp();
    engine = static_cast<ZarnRtcImpl*>(zarnrtc_testing::keptEngine());
    engine->setZarnRtcEvent(&handler);
    calls = sip()->calls;
    manager = static_cast<SipEngineManager*>(calls);
    baseline = fake::liveObjects();
    pcsBefore = fake::peerConnections().size();
    fake::logClear();
}

void EngineTest::TearDown() {
    engine->setZarnRtcEvent(nullptr);  // the engine outlives this test
    FakeEngineTest::TearDown();
}

}  // namespace test
}  // namespace zarnrtc
