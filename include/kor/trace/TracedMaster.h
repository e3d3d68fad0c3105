#pragma once

#include "../../support/jTimer.h"
#include "../KorLogicServer.h"
#include "Trace.h"

#include <concepts>
#include <utility>

namespace kor {

/// An application's master whose frames are recorded: `TracedMaster<MyMaster>` in place of `MyMaster`.
///
/// Records every `swap`, `wait` and `update` and the connection events. It does not see what `update` sends:
/// the application calls `Trace::frameSent` for that. The overrides of `Base` must be accessible to a derived
/// class. Threads are those of `KorLogicServer`. The trace must outlive it.
template <std::derived_from<KorLogicServer> Base>
class TracedMaster : public Base {
public:
    /// `arguments` go to the constructor of `Base`.
    template <class... Arguments>
    explicit TracedMaster(Trace& recorder, Arguments&&... arguments)
        : Base(std::forward<Arguments>(arguments)...), trace_(recorder) {}

    /// Releases, because connection events must not come any more.
    ~TracedMaster() override { Base::release(); }

    /// That of `Base`, recorded as "swap".
    bool swap() override {
        const TraceSpan span(trace_, "swap");
        return Base::swap();
    }

    /// That of `Base`, recorded as "wait". `timeout` in seconds.
    int wait(double timeout) override {
        const TraceSpan span(trace_, "wait");
        return Base::wait(timeout);
    }

    /// That of `Base`, recorded as "update" with the frame id.
    void update() override {
        const int frame = Base::getFrameID();
        const double begin = jTimer::getTimeSecond();
        Base::update();
        trace_.updated(frame, begin, jTimer::getTimeSecond());
    }

protected:
    /// Notes the event, then calls that of `Base`. So do the next three.
    void onConnect(const RTAddr& addr, bool established) override {
        note(established ? "slave connected" : "slave could not be connected", addr);
        Base::onConnect(addr, established);
    }
    /// See `onConnect`.
    void onReConnect(const RTAddr& addr) override {
        note("slave connects anew", addr);
        Base::onReConnect(addr);
    }
    /// See `onConnect`.
    void onDisConnect(const RTAddr& addr) override {
        note("slave disconnected", addr);
        Base::onDisConnect(addr);
    }
    /// See `onConnect`.
    void onConnectLost(const RTAddr& addr) override {
        note("slave lost", addr);
        Base::onConnectLost(addr);
    }

private:
    void note(const char* event, const RTAddr& addr) {
        trace_.nameThread("network");
        trace_.connection(event, addr.formatString().c_str());
    }

    Trace& trace_;
};

} // namespace kor
