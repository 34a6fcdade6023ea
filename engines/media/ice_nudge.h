// A component connected on our side may still be silent on the far end's: its own
// check or the answer to it was lost, and libnice sends a lost check again only
// after 0.5, 1.5 and 3.5 s. Any ICE agent answers a check on a pair it has not
// validated yet with a check of its own at once (a triggered check), so until the
// far end is heard on the component we send it one every kNudgeIntervalMs, for at
// most kNudgeMaxMs. It only helps the far end find a path we already use.
#ifndef ZARNRTC_MEDIA_ICE_NUDGE_H
#define ZARNRTC_MEDIA_ICE_NUDGE_H

#include <gst/gst.h>
#include <nice/agent.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace libwebrtc {
namespace media {

constexpr unsigned kNudgeIntervalMs = 100;
constexpr unsigned kNudgeMaxMs = 5000;

// Per component of a line (index 1 and 2): set once anything but STUN arrived
// from the far end. Shared with the pad probes, which may outlive the call.
struct FarEndHeard {
    std::atomic<bool> component[3] = {};
};

// Sets `heard->component[component]` on the first buffer through `pad` (a nicesrc's
// source pad: libnice keeps the STUN to itself).
void WatchHeard(GstPad* pad, const std::shared_ptr<FarEndHeard>& heard, guint component);

struct NudgeTarget {
    guint stream = 0, component = 0;
    std::string local_ufrag, remote_ufrag, remote_pwd;
    bool controlling = false;
};

// One binding request from us to the far end (RFC 8445 short-term credentials:
// USERNAME "theirs:ours", MESSAGE-INTEGRITY with their password, FINGERPRINT);
// empty when it cannot be made.
std::vector<uint8_t> MakeNudge(const NudgeTarget& target, uint64_t tie_breaker);

class IceNudge {
  public:
    // Starts the timer on `context` (the agent's); the timer holds the agent until
    // it ends.
    static std::shared_ptr<IceNudge> Start(GMainContext* context, NiceAgent* agent,
                                           const NudgeTarget& target,
                                           std::shared_ptr<FarEndHeard> heard);
    // Any thread, any number of times: no request leaves after it returns but one
    // already being sent.
    void Stop();
    unsigned sent() const { return sent_.load(); }

  private:
    IceNudge() = default;
    std::atomic<bool> stopped_{false};
    std::atomic<unsigned> sent_{0};
};

}  // namespace media
}  // namespace libwebrtc

#endif
