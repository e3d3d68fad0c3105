#pragma once

#include "support/net/clock/ClockFilter.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <random>
#include <vector>

namespace kor::simulation {

using detail::elapsed;
using detail::Nanoseconds;

/// How datagrams fare in one direction. Nanoseconds.
struct PathDelays {
    double base = 15'000;      ///< least delay
    double noise = 1'500;      ///< mean of what every datagram waits in addition, exponentially distributed
    double loadedFraction = 0; ///< of the datagrams that meet a queue
    double queue = 0;          ///< longest queue; the wait is even between 0 and this
    double burstSeconds = 0;   ///< when set, queues come in bursts of this mean length instead of one by one
};

/// Two clocks and the paths between them. Everything follows from the seed.
struct ClockScenario {
    const char* name = "";
    std::uint64_t seed = 1;
    double seconds = 60;
    double samplesPerSecond = 8;
    double loss = 0;
    double heldSeconds = 0;        ///< mean time that the peer holds a stamp before it answers
    double holdFrom = 0;           ///< from this second on
    double skewPpm = 30;           ///< at the start
    double wanderPpmPerSecond = 0; ///< greatest change of the skew
    PathDelays forth;
    PathDelays back;
    Nanoseconds startHere = 0;
    Nanoseconds startThere = 0;
    double breakAt = 1e9;     ///< the peer's clock jumps at this second
    double breakBy = 0;       ///< nanoseconds
    double steeredFrom = 1e9; ///< the peer's clock is steered from this second on
    double steeredPpm = 0;
    double loadFrom = 0; ///< queues exist from this second to `loadTo` only
    double loadTo = 1e9;
};

/// Runs a clock filter on virtual time against a model that knows the truth.
class TwoClocks {
public:
    explicit TwoClocks(const ClockScenario& scenario) : scenario_(scenario), random_(scenario.seed) {
        phase_ = uniform() * 2 * std::numbers::pi;
    }

    /// Peer minus ours minus its value at the start, in nanoseconds, `t` seconds after the start.
    double drift(double t) const {
        double result = scenario_.skewPpm * 1e3 * t;
        if (scenario_.wanderPpmPerSecond > 0) {
            // Skew swings by 1 ppm, as fast as the scenario says.
            const double swing = 1e3;
            const double turn = scenario_.wanderPpmPerSecond * 1e3 / swing;
            result += swing / turn * (std::cos(phase_) - std::cos(phase_ + turn * t));
        }
        if (t >= scenario_.breakAt)
            result += scenario_.breakBy;
        if (t >= scenario_.steeredFrom)
            result += scenario_.steeredPpm * 1e3 * (t - scenario_.steeredFrom);
        return result;
    }

    Nanoseconds here(double t) const { return plus(scenario_.startHere, std::llround(t * 1e9)); }
    Nanoseconds there(double t) const { return plus(scenario_.startThere, std::llround(t * 1e9 + drift(t))); }

    /// Error of the filter's estimate at `t`, in nanoseconds.
    double errorAt(double t) const {
        const double start = static_cast<double>(elapsed(scenario_.startThere, scenario_.startHere));
        return filter.estimate().offsetAt(here(t)) - start - drift(t);
    }

    /// Runs the whole scenario; `look(t)` is called every 1/240 s of our clock.
    template <class Look>
    void run(Look look) {
        plan();
        double nextLook = 0;
        for (const Exchange& exchange : exchanges_) {
            for (; nextLook < exchange.arrival; nextLook += 1.0 / 240)
                look(nextLook);
            deliver(exchange);
        }
        for (; nextLook < scenario_.seconds; nextLook += 1.0 / 240)
            look(nextLook);
    }

    detail::ClockFilter filter;
    double knownAt = -1;  ///< seconds from the start
    double worstStep = 0; ///< of the published offset within the microsecond of an update, nanoseconds
    double worstRate = 0; ///< of the published line, beside the clock's own, ppm

private:
    struct Exchange {
        double arrival = 0;
        detail::ClockSample sample;
    };

    static Nanoseconds plus(Nanoseconds a, Nanoseconds b) { return elapsed(a, -b); }
    double uniform() { return std::uniform_real_distribution<double>(0, 1)(random_); }
    double exponential(double mean) {
        return mean > 0 ? std::exponential_distribution<double>(1 / mean)(random_) : 0;
    }

    struct Queue {
        double until = 0;
        bool full = false;
    };

    double delay(const PathDelays& path, Queue& queue, double t) {
        bool loaded = uniform() < path.loadedFraction;
        if (path.burstSeconds > 0) {
            while (queue.until < t) {
                queue.full = !queue.full;
                const double share = queue.full ? path.loadedFraction : 1 - path.loadedFraction;
                queue.until += exponential(path.burstSeconds * share / path.loadedFraction);
            }
            loaded = queue.full;
        }
        loaded = loaded && t >= scenario_.loadFrom && t < scenario_.loadTo;
        return (path.base + exponential(path.noise) + (loaded ? uniform() * path.queue : 0)) * 1e-9;
    }

    void plan() {
        Queue thereQueue;
        Queue backQueue;
        int sent = 0;
        int answered = 0;
        double t = 0.001;
        while (t < scenario_.seconds) {
            const double arrivalThere = t + delay(scenario_.forth, thereQueue, t);
            const double answer =
                arrivalThere + 2e-6 + exponential(t >= scenario_.holdFrom ? scenario_.heldSeconds : 0);
            const double arrival = answer + delay(scenario_.back, backQueue, answer);
            if (uniform() >= scenario_.loss && uniform() >= scenario_.loss) {
                exchanges_.push_back({arrival, {here(t), there(arrivalThere), there(answer), here(arrival)}});
                ++answered;
            }
            // A burst until it has told enough, then the usual rate with some jitter.
            ++sent;
            t += sent < 8 || answered < 4 ? 0.005 : (0.75 + 0.5 * uniform()) / scenario_.samplesPerSecond;
        }
        std::stable_sort(exchanges_.begin(), exchanges_.end(),
                         [](const Exchange& a, const Exchange& b) { return a.arrival < b.arrival; });
    }

    void deliver(const Exchange& exchange) {
        const detail::ClockEstimate before = filter.estimate();
        filter.add(exchange.sample);
        const detail::ClockEstimate& after = filter.estimate();
        const Nanoseconds now = exchange.sample.receivedHere;
        if (!after.known)
            return;
        if (!before.known)
            knownAt = exchange.arrival;
        else if (before.breaks == after.breaks)
            worstStep =
                std::max(worstStep, std::fabs(after.offsetAt(plus(now, 1000)) - before.offsetAt(now)));
        worstRate = std::max(worstRate, std::fabs(after.rate * 1e6 - scenario_.skewPpm));
    }

    ClockScenario scenario_;
    std::mt19937_64 random_;
    double phase_ = 0;
    std::vector<Exchange> exchanges_;
};

} // namespace kor::simulation
