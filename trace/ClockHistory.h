#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace kor::detail {

/// How another clock lay to ours over time, in bounded memory: about ten samples a second, and fewer the
/// longer it goes on. Every operation may be called from any thread.
class ClockHistory {
public:
    struct Sample {
        double local = 0;  // s
        double offset = 0; // other clock minus ours, s
        double bound = 0;  // s
    };

    /// A change too large for one clock means that another one has taken its place: what was known of the
    /// old one is forgotten. Numbers that are not finite are ignored.
    void add(const Sample& sample);

    void clear();

    /// Oldest first; the last is the newest there was.
    std::vector<Sample> samples() const;

private:
    static constexpr std::size_t kMax = 4096;
    static constexpr double kStep = 0.05; // s

    void thin();

    mutable std::mutex mutex_;
    std::vector<Sample> kept_; // the last is not settled: the next one may take its place
    double spacing_ = 0.1;
};

/// Turns our times into the other clock's, by a straight line between two samples and by the nearest one
/// outside of them. Without samples times stay as they are. Never turns the order of two times around.
class ClockConversion {
public:
    explicit ClockConversion(const std::vector<ClockHistory::Sample>& samples);

    bool known() const { return !samples_.empty(); }

    /// Nanoseconds of our clock to nanoseconds of the other.
    std::int64_t operator()(std::int64_t local) const;

    /// The largest bound of all samples, in seconds.
    double worstBound() const;

private:
    double offsetAt(double local) const;

    std::vector<ClockHistory::Sample> samples_; // both clocks go on from each to the next
};

} // namespace kor::detail
