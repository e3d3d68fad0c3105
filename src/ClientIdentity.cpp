#include <kor/detail/ClientIdentity.h>

#include "support/Tracked.h"
#include <support/AtomicLock.h>

#include <utility>

namespace kor::detail {

struct ClientIdentity::Block {
    jString name;
    jVector<jString> camNames;
    bool read = false;     // the application may hold a reference
    Block* next = nullptr; // in the chain of kept ones
};

namespace {

const char* const kFile = "src/ClientIdentity";

/// Names in replaced blocks, so that a slave that never stops introducing itself cannot fill the memory.
constexpr int kMaxKeptNames = 16384;

const jVector<jString>& noNames() {
    static const jVector<jString> kNone;
    return kNone;
}

} // namespace

ClientIdentity::ClientIdentity(const ClientIdentity& other) {
    *this = other;
}

ClientIdentity& ClientIdentity::operator=(const ClientIdentity& other) {
    if (this != &other) {
        const Block* source = other.read();
        replace(source ? source->name : jString::null(), source ? source->camNames : noNames());
    }
    return *this;
}

ClientIdentity::~ClientIdentity() {
    freeChain(current_);
    freeChain(next_);
    freeChain(kept_);
}

const jString& ClientIdentity::name() const {
    const Block* block = read();
    return block ? block->name : jString::null();
}

const jVector<jString>& ClientIdentity::camNames() const {
    const Block* block = read();
    return block ? block->camNames : noNames();
}

jString ClientIdentity::newestName() const {
    AtomicLock guard(&lock_);
    const Block* newest = next_ ? next_ : current_;
    return newest ? newest->name : jString::null();
}

void ClientIdentity::setName(const jString& newName) {
    change(&newName, nullptr);
}

void ClientIdentity::setCamNames(const jVector<jString>& newCamNames) {
    change(nullptr, &newCamNames);
}

void ClientIdentity::replace(const jString& newName, const jVector<jString>& newCamNames) {
    change(&newName, &newCamNames);
}

/// Null leaves a part as it is.
void ClientIdentity::change(const jString* newName, const jVector<jString>* newCamNames) {
    Block* block =
        makeTracked<Block>(kFile, __LINE__, "ClientIdentity::change", newName ? *newName : jString::null(),
                           newCamNames ? *newCamNames : noNames());
    {
        AtomicLock guard(&lock_);
        const Block* old = next_ ? next_ : current_;
        if (old && !newName)
            block->name = old->name;
        if (old && !newCamNames)
            block->camNames = old->camNames;
        block = install(block);
    }
    freeChain(block);
}

void ClientIdentity::collect() {
    Block* unused = nullptr;
    {
        AtomicLock guard(&lock_);
        unused = std::exchange(kept_, nullptr);
        keptNames_ = 0;
        if (next_) {
            current_->next = unused;
            unused = std::exchange(current_, std::exchange(next_, nullptr));
        }
        if (current_)
            current_->read = false;
    }
    freeChain(unused);
}

const ClientIdentity::Block* ClientIdentity::read() const {
    AtomicLock guard(&lock_);
    if (current_)
        current_->read = true;
    return current_;
}

/// Hold the lock. Returns the block that nobody needs any more, to be freed without the lock.
ClientIdentity::Block* ClientIdentity::install(Block* block) {
    if (!current_ || !current_->read)
        return std::exchange(current_, block);
    if (keptNames_ >= kMaxKeptNames)
        return std::exchange(next_, block);
    keptNames_ += 1 + current_->camNames.count;
    current_->next = kept_;
    kept_ = std::exchange(current_, block);
    return nullptr;
}

void ClientIdentity::freeChain(Block* block) {
    while (block) {
        Block* next = block->next;
        freeTracked(block, kFile, __LINE__, "ClientIdentity::freeChain");
        block = next;
    }
}

} // namespace kor::detail
