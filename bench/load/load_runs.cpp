#include "load_runs.h"

#include <unistd.h>

#include <algorithm>
#include <functional>
#include <list>
#include <set>
#include <thread>

#include "callparams.h"
#include "proc_usage.h"

namespace bench {

namespace {

// Handles the door's events until done() or the deadline; false on the deadline.
bool pumpUntil(Door& door, Clock::time_point deadline, const std::function<void(const Event&)>& on,
               const std::function<bool()>& done, int pollMs = 20) {
    for (;;) {
        if (done()) return true;
        if (Clock::now() > deadline) return false;
        Event e;
        if (door.events.pop(e, std::chrono::milliseconds(pollMs))) on(e);
    }
}

Clock::time_point after(int ms) {
    return Clock::now() + std::chrono::milliseconds(ms);
}

double pct(double cpuSeconds, double wallSeconds) {
    return cpuSeconds < 0 || wallSeconds <= 0 ? -1 : 100.0 * cpuSeconds / wallSeconds;
}

}  // namespace

void drainEvents(Door& door, int ms) {
    pumpUntil(
        door, after(ms), [](const Event&) {}, [] { return false; });
}

CpuShare measureIdle(PhoneProcess& monitor, double seconds) {
    const pid_t self = getpid();
    const double d0 = cpuSecondsOf(self), m0 = cpuSecondsOf(monitor.pid());
    const auto w0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const double d1 = cpuSecondsOf(self), m1 = cpuSecondsOf(monitor.pid());
    const double wall = msBetween(w0, Clock::now()) / 1000;
    CpuShare c;
    if (d0 >= 0 && d1 >= 0) c.doorPct = pct(d1 - d0, wall);
    if (m0 >= 0 && m1 >= 0) c.monitorPct = pct(m1 - m0, wall);
    return c;
}

SteadyResult steadyCall(Door& door, PhoneProcess& monitor, double seconds) {
    SteadyResult r;
    door.remote.reset();
    door.local.reset();
    const std::string uri = "sip:" + monitor.config().user + "@" + door.domain;
    const int id = door.engine->call(uri.c_str());
    if (id < 0) {
        r.error = "call() returned -1";
        return r;
    }
    door.engine->setupRemoteVideo(id, &door.remote);
    door.engine->setupLocalVideo(id, &door.local);
    const int endsBefore = monitor.answeredEnds();
    bool answered = false, ended = false;
    auto on = [&](const Event& e) {
        if (e.kind != Event::State || e.id != id) return;
        if (e.a == zarnrtc::kAnswered) answered = true;
        if (e.a == zarnrtc::kHangup) ended = true;
    };
    // Media both ways: the door's first remote frame and the monitor's.
    bool flowing = pumpUntil(door, after(10000), on, [&] {
        return ended ||
               (answered && door.remote.hasFrame() && monitor.logHas("first remote frame"));
    });
    if (!flowing || ended) {
        r.error = ended ? "the call ended early" : "no media both ways within 10 s";
    } else {
        pumpUntil(door, after(1000), on, [&] { return ended; });
        const pid_t self = getpid();
        const long f0 = door.remote.frames();
        const double d0 = cpuSecondsOf(self), m0 = cpuSecondsOf(monitor.pid());
        const auto w0 = Clock::now();
        pumpUntil(door,
                  w0 + std::chrono::duration_cast<Clock::duration>(
                           std::chrono::duration<double>(seconds)),
                  on, [&] { return ended; });
        const double d1 = cpuSecondsOf(self), m1 = cpuSecondsOf(monitor.pid());
        const double wall = msBetween(w0, Clock::now()) / 1000;
        if (ended) {
            r.error = "the call ended during the measurement";
        } else if (d0 < 0 || d1 < 0 || m0 < 0 || m1 < 0) {
            r.error = "could not read /proc/<pid>/stat";
        } else {
            r.cpu.doorPct = pct(d1 - d0, wall);
            r.cpu.monitorPct = pct(m1 - m0, wall);
            r.doorFps = (door.remote.frames() - f0) / wall;
            r.monitorFps = monitor.lastRemoteFps();
        }
    }
    if (!ended) door.engine->hangup(id);
    const bool seen = pumpUntil(door, after(5000), on,
                                [&] { return ended || monitor.answeredEnds() > endsBefore; });
    if (!seen && r.error.empty()) r.error = "the monitor did not see the hang-up";
    r.ok = r.error.empty();
    return r;
}

namespace {

// What the door saw of one forwarding attempt.
struct ForwardState {
    int winner = -1;
    Clock::time_point answeredAt;
    double cpuAtAnswer = -1;
    std::set<int> ids, ended;
    long sampledPeakKb = -1;
};

// The phones' logs as they were before a forwarding attempt: the door reports no end
// for calls it ends itself, so the far ends tell.
class PhoneMarks {
  public:
    explicit PhoneMarks(const std::vector<PhoneProcess*>& phones) : phones_(phones) {
        for (PhoneProcess* p : phones) {
            cancelled_.push_back(p->cancelledEnds());
            incoming_.push_back(p->incomingCalls());
        }
        answered_ = phones.back()->answeredEnds();
    }
    // Every phone that rang without answering (all but the last) saw its call
    // cancelled. With `lenient`, a loser that never rang counts as ended: the door
    // cancelled it before its INVITE went out, so no far end ever knew of it.
    bool losersEnded(bool lenient, int* neverRang) const {
        for (size_t i = 0; i + 1 < phones_.size(); ++i) {
            if (phones_[i]->cancelledEnds() > cancelled_[i]) continue;
            if (!lenient || phones_[i]->incomingCalls() > incoming_[i]) return false;
            if (neverRang) ++*neverRang;
        }
        return true;
    }
    bool winnerEnded() const { return phones_.back()->answeredEnds() > answered_; }

