// ICE for one peer connection: a libnice agent of our own (full ICE, aggressive
// nomination, UDP only) whose timers and signals run on the
// process's ICE thread, shared by every call.
#ifndef ZARNRTC_MEDIA_ICE_AGENT_H
#define ZARNRTC_MEDIA_ICE_AGENT_H

#include <nice/agent.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "libwebrtc.h"
#include "sdp_model.h"

namespace libwebrtc {
namespace media {

// What the agent reports, on the ICE thread: a listener only hands the news on
// (posts it to its own worker) and never calls back into the agent from there.
struct IceListener {
    std::function<void(guint stream, const sdp::Candidate& local)> candidate;
    std::function<void(guint stream)> gathered;
    std::function<void(guint stream, guint component, NiceComponentState state)> state;
};

class IceAgent {
  public:
    // Null when libnice cannot make an agent. `addresses`: the only local
    // addresses to offer (empty: every usable interface).
    static std::shared_ptr<IceAgent> Create(const RTCConfiguration& config,
                                            const std::vector<std::string>& addresses,
                                            IceListener listener);
    ~IceAgent();
    IceAgent(const IceAgent&) = delete;
    IceAgent& operator=(const IceAgent&) = delete;

    NiceAgent* agent() const { return agent_; }
    // A new stream of 1 or 2 components with these credentials; 0 on failure.
    guint AddStream(int components, const std::string& ufrag, const std::string& pwd);
    bool Gather(guint stream);
    void SetControlling(bool controlling);
    // The far end's credentials and candidates; checks start once both are known.
    bool SetRemote(guint stream, const std::string& ufrag, const std::string& pwd,
                   const std::vector<sdp::Candidate>& candidates);
    // One more candidate of the far end's (trickled).
    void AddRemoteCandidate(guint stream, const sdp::Candidate& candidate);
    // The candidate that goes in c= and m= (or a=rtcp); false when there is none.
    bool Default(guint stream, guint component, std::string* address, int* port) const;

    static std::string RandomToken(size_t length);

  private:
    IceAgent() = default;
    void Connect(IceListener listener);

    NiceAgent* agent_ = nullptr;  // one reference; dropped on the ICE thread
    std::vector<gulong> handlers_;
    std::vector<guint> streams_;
    std::shared_ptr<struct IceSignalTarget> target_;
};

// The process's ICE thread context (started on first use, never stopped).
GMainContext* IceContext();

}  // namespace media
}  // namespace libwebrtc

#endif
