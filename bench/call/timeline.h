// The engines' set-up timeline of each call (ZARNRTC_TIMELINE=keep), folded into the
// median time of every step on each side, from call().
#ifndef ZARNRTC_BENCH_CALL_TIMELINE_H
#define ZARNRTC_BENCH_CALL_TIMELINE_H

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "engine_link.h"
#include "stats.h"

namespace bench {

class TimelineTable {
  public:
    // Forgets marks made outside a measured call.
    static void discard() { zarn_timeline_drain(nullptr, nullptr); }

    // Takes the marks of one call that started at t0. SIP marks tell the side by their
    // name; a media session is the door's if it made the offer, the monitor's if it
    // made the answer.
    void addCall(std::chrono::steady_clock::time_point t0) {
        std::vector<Mark> marks;
        zarn_timeline_drain(
            [](void* ctx, long long at_us, unsigned long source, const char* event) {
                static_cast<std::vector<Mark>*>(ctx)->push_back({at_us, source, event});
            },
            &marks);
        long long t0_us =
            std::chrono::duration_cast<std::chrono::microseconds>(t0.time_since_epoch()).count();
        std::map<unsigned long, std::string> sessionSide;
        for (const Mark& m : marks) {
            if (m.event == "media: create offer") sessionSide[m.source] = "door";
            if (m.event == "media: create answer") sessionSide[m.source] = "monitor";
        }
        std::map<std::string, double> first;  // "side|event" -> ms, first occurrence
        for (const Mark& m : marks) {
            std::string side;
            if (m.event.rfind("stats: ", 0) == 0) continue;  // a call's figures, not a step
            if (m.event.rfind("sip: ", 0) == 0) {
                bool door = m.event == "sip: INVITE sent" || m.event == "sip: 200 received" ||
                            m.event.find(" INVITE again ") != std::string::npos;
                side = door ? "door" : "monitor";
            } else if (m.source == 0) {
                side = "door";  // the camera: both sides share it in this bench
            } else {
                auto it = sessionSide.find(m.source);
                if (it == sessionSide.end()) continue;  // the shared camera's, or another call's
                side = it->second;
            }
            std::string key = side + "|" + m.event;
            if (!first.count(key)) first[key] = (m.at_us - t0_us) / 1000.0;
        }
        for (const auto& kv : first) steps_[kv.first].add(kv.second);
    }

    void addStep(const std::string& side, const std::string& event, double ms) {
        steps_[side + "|" + event].add(ms);
    }

    void print() const {
        if (steps_.empty()) return;
        std::vector<std::pair<double, std::string>> order;
        for (const auto& kv : steps_) order.push_back({kv.second.median(), kv.first});
        std::sort(order.begin(), order.end());
        std::printf("Set-up timeline, median ms from call() (n = calls that reached the step):\n");
        for (const auto& o : order) {
            std::string side = o.second.substr(0, o.second.find('|'));
            std::string event = o.second.substr(o.second.find('|') + 1);
            std::printf("  %8.1f  %-8s %-40s n=%zu\n", o.first, side.c_str(), event.c_str(),
                        steps_.at(o.second).size());
        }
    }

  private:
    struct Mark {
        long long at_us;
        unsigned long source;
        std::string event;
    };
    std::map<std::string, Samples> steps_;
};

}  // namespace bench

#endif
