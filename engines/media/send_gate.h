// The gate between rtpbin and a line's transport (transport.h).
#ifndef ZARNRTC_MEDIA_SEND_GATE_H
#define ZARNRTC_MEDIA_SEND_GATE_H

#include <gst/gst.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace libwebrtc {
namespace media {

// Holds what rtpbin sends until the transport can carry it: a buffer waits (the
// encoder's first key frame goes out the moment the path opens), one that waited
// too long is dropped and a key frame asked for instead. Never blocks a thread
// that must go on: Discard() and Open() both release it.
class SendGate {
  public:
    explicit SendGate(bool video) : video_(video) {}
    ~SendGate() { Discard(); }
    void Open();
    void Discard();  // drops everything from now on (line not sent, or closing)
    bool open() const { return state_ == kOpen; }
    // Installs the gate as a probe on rtpbin's send_rtp_src pad.
    static void Install(GstPad* pad, const std::shared_ptr<SendGate>& gate);

  private:
    enum State { kClosed, kOpen, kDiscard };
    GstPadProbeReturn Pass(GstPad* pad, GstPadProbeInfo* info);
    const bool video_;
    std::mutex mutex_;
    std::condition_variable cv_;
    std::atomic<int> state_{kClosed};
    bool ask_key_frame_ = false;  // under mutex_
};

}  // namespace media
}  // namespace libwebrtc

#endif
