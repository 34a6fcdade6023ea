// Figures of repeated runs. A run that failed has no figure: it is counted, never
// averaged in, so one lost call cannot pull a median down to -1.
#ifndef ZARNRTC_BENCH_STATS_H
#define ZARNRTC_BENCH_STATS_H

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

namespace bench {

class Samples {
  public:
    // A negative or non-finite value is a run without a figure.
    void add(double ms) {
        if (std::isfinite(ms) && ms >= 0)
            values_.push_back(ms);
        else
            ++failed_;
    }
    void addFailed() { ++failed_; }

    bool empty() const { return values_.empty(); }
    std::size_t size() const { return values_.size(); }
    int failed() const { return failed_; }
    // Of the measured runs only; -1 when there is none (callers print "n/a").
    double median() const {
        if (values_.empty()) return -1;
        std::vector<double> v = values_;
        std::sort(v.begin(), v.end());
        std::size_t n = v.size();
        return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
    }
    // The value below which a share q (0..1) of the runs lie (nearest rank); -1 when
    // there is none.
    double percentile(double q) const {
        if (values_.empty()) return -1;
        std::vector<double> v = values_;
        std::sort(v.begin(), v.end());
        std::size_t rank = std::size_t(std::ceil(q * double(v.size())));
        return v[rank == 0 ? 0 : std::min(rank, v.size()) - 1];
    }
    double min() const {
        return values_.empty() ? -1 : *std::min_element(values_.begin(), values_.end());
    }
    double max() const {
        return values_.empty() ? -1 : *std::max_element(values_.begin(), values_.end());
    }

  private:
    std::vector<double> values_;
    int failed_ = 0;
};

}  // namespace bench

#endif
