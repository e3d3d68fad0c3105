#pragma once

#include <kit/jVector.h>
#include <support/jString.h>

#include <atomic>

namespace kor::detail {

/// Who a slave says it is: its name and the names of its cameras.
///
/// The connection layer's thread may replace both while the application reads them. What was replaced stays
/// readable until `collect`, so a reference outlives the change. Readers take no lock.
class ClientIdentity {
public:
    ClientIdentity() = default;
    ClientIdentity(const ClientIdentity& other);
    ClientIdentity& operator=(const ClientIdentity& other);
    ~ClientIdentity();

    /// Empty until set.
    const jString& name() const;
    const jVector<jString>& camNames() const;

    /// The name for a thread that a `collect` may run beside.
    jString copyName() const;

    void setName(const jString& name);
    void setCamNames(const jVector<jString>& camNames);

    /// Replaces both at once. False, and nothing happens, while `kMostReplaced` replaced ones wait for
    /// `collect`: a slave cannot make us keep more than that.
    bool replace(const jString& name, const jVector<jString>& camNames);

    /// Frees what was replaced. No reference into it may be in use any more.
    void collect();

    static constexpr int kMostReplaced = 16;

private:
    struct Block;

    void publish(Block* block);
    static void freeChain(Block* block);

    std::atomic<Block*> current_{nullptr};
    Block* replaced_ = nullptr;
    int replacedCount_ = 0;
    mutable int lock_ = 0; // guards all changes; innermost, nothing else is taken under it
};

} // namespace kor::detail
