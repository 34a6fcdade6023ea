#include "test_support.h"
#include "kept_engine.h"

namespace zarnrtc {
namespace test {

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
