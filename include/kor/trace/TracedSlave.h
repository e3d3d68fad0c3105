#pragma once

#include "../../support/BufferReader.h"
#include "../../support/jTimer.h"
#include "../../support/RTHandlers.h"
#include "../../support/RTUser.h"
#include "../KorCoders.h"
#include "../KorLogicClient.h"
#include "../Record.h"
#include "Trace.h"

#include <concepts>
#include <cstdint>
#include <utility>

namespace kor {

namespace detail {

/// Frame that a packet's `Begin` record names, or -1.
inline int frameOfPacket(const void* data, std::uint32_t size) {
    BufferReader reader(data, size);
    int frame = -1;
    while (!KorCoderBase::decodeEnd(reader))
        if (KorCoderBase::decodeBegin(reader, frame) || !skipRecord(reader))
            return frame;
    return -1;
}

/// Stands before a slave's endpoint on its connection and notes when each block arrives.
class ArrivalRecorder final : public RTPacketHandler {
public:
    explicit ArrivalRecorder(Trace& trace) : trace_(trace) {}

    void setTarget(RTPacketHandler* target) { target_ = target; }

    void onPacket(RTUser* user, Packet* packet) override {
        const double begin = jTimer::getTimeSecond();
        const std::uint32_t size = packet->size;
        const int frame = trace_.isRecording() && packet->data ? frameOfPacket(packet->data, size) : -1;
        target_->onPacket(user, packet);
        trace_.blockArrived(frame, size, begin, jTimer::getTimeSecond());
    }
    void onSendOver(RTUser* user, RS_SendPacketsQueue* send) override { target_->onSendOver(user, send); }

private:
    Trace& trace_;
    RTPacketHandler* target_ = nullptr;
};

} // namespace detail

/// An application's slave whose frames are recorded: `TracedSlave<MySlave>` in place of `MySlave`.
///
/// Records every block as it arrives and as it is applied, every `wait` with its result, the master's clock
/// after it, every `swapEnd`, the time from `swapBegin` to `swapEnd` as "present", and the connection events.
/// The overrides of `Base` must be accessible to a derived class. Threads are those of `KorLogicClient`. The
/// trace must outlive it.
template <std::derived_from<KorLogicClient> Base>
class TracedSlave : public Base {
public:
    /// The results of `wait`.
    using WAIT_RESULT = KorLogicClient::WAIT_RESULT;

    /// `arguments` go to the constructor of `Base`.
    template <class... Arguments>
    explicit TracedSlave(Trace& recorder, Arguments&&... arguments)
        : Base(std::forward<Arguments>(arguments)...), trace_(recorder), arrivals_(recorder) {}

    /// Releases the endpoint, because blocks must not arrive any more.
    ~TracedSlave() override {
        if (this->client)
            this->client->release();
    }

    /// That of `Base`; "present" begins at its end.
    void swapBegin(bool check) override {
        Base::swapBegin(check);
        presentBegin_ = jTimer::getTimeSecond();
    }

    /// That of `Base`, recorded as "swapEnd"; "present" ends at its start.
    void swapEnd(bool check) override {
        if (presentBegin_ >= 0)
            trace_.presented(std::exchange(presentBegin_, -1.0), jTimer::getTimeSecond());
        const TraceSpan span(trace_, "swapEnd");
        Base::swapEnd(check);
    }

    /// That of `Base`, recorded with its result, the position and how the clocks lie. `timeout` in seconds.
    WAIT_RESULT wait(double timeout) override {
        const double begin = jTimer::getTimeSecond();
        const double vsync = Base::getFrameDeadlineExpected();
        const WAIT_RESULT result = Base::wait(timeout);
        trace_.waited(result, Base::getFrameID(), vsync, begin, jTimer::getTimeSecond());
        noteClock();
        return result;
    }

    /// That of `Base`, recorded as "block applied" with the frame id and the weight.
    void applyData(KorData* block, double weight) override {
        const double begin = jTimer::getTimeSecond();
        const int frame = trace_.isRecording() && block->data
                              ? detail::frameOfPacket(block->data, static_cast<std::uint32_t>(block->size))
                              : -1;
        Base::applyData(block, weight);
        trace_.blockApplied(frame, weight, begin, jTimer::getTimeSecond());
    }

protected:
    /// Notes the event, calls that of `Base`, and puts itself before the endpoint to see blocks arrive.
    void on_connect(const RTAddr& addr) override {
        note("master connected", addr);
        Base::on_connect(addr);
        // The endpoint has just made itself the receiver; this runs on the layer's thread, between packets.
        arrivals_.setTarget(this->client);
        if (RTUser* master = this->client->getUser())
            master->setPacketHandler(&arrivals_);
    }
    /// Notes the event, then calls that of `Base`. So do the next two.
    void on_reconnect(const RTAddr& addr) override {
        note("master connects anew", addr);
        Base::on_reconnect(addr);
    }
    /// See `on_reconnect`.
    void on_disconnect(const RTAddr& addr) override {
        note("master disconnected", addr);
        Base::on_disconnect(addr);
    }
    /// See `on_reconnect`.
    void on_connect_lost(const RTAddr& addr) override {
        note("master lost", addr);
        Base::on_connect_lost(addr);
    }

private:
    void note(const char* event, const RTAddr& addr) {
        trace_.nameThread("network");
        trace_.connection(event, addr.formatString().c_str());
    }

    void noteClock() {
        const RTUser* master = this->client && trace_.isRecording() ? this->client->getUser() : nullptr;
        if (master)
            trace_.clock(master->getTimeOffset(), master->getTimeOffsetErrorBound(), master->getPing());
    }

    Trace& trace_;
    detail::ArrivalRecorder arrivals_;
    double presentBegin_ = -1;
};

} // namespace kor
