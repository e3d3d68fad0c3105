#include "Summary.h"

#include <sstream>

std::string Summary::text() const {
    std::ostringstream out;
    out << "actions:  ";
    for (const auto& [name, count] : actions) {
        out << name << " " << count << "  ";
    }
    out << "\nlocks:    " << rests << " times at rest, all locked after " << slowestLockSeconds
        << " s at most; at the end " << survivorsLocked << " of " << survivors << " surviving slaves locked\n"
        << "traffic:  " << packets << " frames received, " << missing << " missing, " << doubled
        << " doubled, " << wrong << " damaged\n"
        << "memory:   " << cleanEnds << " processes ended with nothing left allocated; greatest growth "
        << static_cast<double>(greatestGrowthKib) / 1024 << " MiB"
        << (greatestGrowth.empty() ? "" : " (" + greatestGrowth + ")") << "\n";
    for (const std::string& fault : faults) {
        out << "fault:    " << fault << "\n";
    }
    out << "result:   " << (faults.empty() ? "ok" : "FAILED") << "\n";
    return out.str();
}
