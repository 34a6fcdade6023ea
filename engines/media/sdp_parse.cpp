// Reading a description from hostile text into the model: one pass over the lines,
// bounded in what it keeps, then the session's values resolved into each section.
#include <array>
#include <cctype>

#include "sdp_model.h"
#include "sdp_text.h"

namespace libwebrtc {
namespace media {
namespace sdp {
namespace {

constexpr size_t kMaxText = 64 * 1024;
constexpr size_t kMaxMedia = 8;  // a call has one audio and one video section
constexpr size_t kMaxFormats = 48;
constexpr size_t kMaxCandidates = 32;
constexpr size_t kMaxSources = 16;
constexpr size_t kMaxFeedback = 16;
constexpr size_t kMaxCrypto = 8;
constexpr size_t kMaxGroups = 4;
constexpr size_t kMaxGroupMids = 16;
constexpr size_t kMaxToken = 256;  // ufrag, pwd, mid, cname, msid ids, addresses

struct StaticType {
    int pt;
    const char* name;
    int rate;
    int channels;
};
// RFC 3551's static payload types: usable without a=rtpmap.
const StaticType kStaticTypes[] = {
    {0, "PCMU", 8000, 0},   {3, "GSM", 8000, 0},    {4, "G723", 8000, 0},   {5, "DVI4", 8000, 0},
    {6, "DVI4", 16000, 0},  {7, "LPC", 8000, 0},    {8, "PCMA", 8000, 0},   {9, "G722", 8000, 0},
    {10, "L16", 44100, 2},  {11, "L16", 44100, 0},  {12, "QCELP", 8000, 0}, {13, "CN", 8000, 0},
    {14, "MPA", 90000, 0},  {15, "G728", 8000, 0},  {16, "DVI4", 11025, 0}, {17, "DVI4", 22050, 0},
    {18, "G729", 8000, 0},  {25, "CelB", 90000, 0}, {26, "JPEG", 90000, 0}, {28, "nv", 90000, 0},
    {31, "H261", 90000, 0}, {32, "MPV", 90000, 0},  {33, "MP2T", 90000, 0}, {34, "H263", 90000, 0},
};

Codec NewCodec(int pt) {
    Codec c;
    c.pt = pt;
    for (const StaticType& s : kStaticTypes) {
        if (s.pt != pt) continue;
        c.name = s.name;
        c.clock_rate = s.rate;
        c.channels = s.channels;
    }
    return c;
}

Profile ProfileOf(const std::string& protocol) {
    for (Profile p : {Profile::kAvp, Profile::kAvpf, Profile::kSavp, Profile::kSavpf,
                      Profile::kDtlsSavp, Profile::kDtlsSavpf})
        if (text::EqualNoCase(protocol, ProfileName(p))) return p;
    return Profile::kUnknown;
}

// One blank-free word of bounded size, else "".
std::string Token(const std::string& value) {
    std::string t = text::Trim(value);
    if (t.size() > kMaxToken || t.find_first_of(" \t") != std::string::npos) return "";
    return t;
}

// Payload types of the section, for its codec attributes.
struct Scope {
    bool has_direction = false;
    std::array<int, 128> index;  // codec position per payload type, -1 when none
    std::array<bool, 128> mapped{}, has_fmtp{};
    std::vector<std::string> any_feedback;  // a=rtcp-fb:*
    Scope() { index.fill(-1); }
};

class Parser {
  public:
    explicit Parser(Description* d) : d_(d) { d_->media.reserve(kMaxMedia); }
    bool Line(const std::string& line);
    void Resolve();
    const std::string& error() const { return error_; }