  private:
    const std::vector<PhoneProcess*>& phones_;
    std::vector<int> cancelled_, incoming_;
    int answered_ = 0;
};

}  // namespace

ForwardResult forwardRun(Door& door, const std::vector<PhoneProcess*>& phones) {
    ForwardResult r;
    ForwardState s;
    const PhoneMarks marks(phones);
    std::vector<std::string> targets;
    for (PhoneProcess* p : phones) targets.push_back("sip:" + p->config().user + "@" + door.domain);
    door.remote.reset();
    door.local.reset();
    r.peakFromHwm = resetSelfPeakRss();
    r.rssBeforeKb = s.sampledPeakKb = selfRssKb();
    std::list<const char*> list;
    for (const auto& t : targets) list.push_back(t.c_str());
    zarnrtc::CallParams params;  // its getters are not const

    const double c0 = selfCpuSeconds();
    const auto t0 = Clock::now();
    door.engine->callForward(list, "Front door", true, false, params.getVideoWidth(),
                             params.getVideoHeight(), params.getVideoFps(), 1000, "dev_door");
    auto on = [&](const Event& e) {
        if (e.kind != Event::State) return;
        s.ids.insert(e.id);
        if (e.a == zarnrtc::kAnswered && s.winner < 0) {
            s.cpuAtAnswer = selfCpuSeconds();
            s.winner = e.id;
            s.answeredAt = e.at;
            door.engine->setupRemoteVideo(e.id, &door.remote);
            door.engine->setupLocalVideo(e.id, &door.local);
        }
        if (e.a == zarnrtc::kHangup) s.ended.insert(e.id);
    };
    // Sampled at every turn where VmHWM cannot be reset.
    auto sample = [&] {
        if (!r.peakFromHwm) s.sampledPeakKb = std::max(s.sampledPeakKb, selfRssKb());
        return false;
    };
    auto settled = [&] {
        sample();
        return s.winner >= 0 && door.remote.hasFrame() && marks.losersEnded(false, nullptr);
    };
    if (!pumpUntil(
            door, after(10000), on, [&] { return sample() || s.winner >= 0; }, 5)) {
        r.error = "not answered within 10 s";
    } else if (s.ended.count(s.winner)) {
        r.error = "the winning call ended early";
    } else if (!pumpUntil(door, after(3000), on, settled, 5) &&
               !(door.remote.hasFrame() && marks.losersEnded(true, &r.neverRang))) {
        r.error = door.remote.hasFrame() ? "a losing monitor rang and was not cancelled"
                                         : "no remote frame after the answer";
    } else {
        r.answeredMs = msBetween(t0, s.answeredAt);
        r.setupCpuMs = 1000 * (s.cpuAtAnswer - c0);
        r.setupCpuPct = pct(s.cpuAtAnswer - c0, r.answeredMs / 1000);
        r.peakRssKb = r.peakFromHwm ? selfPeakRssKb() : s.sampledPeakKb;
    }
    for (int id : s.ids)
        if (!s.ended.count(id)) door.engine->hangup(id);
    auto allEnded = [&] { return marks.losersEnded(true, nullptr) && marks.winnerEnded(); };
    if (!pumpUntil(door, after(5000), on, allEnded) && r.error.empty())
        r.error = "a monitor did not see its call end";
    r.ok = r.error.empty();
    return r;
}

}  // namespace bench
