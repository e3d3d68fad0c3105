#include <kor/detail/ClientIdentity.h>

#include "src/Tracked.h"
#include <support/AtomicLock.h>

namespace kor::detail {

struct ClientIdentity::Block {
    jString name;
    jVector<jString> camNames;
    Block* next = nullptr; // in the chain of replaced ones
};

namespace {

const char* const kFile = "src/ClientIdentity";

} // namespace

ClientIdentity::ClientIdentity(const ClientIdentity& other) {
    *this = other;
}

ClientIdentity& ClientIdentity::operator=(const ClientIdentity& other) {
    const Block* source = other.current_.load(std::memory_order_acquire);
    if (this != &other) {
        AtomicLock guard(&lock_);
        publish(source ? makeTracked<Block>(kFile, __LINE__, "ClientIdentity::operator=", source->name,
                                            source->camNames)
                       : nullptr);
    }
    return *this;
}

ClientIdentity::~ClientIdentity() {
    freeChain(replaced_);
    freeChain(current_.load(std::memory_order_acquire));
}

const jString& ClientIdentity::name() const {
    const Block* block = current_.load(std::memory_order_acquire);
    return block ? block->name : jString::null();
}

const jVector<jString>& ClientIdentity::camNames() const {
    static const jVector<jString> kNone;
    const Block* block = current_.load(std::memory_order_acquire);
    return block ? block->camNames : kNone;
}

jString ClientIdentity::copyName() const {
    AtomicLock guard(&lock_);
    return name();
}

void ClientIdentity::setName(const jString& newName) {
    AtomicLock guard(&lock_);
    publish(makeTracked<Block>(kFile, __LINE__, "ClientIdentity::setName", newName, camNames()));
}

void ClientIdentity::setCamNames(const jVector<jString>& newCamNames) {
    AtomicLock guard(&lock_);
    publish(makeTracked<Block>(kFile, __LINE__, "ClientIdentity::setCamNames", name(), newCamNames));
}

bool ClientIdentity::replace(const jString& newName, const jVector<jString>& newCamNames) {
    AtomicLock guard(&lock_);
    if (replacedCount_ >= kMostReplaced) {
        return false;
    }
    publish(makeTracked<Block>(kFile, __LINE__, "ClientIdentity::replace", newName, newCamNames));
    return true;
}

void ClientIdentity::collect() {
    Block* chain = nullptr;
    {
        AtomicLock guard(&lock_);
        chain = replaced_;
        replaced_ = nullptr;
        replacedCount_ = 0;
    }
    freeChain(chain);
}

void ClientIdentity::publish(Block* block) {
    if (Block* old = current_.exchange(block, std::memory_order_acq_rel)) {
        old->next = replaced_;
        replaced_ = old;
        ++replacedCount_;
    }
}

void ClientIdentity::freeChain(Block* block) {
    while (block) {
        Block* next = block->next;
        freeTracked(block, kFile, __LINE__, "ClientIdentity::freeChain");
        block = next;
    }
}

} // namespace kor::detail
