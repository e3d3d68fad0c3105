#pragma once

#include "support/net/driver/NetPeer.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace kor::detail {

/// The users of a layer: by connection while that stands, and for a while after it has ended.
///
/// Only the layer's thread changes the table, or who closes the layer after that thread has ended. That one
/// reads without the lock; the others find users through byKey().
class UserTable {
public:
    struct User {
        std::shared_ptr<NetPeer> peer;
        std::unique_ptr<NetUser> user;
    };

    /// From any thread: the user of the connection to that address, null when there is none.
    RTUser* byKey(std::uint64_t key) const;

    /// Null when there is none. Stays until that user is taken.
    User* find(std::uint64_t serial);
    void add(const std::shared_ptr<NetPeer>& peer);
    /// Takes a user out of the table; empty when there is none.
    User take(std::uint64_t serial);
    /// Keeps a user that was taken readable, until 256 others have followed it.
    void retire(User user);
    /// Takes and retires all. When it returns, no thread is in an enqueue() of theirs, and they refuse all.
    void closeAll();

private:
    static constexpr std::size_t kMaxRetired = 256;

    mutable std::mutex mutex_;
    std::unordered_map<std::uint64_t, User> bySerial_;
    std::unordered_map<std::uint64_t, RTUser*> byKey_;
    std::deque<User> retired_;
    User* last_ = nullptr; ///< what find() found last
};

} // namespace kor::detail
