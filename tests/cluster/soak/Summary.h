#pragma once

#include <map>
#include <string>
#include <vector>

/// What a soak has done and found.
struct Summary {
    std::map<std::string, long long> actions; ///< how often each was done
    int rests = 0;                            ///< times that all were left in peace, and had to lock
    double slowestLockSeconds = 0;            ///< longest that it took until all were locked
    int survivors = 0;                        ///< slaves that were there at the end
    int survivorsLocked = 0;
    long long packets = 0; ///< of frame data that slaves got
    long long missing = 0;
    long long doubled = 0;
    long long wrong = 0;
    int cleanEnds = 0; ///< processes that were asked to end and did, with nothing left allocated
    long long greatestGrowthKib = 0;
    std::string greatestGrowth; ///< whose, and over which time
    std::vector<std::string> faults;

    /// Several lines of text; the last says whether all was well.
    std::string text() const;
};
