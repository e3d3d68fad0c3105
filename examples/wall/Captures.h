#pragma once

#include "WallFrame.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

/// The pictures that the master has ordered: which are due, from which data.
///
/// An order in a mode that interpolates asks for two. The *exact* one shows the very position, blended from
/// the frames around it; it is drawn out of sight as soon as both have come. The *shown* one is what the
/// window presents at its first refresh at or after the position; it is the only one in other modes.
///
/// For one thread.
class Captures {
public:
    struct Exact {
        CaptureOrder order;
        int earlier = 0; ///< frame that was blended from
        int later = 0;
        double weight = 0; ///< of the later one
        WallScene scene;
    };

    /// Takes in a frame with the order in it. Again does no harm.
    void keep(const WallFrame& frame);

    /// Forgets all frames and orders.
    void clear();

    /// The exact pictures that can be drawn since the last call.
    std::vector<Exact> takeExact();

    /// The next order whose position lies at or before that of the picture that is presented next.
    std::optional<CaptureOrder> nextShown(double position);

    /// Orders that could not be carried out since the last call, and why.
    std::vector<std::string> takeComplaints();

private:
    struct Pending {
        CaptureOrder order;
        bool exact = false;
        bool shown = true;
    };

    void take(const CaptureOrder& order, const WallMode& mode);
    void complain(const CaptureOrder& order, const std::string& reason);
    void blendExact();
    void dropDone();

    std::map<int, WallScene> frames_; // the last few, by id
    std::vector<Pending> pending_;
    std::vector<Exact> exact_;
    std::vector<std::string> complaints_;
    int lastNumber_ = 0;
};
