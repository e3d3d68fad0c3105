#pragma once

#include <kit/jVector.h>
#include <kor/Client.h>

namespace kor::detail {

/// Owns the records of an endpoint, listed or retired.
///
/// Other threads retire a record while the application may still be reading it; `collect`, which only the
/// application's own wait calls, frees it. Hold the endpoint's lock, but for `fresh` and `settle`.
class ClientRecords {
public:
    ClientRecords() = default;
    ClientRecords(const ClientRecords&) = delete;
    ClientRecords& operator=(const ClientRecords&) = delete;
    ~ClientRecords();

    /// Makes a record. It is not freed before `settle`, even when it is retired at once.
    Client* make();

    /// The record made last, null after `settle`. Both belong to the thread that makes the records.
    Client* fresh() const { return fresh_; }
    void settle() { fresh_ = nullptr; }

    /// Detaches a record, frees its received packets and leaves its memory to `collect`. One that is not
    /// listed is left alone.
    void retire(Client* client);

    /// Frees the retired records. Nobody may point at one any more.
    void collect();

private:
    jVector<Client*> listed_;
    jVector<Client*> retired_;
    SharedValue<Client*> fresh_{nullptr};
};

} // namespace kor::detail
