// What the SIP engine pays to ask whether an offer or an answer can ever be used
// (Unusable, UnusableAnswer: read and plan the whole call), and what reading and
// writing cost, over the descriptions from the field. Median of 2000 runs each, in
// microseconds. Exit status 1 when a sample cannot be read or answered.
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "negotiate.h"
#include "stats.h"

using namespace libwebrtc::media::sdp;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kRuns = 2000;

std::string Sample(const char* name) {
    std::ifstream in(std::string(ZARNRTC_SDP_SAMPLES) + "/" + name, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Each of kRuns runs of `fn`, in microseconds.
template <typename Fn>
bench::Samples Time(Fn fn) {
    bench::Samples us;
    for (int i = 0; i < kRuns; ++i) {
        auto t = Clock::now();
        fn();
        us.add(std::chrono::duration<double, std::micro>(Clock::now() - t).count());
    }
    return us;
}

// A target of 0: a figure only (hostile text has no target, only a bound).
void Print(const char* what, const char* sample, const bench::Samples& v, double target_us = 1000) {
    printf("%-16s %-32s median %7.1f us  max %7.1f us  (n=%zu", what, sample, v.median(), v.max(),
           v.size());
    if (target_us > 0)
        printf(", target < %.0f us)%s\n", target_us,
               v.median() < target_us ? "" : "  ABOVE TARGET");
    else
        printf(")\n");
}

}  // namespace

int main() {
    const char* offers[] = {"device-style-offer.sdp",         "sip-phone-plain-offer.sdp",
                            "webrtcbin-dtls-offer.sdp",       "chromium-dtls-offer.sdp",
                            "sip-video-phone-dtls-offer.sdp", "planb-device-offer.sdp"};
    int failed = 0;
    for (const char* name : offers) {
        const std::string text = Sample(name);
        Description d;
        std::string why;
        if (!Parse(text, &d, &why) || !Unusable(text).empty()) {
            fprintf(stderr, "%s: not usable (%s%s)\n", name, why.c_str(), Unusable(text).c_str());
            ++failed;
            continue;
        }
        Print("Unusable", name, Time([&] { Unusable(text); }));
        Print("Parse", name, Time([&] { Parse(text, &d, &why); }));
        Print("Write", name, Time([&] { Write(d); }));
    }
    // Hostile text at the size limit: the work stays bounded by the text.
    const std::string head = "v=0\r\na=ice-ufrag:u\r\na=ice-pwd:p\r\nm=audio 9 RTP/AVPF 8\r\n";
    std::string candidates = head, lines = head, feedback = head;
    while (candidates.size() < 65000) candidates += "a=candidate:1 1 udp 1 10.0.0.1 1 typ host\r\n";
    while (lines.size() < 65000) lines += "a\n";
    for (int i = 0; feedback.size() < 65000; ++i)
        feedback += "a=rtcp-fb:* x" + std::to_string(i) + "\r\na=ssrc:" + std::to_string(i) +
                    " cname:c\r\n";
    Print("Unusable", "64 KiB of candidates", Time([&] { Unusable(candidates); }), 0);
    Print("Unusable", "64 KiB of short lines", Time([&] { Unusable(lines); }), 0);
    Print("Unusable", "64 KiB of feedback and sources", Time([&] { Unusable(feedback); }), 0);
    Local local;
    local.ice_ufrag = "bench";
    local.ice_pwd = "benchbenchbenchbenchbench";
    const std::string offer = Write(MakeOffer(OfferOptions(), local, Capabilities()));
    for (const char* name : {"chromium-plain-answer.sdp", "baresip-plain-answer.sdp"}) {
        const std::string answer = Sample(name);
        if (!UnusableAnswer(offer, answer).empty()) {
            fprintf(stderr, "%s: %s\n", name, UnusableAnswer(offer, answer).c_str());
            ++failed;
            continue;
        }
        Print("UnusableAnswer", name, Time([&] { UnusableAnswer(offer, answer); }));
    }
    return failed ? 1 : 0;
}
