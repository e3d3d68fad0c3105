#pragma once

#include "../../kit/jVector.h"
#include "../../support/jString.h"

namespace kor::detail {

/// Who a slave says it is: its name and the names of its cameras.
///
/// The connection layer's thread may replace both while the application reads them. What the application has
/// read stays readable until `collect`; all else is freed as soon as it is replaced.
class ClientIdentity {
public:
    ClientIdentity() = default;
    ClientIdentity(const ClientIdentity& other);
    ClientIdentity& operator=(const ClientIdentity& other);
    ~ClientIdentity();

    /// @{
    /// Only for the thread that calls `collect`, or while that cannot. Empty until set.
    const jString& name() const;
    const jVector<jString>& camNames() const;
    /// @}

    /// The name for any thread.
    jString newestName() const;

    void setName(const jString& name);
    void setCamNames(const jVector<jString>& camNames);

    /// Replaces both. They show at once; at the next `collect` when the application has read so many
    /// replaced ones that no more of them can be kept.
    void replace(const jString& name, const jVector<jString>& camNames);

    /// Frees what was replaced. No reference into it may be in use any more.
    void collect();

private:
    struct Block;

    const Block* read() const;
    void change(const jString* name, const jVector<jString>* camNames);
    Block* install(Block* block);
    static void freeChain(Block* block);

    Block* current_ = nullptr;
    Block* next_ = nullptr; // becomes the current one in `collect`
    Block* kept_ = nullptr; // replaced ones that the application has read
    int keptNames_ = 0;
    mutable int lock_ = 0; // guards all; innermost, nothing else is taken under it
};

} // namespace kor::detail