  private:
    Media& Current() { return d_->media.empty() ? session_ : d_->media.back(); }
    Scope& CurrentScope() { return scopes_.empty() ? session_scope_ : scopes_.back(); }
    bool Fail(const std::string& why) {
        error_ = why;
        return false;
    }
    bool StartMedia(const std::string& value);
    void Origin(const std::string& value);
    void Connection(const std::string& value);
    void Attribute(const std::string& name, const std::string& value);
    bool CodecAttribute(const std::string& name, const std::string& value);
    bool TransportAttribute(const std::string& name, const std::string& value);
    bool SecurityAttribute(const std::string& name, const std::string& value);
    void SourceAttribute(const std::string& name, const std::string& value);
    void Ssrc(const std::string& value);
    void Group(const std::string& value);
    void Rtpmap(const std::string& value);
    void Feedback(const std::string& value);
    Codec* CodecOf(const std::string& pt);

    Description* d_;
    Media session_;  // the session level's own attributes
    Scope session_scope_;
    std::vector<Scope> scopes_;
    std::string error_;
};

bool Parser::Line(const std::string& line) {
    if (line.size() < 2 || line[1] != '=') return true;  // not a type=value line: ignored
    std::string value = line.substr(2);
    switch (line[0]) {
        case 'm':
            return StartMedia(value);
        case 'o':
            if (d_->media.empty()) Origin(value);
            break;
        case 's':
            if (d_->media.empty()) d_->session_name = value.substr(0, kMaxToken);
            break;
        case 'c':
            Connection(value);
            break;
        case 'b':
            if (!d_->media.empty() && value.compare(0, 3, "AS:") == 0)
                text::ToInt(text::Trim(value.substr(3)), 0, 10000000,
                            &d_->media.back().bandwidth_kbps);
            break;
        case 'a': {
            size_t colon = value.find(':');
            std::string name = value.substr(0, colon);
            Attribute(text::Trim(name), colon == std::string::npos ? "" : value.substr(colon + 1));
            break;
        }
        default:
            break;
    }
    return true;
}

bool Parser::StartMedia(const std::string& value) {
    if (d_->media.size() >= kMaxMedia) return Fail("too many media sections");
    std::vector<std::string> w = text::Words(value, 3 + kMaxFormats);
    Media m;
    if (w.size() < 3 || w[0].size() > 32 ||
        !text::ToInt(w[1].substr(0, w[1].find('/')), 0, 65535, &m.port))
        return Fail("bad m-line " + std::to_string(d_->media.size() + 1));
    m.kind = text::Lower(w[0]);
    m.protocol = w[2].substr(0, 64);
    m.profile = ProfileOf(m.protocol);
    Scope scope;
    bool rtp = text::Upper(m.protocol).find("RTP/") != std::string::npos;
    for (size_t i = 3; i < w.size(); ++i) {
        bool known = w[i].size() > 32;
        for (const std::string& f : m.formats) known = known || f == w[i];
        if (known) continue;
        m.formats.push_back(w[i]);
        int pt = -1;
        if (!rtp || !text::ToInt(w[i], 0, 127, &pt)) continue;
        scope.index[pt] = static_cast<int>(m.codecs.size());
        m.codecs.push_back(NewCodec(pt));
    }
    d_->media.push_back(std::move(m));
    scopes_.push_back(scope);
    return true;
}

void Parser::Origin(const std::string& value) {
    std::vector<std::string> w = text::Words(value, 6);
    if (w.size() < 6) return;
    for (const std::string& s : w)
        if (s.size() > kMaxToken) return;
    d_->origin_user = w[0];
    d_->session_id = w[1];
    d_->session_version = w[2];
    d_->origin_address = w[5];
}

void Parser::Connection(const std::string& value) {
    std::vector<std::string> w = text::Words(value, 3);
    if (w.size() < 3 || w[0] != "IN") return;
    std::string address = Token(w[2].substr(0, w[2].find('/')));
    std::string& target = d_->media.empty() ? d_->address : d_->media.back().address;
    if (target.empty()) target = address;
}

void Parser::Attribute(const std::string& name, const std::string& value) {
    if (name == "group") return Group(value);
    if (CodecAttribute(name, value) || TransportAttribute(name, value) ||
        SecurityAttribute(name, value))
        return;
    SourceAttribute(name, value);
}

void Parser::Group(const std::string& value) {
    std::vector<std::string> w = text::Words(value, 1 + kMaxGroupMids);
    if (!d_->media.empty() || w.empty() || w[0] != "BUNDLE" ||
        d_->bundle_groups.size() >= kMaxGroups)
        return;
    std::vector<std::string> mids;
    for (size_t i = 1; i < w.size(); ++i)
        if (w[i].size() <= kMaxToken) mids.push_back(w[i]);
    d_->bundle_groups.push_back(mids);
}

Codec* Parser::CodecOf(const std::string& pt) {
    int n = -1;
    if (d_->media.empty() || !text::ToInt(pt, 0, 127, &n) || scopes_.back().index[n] < 0)
        return nullptr;
    return &d_->media.back().codecs[static_cast<size_t>(scopes_.back().index[n])];
}

bool Parser::CodecAttribute(const std::string& name, const std::string& value) {
    if (name == "rtpmap") {
        Rtpmap(value);
    } else if (name == "fmtp") {
        std::string v = text::Trim(value);
        size_t blank = v.find_first_of(" \t");
        Codec* c = blank == std::string::npos ? nullptr : CodecOf(v.substr(0, blank));
        if (c && !CurrentScope().has_fmtp[c->pt] && v.size() - blank <= 1024) {
            CurrentScope().has_fmtp[c->pt] = true;
            c->fmtp = text::Trim(v.substr(blank + 1));
        }
    } else if (name == "rtcp-fb") {
        Feedback(value);
    } else {
        return false;
    }
    return true;
}

void Parser::Rtpmap(const std::string& value) {
    std::vector<std::string> w = text::Words(value, 2);
    Codec* c = w.size() == 2 ? CodecOf(w[0]) : nullptr;
    if (!c || CurrentScope().mapped[c->pt]) return;
    std::vector<std::string> parts;
    for (size_t pos = 0; pos <= w[1].size() && parts.size() < 3;) {
        size_t slash = w[1].find('/', pos);
        if (slash == std::string::npos) slash = w[1].size();
        parts.push_back(w[1].substr(pos, slash - pos));
        pos = slash + 1;
    }
    int rate = 0, channels = 0;
    if (parts.size() < 2 || parts[0].empty() || parts[0].size() > 32 ||
        !text::ToInt(parts[1], 1, 10000000, &rate) ||
        (parts.size() == 3 && !text::ToInt(parts[2], 1, 64, &channels)))
        return;
    CurrentScope().mapped[c->pt] = true;
    c->name = parts[0];
    c->clock_rate = rate;
    c->channels = channels;
}

void Parser::Feedback(const std::string& value) {
    std::vector<std::string> w = text::Words(value, 4);
    if (w.size() < 2 || d_->media.empty()) return;
    std::string fb = w[1];
    for (size_t i = 2; i < w.size(); ++i) fb += " " + w[i];
    if (fb.size() > 64) return;
    std::vector<std::string>* list = nullptr;
    if (w[0] == "*") {
        list = &CurrentScope().any_feedback;
    } else if (Codec* c = CodecOf(w[0])) {
        list = &c->feedback;
    }
    if (!list || list->size() >= kMaxFeedback) return;
    for (const std::string& f : *list)
        if (f == fb) return;
    list->push_back(fb);
}

bool Parser::TransportAttribute(const std::string& name, const std::string& value) {
    Media& m = Current();
    static const Direction kDirections[] = {Direction::kSendRecv, Direction::kSendOnly,
                                            Direction::kRecvOnly, Direction::kInactive};
    for (Direction d : kDirections) {
        if (name != DirectionName(d)) continue;
        if (!CurrentScope().has_direction) m.direction = d;
        CurrentScope().has_direction = true;
        return true;
    }
    Candidate c;
    if (name == "candidate") {
        if (!d_->media.empty() && m.candidates.size() < kMaxCandidates &&
            ParseCandidate("candidate:" + value, &c))
            m.candidates.push_back(c);
    } else if (name == "ice-ufrag") {
        if (m.ice_ufrag.empty()) m.ice_ufrag = Token(value);
    } else if (name == "ice-pwd") {
        if (m.ice_pwd.empty()) m.ice_pwd = Token(value);
    } else if (name == "ice-lite") {
        m.ice_lite = true;
    } else if (name == "end-of-candidates") {
        m.end_of_candidates = true;
    } else if (name == "rtcp-mux") {
        m.rtcp_mux = true;
    } else if (name == "rtcp-rsize") {
        m.rtcp_rsize = true;
    } else if (name == "bundle-only") {
        m.bundle_only = true;
    } else if (name == "rtcp") {
        std::vector<std::string> w = text::Words(value, 4);
        if (m.rtcp_port == 0 && !w.empty() && text::ToInt(w[0], 1, 65535, &m.rtcp_port))
            m.rtcp_address = w.size() == 4 && w[1] == "IN" ? Token(w[3]) : "";
    } else if (name == "mid") {
        if (m.mid.empty()) m.mid = Token(value);
    } else if (name == "ptime") {
        if (m.ptime == 0) text::ToInt(text::Trim(value), 1, 1000, &m.ptime);
    } else {
        return false;
    }
    return true;
}

bool IsFingerprint(const std::string& fp) {
    if (fp.size() < 2 || fp.size() > 64 * 3 - 1 || fp.size() % 3 != 2) return false;
    for (size_t i = 0; i < fp.size(); ++i) {
        bool colon = i % 3 == 2;
        if (colon ? fp[i] != ':' : !std::isxdigit(static_cast<unsigned char>(fp[i]))) return false;
    }
    return true;
}

bool Parser::SecurityAttribute(const std::string& name, const std::string& value) {
    Media& m = Current();
    if (name == "fingerprint") {
        std::vector<std::string> w = text::Words(value, 2);
        // The first, unless a later one is sha-256 (what we check against).
        if (w.size() == 2 && IsFingerprint(w[1]) && w[0].size() <= 16 &&
            (m.fingerprint.empty() ||
             (m.fingerprint_hash != "sha-256" && text::EqualNoCase(w[0], "sha-256")))) {
            m.fingerprint_hash = text::Lower(w[0]);
            m.fingerprint = text::Upper(w[1]);
        }
    } else if (name == "setup") {
        for (Setup s : {Setup::kActPass, Setup::kActive, Setup::kPassive, Setup::kHoldConn})
            if (m.setup == Setup::kNone && text::EqualNoCase(text::Trim(value), SetupName(s)))
                m.setup = s;
    } else if (name == "crypto") {
        std::string v = text::Trim(value);
        if (!v.empty() && v.size() <= kMaxToken && m.crypto.size() < kMaxCrypto)
            m.crypto.push_back(v);
    } else {
        return false;
    }
    return true;
}

void Parser::SourceAttribute(const std::string& name, const std::string& value) {
    if (d_->media.empty()) return;
    Media& m = d_->media.back();
    if (name == "msid") {
        std::vector<std::string> w = text::Words(value, 2);
        if (m.msid_stream.empty() && !w.empty() && w[0].size() <= kMaxToken) {
            m.msid_stream = w[0];
            m.msid_track = w.size() > 1 ? Token(w[1]) : "";
        }
        return;
    }
    if (name == "ssrc-group") {
        std::vector<std::string> w = text::Words(value, 9);
        std::vector<uint32_t> group;
        uint64_t ssrc = 0;
        for (size_t i = 1; i < w.size(); ++i)
            if (text::ToNumber(w[i], 0, 0xffffffffu, &ssrc)) group.push_back(uint32_t(ssrc));
        if (!w.empty() && w[0] == "FID" && group.size() >= 2 && m.fid_groups.size() < kMaxGroups)
            m.fid_groups.push_back(group);
        return;
    }
    if (name == "ssrc") Ssrc(value);
}

// "a=ssrc:<id> <attribute>:<value>": one source per id, its first value of each kind.
void Parser::Ssrc(const std::string& value) {
    Media& m = d_->media.back();
    size_t blank = value.find(' ');
    uint64_t ssrc = 0;
    if (blank == std::string::npos ||
        !text::ToNumber(value.substr(0, blank), 0, 0xffffffffu, &ssrc))
        return;
    Source* source = nullptr;
    for (Source& s : m.sources)
        if (s.ssrc == ssrc) source = &s;
    if (!source) {
        if (m.sources.size() >= kMaxSources) return;
        m.sources.emplace_back();
        source = &m.sources.back();
        source->ssrc = static_cast<uint32_t>(ssrc);
    }
    std::string attr = value.substr(blank + 1);
    size_t colon = attr.find(':');
    std::string key = attr.substr(0, colon);
    std::string v = colon == std::string::npos ? "" : attr.substr(colon + 1);
    std::vector<std::string> w = text::Words(v, 2);
    if (w.empty() || w[0].size() > kMaxToken) return;
    if (key == "cname" && source->cname.empty()) source->cname = w[0];
    if (key == "mslabel" && source->mslabel.empty()) source->mslabel = w[0];
    if (key == "label" && source->label.empty()) source->label = w[0];
    if (key == "msid" && source->msid_stream.empty()) {
        source->msid_stream = w[0];
        source->msid_track = w.size() > 1 ? Token(w[1]) : "";
    }
}

void Parser::Resolve() {
    for (size_t i = 0; i < d_->media.size(); ++i) {
        Media& m = d_->media[i];
        if (m.address.empty()) m.address = d_->address;
        if (m.ice_ufrag.empty()) m.ice_ufrag = session_.ice_ufrag;
        if (m.ice_pwd.empty()) m.ice_pwd = session_.ice_pwd;
        m.ice_lite = m.ice_lite || session_.ice_lite;
        if (m.fingerprint.empty()) {
            m.fingerprint_hash = session_.fingerprint_hash;
            m.fingerprint = session_.fingerprint;
        }
        if (m.setup == Setup::kNone) m.setup = session_.setup;
        if (!scopes_[i].has_direction) m.direction = session_.direction;
        for (Codec& c : m.codecs) {
            for (const std::string& fb : scopes_[i].any_feedback)
                if (!c.HasFeedback(fb.c_str()) && c.feedback.size() < kMaxFeedback)
                    c.feedback.push_back(fb);
        }
    }
}

// Lines as GStreamer's parser finds them, with a lone CR ending a line too (a value
// can then never hold one).
template <typename Fn>
bool ForEachLine(const std::string& text, Fn fn) {
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find_first_of("\r\n", pos);
        if (end == std::string::npos) end = text.size();
        size_t begin = pos;
        while (begin < end && (text[begin] == ' ' || text[begin] == '\t')) ++begin;
        if (end > begin && !fn(text.substr(begin, end - begin))) return false;
        pos = end + 1;
    }
    return true;
}

std::string FirstLine(const std::string& text) {
    std::string first;
    ForEachLine(text, [&](const std::string& line) {
        first = line;
        return false;
    });
    return text::Trim(first);
}

}  // namespace

bool Parse(const std::string& text, Description* out, std::string* error) {
    std::string ignored;
    if (!error) error = &ignored;
    *out = Description();
    if (text.size() > kMaxText) {
        *error = "description too large";
        return false;
    }
    for (char c : text) {
        unsigned char u = static_cast<unsigned char>(c);
        if ((u < 0x20 && c != '\r' && c != '\n' && c != '\t') || u == 0x7f) {
            *error = "control bytes in the description";
            return false;
        }
    }
    if (FirstLine(text) != "v=0") {
        *error = "not SDP";
        return false;
    }
    Parser parser(out);
    if (!ForEachLine(text, [&](const std::string& line) { return parser.Line(line); })) {
        *error = parser.error();
        return false;
    }
    parser.Resolve();
    error->clear();
    return true;
}

}  // namespace sdp
}  // namespace media
}  // namespace libwebrtc
