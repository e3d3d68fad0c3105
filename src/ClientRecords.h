#pragma once

#include <kit/jVector.h>
#include <kor/Client.h>

namespace kor::detail {

/// Owns the records of an endpoint, listed or on their way out.
///
/// The connection layer's thread removes a record while the application may still be reading it, so a removed
/// one is kept until the application has passed through two calls of `collect`: at the second nobody who
/// looks the record up afresh each frame can hold it any more. The owner guards it with the endpoint's lock.
class ClientRecords {
public:
    ClientRecords() = default;
    ClientRecords(const ClientRecords&) = delete;
    ClientRecords& operator=(const ClientRecords&) = delete;
    ~ClientRecords();

    Client* make();

    /// Detaches a record, frees its received packets and frees it later. One that is not listed is left
    /// alone.
    void retire(Client* client);

    /// Frees what was retired before the last call and is not held by a registry.
    void collect();

private:
    static void freeAll(jVector<Client*>& clients);

    jVector<Client*> listed_;
    jVector<Client*> retired_; // since the last collect
    jVector<Client*> leaving_; // since the one before
};

} // namespace kor::detail
