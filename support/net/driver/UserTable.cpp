#include "support/net/driver/UserTable.h"

#include <utility>

namespace kor::detail {

RTUser* UserTable::byKey(std::uint64_t key) const {
    const std::lock_guard lock(mutex_);
    const auto found = byKey_.find(key);
    return found == byKey_.end() ? nullptr : found->second;
}

UserTable::User* UserTable::find(std::uint64_t serial) {
    if (last_ != nullptr && last_->peer->serial() == serial)
        return last_;
    const auto found = bySerial_.find(serial);
    if (found == bySerial_.end())
        return nullptr;
    last_ = &found->second;
    return last_;
}

void UserTable::add(const std::shared_ptr<NetPeer>& peer) {
    User user{peer, std::make_unique<NetUser>(peer)};
    const std::lock_guard lock(mutex_);
    byKey_[peer->addr().getKey()] = user.user.get();
    bySerial_[peer->serial()] = std::move(user);
}

UserTable::User UserTable::take(std::uint64_t serial) {
    const std::lock_guard lock(mutex_);
    const auto found = bySerial_.find(serial);
    if (found == bySerial_.end())
        return {};
    User user = std::move(found->second);
    bySerial_.erase(found);
    last_ = nullptr;
    // A newer connection to the same address may have taken the entry.
    const auto byKey = byKey_.find(user.peer->addr().getKey());
    if (byKey != byKey_.end() && byKey->second == user.user.get())
        byKey_.erase(byKey);
    return user;
}

void UserTable::retire(User user) {
    User oldest; // freed after the lock is given back
    const std::lock_guard lock(mutex_);
    retired_.push_back(std::move(user));
    if (retired_.size() > kMaxRetired) {
        oldest = std::move(retired_.front());
        retired_.pop_front();
    }
}

void UserTable::closeAll() {
    while (!bySerial_.empty()) {
        User user = take(bySerial_.begin()->first);
        user.peer->close();
        retire(std::move(user));
    }
}

} // namespace kor::detail
