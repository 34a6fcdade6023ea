// The libnice agent of a call and the one thread that runs every agent's timers.
#include "ice_agent.h"

#include <gio/gio.h>

#include <cstdlib>
#include <cstring>
#include <thread>

#include "media_internal.h"

namespace libwebrtc {
namespace media {

// Shared with the signal closures, which may outlive the agent's holder by one
// running callback.
struct IceSignalTarget {
    IceListener listener;
};

namespace {

const char* TypeName(NiceCandidateType t) {
    switch (t) {
        case NICE_CANDIDATE_TYPE_SERVER_REFLEXIVE:
            return "srflx";
        case NICE_CANDIDATE_TYPE_PEER_REFLEXIVE:
            return "prflx";
        case NICE_CANDIDATE_TYPE_RELAYED:
            return "relay";
        default:
            return "host";
    }
}

bool TypeOf(const std::string& name, NiceCandidateType* out) {
    static const struct {
        const char* name;
        NiceCandidateType type;
    } kTypes[] = {{"host", NICE_CANDIDATE_TYPE_HOST},
                  {"srflx", NICE_CANDIDATE_TYPE_SERVER_REFLEXIVE},
                  {"prflx", NICE_CANDIDATE_TYPE_PEER_REFLEXIVE},
                  {"relay", NICE_CANDIDATE_TYPE_RELAYED}};
    for (const auto& t : kTypes)
        if (name == t.name) {
            *out = t.type;
            return true;
        }
    return false;
}

std::string AddressText(const NiceAddress* a) {
    char text[NICE_ADDRESS_STRING_LEN] = {0};
    nice_address_to_string(a, text);
    return text;
}

sdp::Candidate FromNice(const NiceCandidate* c) {
    sdp::Candidate out;
    out.foundation = c->foundation;
    out.component = static_cast<int>(c->component_id);
    out.transport = "udp";
    out.priority = c->priority;
    out.address = AddressText(&c->addr);
    out.port = static_cast<int>(nice_address_get_port(&c->addr));
    out.type = TypeName(c->type);
    if (c->type != NICE_CANDIDATE_TYPE_HOST) {
        out.related_address = AddressText(&c->base_addr);
        out.related_port = static_cast<int>(nice_address_get_port(&c->base_addr));
    }
    return out;
}

// Null for anything libnice cannot use (TCP, names, bad ports).
NiceCandidate* ToNice(const sdp::Candidate& c, guint stream) {
    NiceCandidateType type;
    if (c.transport != "udp" || !TypeOf(c.type, &type) || c.port <= 0 || c.port > 65535 ||
        c.component < 1 || c.component > 2 || c.foundation.empty())
        return nullptr;
    NiceAddress addr;
    nice_address_init(&addr);
    if (!nice_address_set_from_string(&addr, c.address.c_str())) return nullptr;
    nice_address_set_port(&addr, static_cast<guint>(c.port));
    NiceCandidate* n = nice_candidate_new(type);
    n->transport = NICE_CANDIDATE_TRANSPORT_UDP;
    n->addr = addr;
    n->priority = c.priority;
    n->stream_id = stream;
    n->component_id = static_cast<guint>(c.component);
    g_strlcpy(n->foundation, c.foundation.c_str(), NICE_CANDIDATE_MAX_FOUNDATION);
    if (!c.related_address.empty() &&
        nice_address_set_from_string(&n->base_addr, c.related_address.c_str()))
        nice_address_set_port(&n->base_addr, static_cast<guint>(c.related_port));
    return n;
}

std::shared_ptr<IceSignalTarget>* NewTargetRef(const std::shared_ptr<IceSignalTarget>& t) {
    return new std::shared_ptr<IceSignalTarget>(t);
}

void FreeTargetRef(gpointer data, GClosure*) {
    delete static_cast<std::shared_ptr<IceSignalTarget>*>(data);
}

IceSignalTarget* Target(gpointer data) {
    return static_cast<std::shared_ptr<IceSignalTarget>*>(data)->get();
}

}  // namespace

GMainContext* IceContext() {
    static GMainContext* context = [] {
        GMainContext* ctx = g_main_context_new();
        std::thread([ctx] {
            pthread_setname_np(pthread_self(), "zrtc-ice");
            // The thread's default context too: libnice completes its closing there.
            g_main_context_push_thread_default(ctx);
            GMainLoop* loop = g_main_loop_new(ctx, FALSE);
            g_main_loop_run(loop);  // never quits: agents may be closed while the process exits
        }).detach();
        return ctx;
    }();
    return context;
}

std::string IceAgent::RandomToken(size_t length) {
    static const char kChars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < length; ++i) out += kChars[g_random_int_range(0, 64)];
    return out;
}

std::shared_ptr<IceAgent> IceAgent::Create(const RTCConfiguration& config,
                                           const std::vector<std::string>& addresses,
                                           IceListener listener) {
    std::shared_ptr<IceAgent> self(new IceAgent());
    // Aggressive nomination (the default of nice_agent_new_full) puts a call on its
    // first working pair at once. No consent freshness: libnice 0.1.21 fails a path
    // after about 3 s of unanswered checks, less than a live far end may stall; the
    // session's own watch (liveness.cpp) ends a call whose far end is gone.
    self->agent_ =
        nice_agent_new_full(IceContext(), NICE_COMPATIBILITY_RFC5245, NICE_AGENT_OPTION_NONE);
    if (!self->agent_) return nullptr;
    // UDP only, whatever the configuration allows: media never runs over TCP here.
    g_object_set(self->agent_, "ice-tcp", FALSE, "upnp", FALSE, "stun-pacing-timer", kIcePacingMs,
                 "stun-max-retransmissions", kIceCheckTransmissions, "ice-trickle", FALSE, nullptr);
    int added = 0;
    for (const std::string& a : addresses) {
        NiceAddress address;
        nice_address_init(&address);
        if (nice_address_set_from_string(&address, a.c_str()) &&
            nice_agent_add_local_address(self->agent_, &address))
            ++added;
        else
            GST_WARNING("media address '%s' is not usable", a.c_str());
    }
    if (!addresses.empty() && added == 0) {
        GST_ERROR("no usable media address; media stays on loopback");
        NiceAddress loopback;
        nice_address_init(&loopback);
        nice_address_set_from_string(&loopback, "127.0.0.1");
        nice_agent_add_local_address(self->agent_, &loopback);
    }
    for (const IceServer& server : config.ice_servers) {
        std::string uri(server.uri);
        if (uri.rfind("stun:", 0) != 0) continue;  // TURN is not offered by the SDK
        std::string host = uri.substr(5);
        guint port = 3478;
        size_t colon = host.rfind(':');
        if (colon != std::string::npos && host.find(']') == std::string::npos) {
            port = static_cast<guint>(std::atoi(host.c_str() + colon + 1));
            host.resize(colon);
        }
        g_object_set(self->agent_, "stun-server", host.c_str(), "stun-server-port", port, nullptr);
        break;
    }
    self->Connect(std::move(listener));
    return self;
}

void IceAgent::Connect(IceListener listener) {
    target_ = std::make_shared<IceSignalTarget>();
    target_->listener = std::move(listener);
    handlers_.push_back(g_signal_connect_data(
        agent_, "new-candidate-full", G_CALLBACK(+[](NiceAgent*, NiceCandidate* c, gpointer d) {
            if (c && c->transport == NICE_CANDIDATE_TRANSPORT_UDP && Target(d)->listener.candidate)
                Target(d)->listener.candidate(c->stream_id, FromNice(c));
        }),
        NewTargetRef(target_), FreeTargetRef, GConnectFlags(0)));
    handlers_.push_back(g_signal_connect_data(
        agent_, "candidate-gathering-done", G_CALLBACK(+[](NiceAgent*, guint stream, gpointer d) {
            if (Target(d)->listener.gathered) Target(d)->listener.gathered(stream);
        }),
        NewTargetRef(target_), FreeTargetRef, GConnectFlags(0)));
    handlers_.push_back(g_signal_connect_data(
        agent_, "component-state-changed",
        G_CALLBACK(+[](NiceAgent*, guint stream, guint component, guint state, gpointer d) {
            if (Target(d)->listener.state)
                Target(d)->listener.state(stream, component, NiceComponentState(state));
        }),
        NewTargetRef(target_), FreeTargetRef, GConnectFlags(0)));
}

IceAgent::~IceAgent() {
    if (!agent_) return;
    for (gulong id : handlers_) g_signal_handler_disconnect(agent_, id);
    // On its own thread: the streams go first (their timers and sockets hold the
    // agent), then the agent is closed and released. The call's nicesrc/nicesink
    // may hold it a little longer.
    struct Closing {
        NiceAgent* agent;
        std::vector<guint> streams;
    };
    auto* closing = new Closing{agent_, streams_};
    g_main_context_invoke(
        IceContext(),
        +[](gpointer data) -> gboolean {
            std::unique_ptr<Closing> c(static_cast<Closing*>(data));
            for (guint stream : c->streams) nice_agent_remove_stream(c->agent, stream);
            nice_agent_close_async(
                c->agent, +[](GObject* source, GAsyncResult*, gpointer) { g_object_unref(source); },
                nullptr);
            return G_SOURCE_REMOVE;
        },
        closing);
}

guint IceAgent::AddStream(int components, const std::string& ufrag, const std::string& pwd) {
    guint stream = nice_agent_add_stream(agent_, static_cast<guint>(components));
    if (stream == 0) return 0;
    streams_.push_back(stream);
    if (!nice_agent_set_local_credentials(agent_, stream, ufrag.c_str(), pwd.c_str())) {
        nice_agent_remove_stream(agent_, stream);
        return 0;
    }
    return stream;
}

bool IceAgent::Gather(guint stream) {
    return nice_agent_gather_candidates(agent_, stream);
}

void IceAgent::SetControlling(bool controlling) {
    g_object_set(agent_, "controlling-mode", controlling, nullptr);
}

bool IceAgent::SetRemote(guint stream, const std::string& ufrag, const std::string& pwd,
                         const std::vector<sdp::Candidate>& candidates) {
    if (!nice_agent_set_remote_credentials(agent_, stream, ufrag.c_str(), pwd.c_str()))
        return false;
    for (guint component = 1; component <= 2; ++component) {
        GSList* list = nullptr;
        for (const sdp::Candidate& c : candidates)
            if (c.component == static_cast<int>(component))
                if (NiceCandidate* n = ToNice(c, stream)) list = g_slist_append(list, n);
        if (list) nice_agent_set_remote_candidates(agent_, stream, component, list);
        g_slist_free_full(list, reinterpret_cast<GDestroyNotify>(nice_candidate_free));
    }
    return true;
}

void IceAgent::AddRemoteCandidate(guint stream, const sdp::Candidate& candidate) {
    NiceCandidate* n = ToNice(candidate, stream);
    if (!n) return;
    GSList* list = g_slist_append(nullptr, n);
    nice_agent_set_remote_candidates(agent_, stream, n->component_id, list);
    g_slist_free_full(list, reinterpret_cast<GDestroyNotify>(nice_candidate_free));
}

bool IceAgent::Default(guint stream, guint component, std::string* address, int* port) const {
    NiceCandidate* c = nice_agent_get_default_local_candidate(agent_, stream, component);
    if (!c) return false;
    *address = AddressText(&c->addr);
    *port = static_cast<int>(nice_address_get_port(&c->addr));
    nice_candidate_free(c);
    return *port > 0;
}

}  // namespace media
}  // namespace libwebrtc
