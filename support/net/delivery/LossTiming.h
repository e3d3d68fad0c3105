#pragma once

#include "support/net/delivery/RoundTrip.h"
#include "support/Time.h"

namespace kor::detail {

/// How long one connection waits before it takes a datagram for lost, from the round trips that it measures.
///
/// When a later datagram has been acknowledged: roundTrip() and reorderWindow() after it left, as in RFC
/// 8985. When nothing has been acknowledged: at tailProbe(). Not thread-safe: belongs to one connection.
class LossTiming {
public:
    /// `firstRoundTrip` serves until one has been measured, 0 when nobody knows; `maxWait` bounds the wait
    /// for a tail probe.
    LossTiming(Nanoseconds firstRoundTrip, Nanoseconds maxWait, Nanoseconds now);

    void setMaxWait(Nanoseconds maxWait) { maxWait_ = maxWait; }

    /// A datagram was acknowledged `raw` after it left, by a report that the peer had held for `held`.
    void measured(Nanoseconds raw, Nanoseconds held, Nanoseconds now);
    /// A datagram was acknowledged that had been taken for lost because a later one came first.
    void overtaken(Nanoseconds now);
    /// Something that was in flight has been acknowledged.
    void progressed(Nanoseconds now);
    /// The oldest datagram in flight goes again to draw a report.
    void tailProbed(Nanoseconds now);
    /// The losses that silence stood for are explained: the wait is short again.
    void endSilence() { tailProbes_ = 0; }
    /// Narrows the reordering window when nothing has been overtaken for long.
    void settle(Nanoseconds now);

    Nanoseconds roundTrip() const;
    Nanoseconds reorderWindow() const { return reorderWindow_; }
    /// When the newest datagram in flight left at `lastSent`.
    Nanoseconds tailProbe(Nanoseconds lastSent) const;

    /// The last acknowledgement, or tail probe.
    Nanoseconds lastProgress() const { return lastProgress_; }
    const RoundTrip& measurements() const { return measurements_; }

private:
    Nanoseconds firstRoundTrip_;
    Nanoseconds maxWait_;
    Nanoseconds lastProgress_;
    Nanoseconds reorderWindow_;
    Nanoseconds lastOvertaken_; ///< or when the window was last narrowed
    Nanoseconds lateness_ = 0;  ///< by which the peer's reports lately waited longer than they should
    int tailProbes_ = 0;        ///< since the last acknowledgement
    RoundTrip measurements_;
};

} // namespace kor::detail
