// The measured runs of bench_load, all driven from the main thread against the door:
// one SDK engine in this process; the monitors are zarnrtc-phone processes.
#ifndef ZARNRTC_BENCH_LOAD_RUNS_H
#define ZARNRTC_BENCH_LOAD_RUNS_H

#include <string>
#include <vector>

#include "phones.h"
#include "sdk_pair.h"

namespace bench {

struct Door {
    zarnrtc::ZarnRtcImpl* engine = nullptr;
    std::unique_ptr<Handler> handler;
    EventQueue events;
    FrameSink local, remote;
    std::string domain;  // "127.0.0.1:PORT" of Kamailio
};

// Pops the door's events for `ms`, keeping nothing.
void drainEvents(Door& door, int ms);

// Whole-process CPU over a window, in % of one core.
struct CpuShare {
    double doorPct = -1, monitorPct = -1;
};
CpuShare measureIdle(PhoneProcess& monitor, double seconds);

// A steady call door -> monitor: CPU of both processes over `seconds`, after both
// have their first remote frame and a second to settle.
struct SteadyResult {
    bool ok = false;
    std::string error;
    CpuShare cpu;
    double doorFps = -1;  // frames received by the door in the window, per second
    long monitorFps = -1;
};
SteadyResult steadyCall(Door& door, PhoneProcess& monitor, double seconds);

// The door rings every phone at once (callForward); the last one answers at once,
// the others ring until they are cancelled.
struct ForwardResult {
    bool ok = false;
    std::string error;
    double answeredMs = -1;    // callForward -> answered (6)
    double setupCpuMs = -1;    // door CPU time from callForward to answered
    double setupCpuPct = -1;   // the same, in % of one core over that time
    long rssBeforeKb = -1;     // the door's VmRSS just before callForward
    long peakRssKb = -1;       // its peak until media flows and every loser has ended
    bool peakFromHwm = false;  // VmHWM reset per run (else sampled VmRSS)
    int neverRang = 0;         // losers cancelled by the door before their INVITE left
};
ForwardResult forwardRun(Door& door, const std::vector<PhoneProcess*>& phones);

}  // namespace bench

#endif
