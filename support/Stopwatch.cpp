#include <support/Stopwatch.h>

#include <support/jTimer.h>

#include <utility>

namespace kor {

void Stopwatch::start() {
    lap_ = detail::clockNow();
    running_ = true;
}

void Stopwatch::stop() {
    if (running_) {
        end_ = detail::clockNow();
        running_ = false;
    }
}

double Stopwatch::getElapsed() {
    const std::int64_t now = running_ ? detail::clockNow() : end_;
    return static_cast<double>(now - std::exchange(lap_, now)) * 1e-9;
}

} // namespace kor
