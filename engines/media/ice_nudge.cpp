// Binding requests that make a far end still checking try its path again at once.
#include "ice_nudge.h"

#include <stun/stunagent.h>
#include <stun/usages/ice.h>

#include <mutex>

GST_DEBUG_CATEGORY_STATIC(zarn_nudge_debug);
#define GST_CAT_DEFAULT zarn_nudge_debug

namespace libwebrtc {
namespace media {

namespace {

struct Tick {
    std::shared_ptr<IceNudge> self;
    NiceAgent* agent;  // a reference of our own, dropped on the ICE thread
    NudgeTarget target;
    std::shared_ptr<FarEndHeard> heard;
    uint64_t tie_breaker;
    gint64 deadline_us;
    ~Tick() { g_object_unref(agent); }
};

}  // namespace

void WatchHeard(GstPad* pad, const std::shared_ptr<FarEndHeard>& heard, guint component) {
    if (component < 1 || component > 2) return;
    struct Watch {
        std::shared_ptr<FarEndHeard> heard;
        guint component;
    };
    gst_pad_add_probe(
        pad, GST_PAD_PROBE_TYPE_BUFFER,
        [](GstPad*, GstPadProbeInfo*, gpointer d) {
            auto* w = static_cast<Watch*>(d);
            w->heard->component[w->component].store(true, std::memory_order_relaxed);
            return GST_PAD_PROBE_REMOVE;
        },
        new Watch{heard, component}, [](gpointer d) { delete static_cast<Watch*>(d); });
}

std::vector<uint8_t> MakeNudge(const NudgeTarget& t, uint64_t tie_breaker) {
    static const uint16_t kKnown[] = {STUN_ATTRIBUTE_USERNAME,
                                      STUN_ATTRIBUTE_MESSAGE_INTEGRITY,
                                      STUN_ATTRIBUTE_ERROR_CODE,
                                      STUN_ATTRIBUTE_UNKNOWN_ATTRIBUTES,
                                      STUN_ATTRIBUTE_XOR_MAPPED_ADDRESS,
                                      STUN_ATTRIBUTE_PRIORITY,
                                      STUN_ATTRIBUTE_USE_CANDIDATE,
                                      STUN_ATTRIBUTE_ICE_CONTROLLED,
                                      STUN_ATTRIBUTE_ICE_CONTROLLING,
                                      STUN_ATTRIBUTE_FINGERPRINT,
                                      0};
    if (t.component < 1 || t.component > 2 || t.remote_ufrag.empty() || t.remote_pwd.empty())
        return {};
    StunAgent agent;
    stun_agent_init(&agent, kKnown, STUN_COMPATIBILITY_RFC5389,
                    static_cast<StunAgentUsageFlags>(STUN_AGENT_USAGE_SHORT_TERM_CREDENTIALS |
                                                     STUN_AGENT_USAGE_USE_FINGERPRINT));
    StunMessage msg;
    std::vector<uint8_t> out(STUN_MAX_MESSAGE_SIZE_IPV6);
    std::string user = t.remote_ufrag + ":" + t.local_ufrag;
    // A peer-reflexive host's priority: only used should the far end not know us.
    uint32_t priority = (110u << 24) | (0xFFFFu << 8) | (256u - t.component);
    size_t len = stun_usage_ice_conncheck_create(
        &agent, &msg, out.data(), out.size(), reinterpret_cast<const uint8_t*>(user.data()),
        user.size(), reinterpret_cast<const uint8_t*>(t.remote_pwd.data()), t.remote_pwd.size(),
        false, t.controlling, priority, tie_breaker, nullptr, STUN_USAGE_ICE_COMPATIBILITY_RFC5245);
    out.resize(len);
    return out;
}

std::shared_ptr<IceNudge> IceNudge::Start(GMainContext* context, NiceAgent* agent,
                                          const NudgeTarget& target,
                                          std::shared_ptr<FarEndHeard> heard) {
    static std::once_flag once;
    std::call_once(once, [] {
        GST_DEBUG_CATEGORY_INIT(zarn_nudge_debug, "zarnnudge", 0, "ZarnRtc ICE nudges");
    });
    std::shared_ptr<IceNudge> self(new IceNudge());
    if (!agent || !heard || target.component < 1 || target.component > 2) return self;
    uint64_t tie = (static_cast<uint64_t>(g_random_int()) << 32) | g_random_int();
    // The role the agent settled on (a role conflict may have turned it).
    gboolean controlling = FALSE;
    g_object_get(agent, "controlling-mode", &controlling, nullptr);
    auto* tick = new Tick{self,   NICE_AGENT(g_object_ref(agent)),
                          target, std::move(heard),
                          tie,    g_get_monotonic_time() + gint64(kNudgeMaxMs) * 1000};
    tick->target.controlling = controlling;
    GSource* source = g_timeout_source_new(kNudgeIntervalMs);
    g_source_set_callback(
        source,
        +[](gpointer d) -> gboolean {
            auto* t = static_cast<Tick*>(d);
            if (t->self->stopped_ || t->heard->component[t->target.component] ||
                g_get_monotonic_time() > t->deadline_us)
                return G_SOURCE_REMOVE;
            std::vector<uint8_t> request = MakeNudge(t->target, t->tie_breaker);
            if (request.empty()) return G_SOURCE_REMOVE;
            gint sent = nice_agent_send(t->agent, t->target.stream, t->target.component,
                                        static_cast<guint>(request.size()),
                                        reinterpret_cast<const gchar*>(request.data()));
            if (sent < 0) return G_SOURCE_REMOVE;  // no path (any more)
            unsigned n = ++t->self->sent_;
            GST_DEBUG("far end silent on stream %u component %u: binding request %u",
                      t->target.stream, t->target.component, n);
            return G_SOURCE_CONTINUE;
        },
        tick, [](gpointer d) { delete static_cast<Tick*>(d); });
    g_source_attach(source, context);
    g_source_unref(source);
    return self;
}

void IceNudge::Stop() {
    stopped_ = true;
}

}  // namespace media
}  // namespace libwebrtc
