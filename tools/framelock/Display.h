#pragma once

#include <algorithm>
#include <chrono>
#include <cmath>
#include <thread>

/// Stands for a display: refreshes at a fixed rate, with a phase of its own, whatever the program does.
///
/// Sleeping until the refresh takes the place of a buffer swap that waits for the vertical sync.
class Display {
public:
    /// `refreshRate` in Hz; `phase` is the share of the interval, 0 to 1, by which refreshes lie behind the
    /// multiples of the interval on the system's steady clock.
    Display(double refreshRate, double phase) : interval_(1 / refreshRate), phase_(phase) {}

    double interval() const { return interval_; }

    /// Sleeps for what the drawing of one picture takes.
    static void draw(double seconds) { std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); }

    /// Sleeps until the next refresh, and never until the same one twice. Returns how many refreshes have
    /// gone by since the last call, less the one that it was due for.
    long long waitForRefresh() {
        const double now = std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
        const auto upcoming = static_cast<long long>(std::floor(now / interval_ - phase_)) + 1;
        const long long missed = last_ == 0 ? 0 : std::max(upcoming - last_ - 1, 0LL);
        last_ = std::max(upcoming, last_ + 1);
        const std::chrono::duration<double> refresh(lastRefresh());
        std::this_thread::sleep_until(
            Clock::time_point(std::chrono::duration_cast<Clock::duration>(refresh)));
        return missed;
    }

    /// Time of the refresh that was waited for last, on the system's steady clock, in seconds.
    double lastRefresh() const { return (static_cast<double>(last_) + phase_) * interval_; }

private:
    using Clock = std::chrono::steady_clock;

    double interval_;
    double phase_;
    long long last_ = 0; // number of the refresh that was waited for last
};
