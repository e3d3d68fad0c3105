#pragma once

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <vector>

namespace kor::bench {

/// The value below which `fraction` of the samples lie. At least one sample.
inline double quantile(std::vector<double> samples, double fraction) {
    if (samples.empty())
        throw std::runtime_error("nothing was measured");
    const auto index = static_cast<std::ptrdiff_t>(fraction * static_cast<double>(samples.size() - 1) + 0.5);
    std::nth_element(samples.begin(), samples.begin() + index, samples.end());
    return samples[static_cast<std::size_t>(index)];
}

inline double median(std::vector<double> samples) {
    return quantile(std::move(samples), 0.5);
}

} // namespace kor::bench
