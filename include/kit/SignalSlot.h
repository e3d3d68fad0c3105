#pragma once

#include "../support/CRC.h"
#include "../support/Export.h"
#include "../support/jAllocator.h"
#include "../support/memInfo.h"
#include "jVector.h"
#include "TypeLabel.h"

#include <cassert>
#include <cstdint>
#include <cstdio>
#include <new>
#include <type_traits>
#include <utility>

/// Signals: a signal of argument type A is a `jVector<Function<void(A)>>`.
///
///     jVector<Function<void(const RTAddr&)>> onMaster;
///     connect(onMaster, &view, &View::showMaster);
///     emitSignal(onMaster, address);
///     releaseSlots(onMaster);
///
/// Nothing here is thread-safe: the owner of a signal guards it.
namespace kor {

/// A bound call, shared and counted by the `Function` values that refer to it. Freed as raw memory when none
/// is left: no destructor runs.
template <class R, class A>
class KOR_API FunctionHandler {
public:
    std::int32_t refCount = 0; ///< number of `Function` values that refer to the handler

    /// Binds the handler to another object, which must be of the bound class.
    virtual void setObject(void* object) = 0;

    /// Identity of the binding: equal for the same member function of the same object, different otherwise.
    virtual std::uint64_t getID() const = 0;

    /// A new handler with the same binding and a count of 0.
    virtual FunctionHandler* clone() const = 0;

    /// Calls the bound member function.
    virtual R invoke(A argument) = 0;

protected:
    FunctionHandler() = default;
    ~FunctionHandler() = default;
};

/// A member function of C that takes P, and the object to call it on.
template <class R, class C, class P>
struct bind_t {
    R (C::*method)(P) = nullptr; ///< the member function, null when unbound
    C* object = nullptr;         ///< the object to call it on, null when unbound; not owned
};

template <class R, class C, class P>
struct TypeLabel<bind_t<R, C, P>> {
    static constexpr LabelText text() {
        return LabelText("class bind_t<", TypeLabel<R>::text(), ",", TypeLabel<C>::text(), ",",
                         TypeLabel<P>::text(), ">");
    }
};

template <class Binder, class R, class A>
class FunctionHandlerChild;

/// The one concrete handler. The signal's argument type A need only convert to the member function's P.
template <class R, class C, class P, class A>
class KOR_API FunctionHandlerChild<bind_t<R, C, P>, R, A> final : public FunctionHandler<R, A> {
public:
    /// What the handler calls.
    using Binder = bind_t<R, C, P>;

    /// A handler with a count of 0; `make` is what registers its memory.
    explicit FunctionHandlerChild(const Binder& binder) : binder_(binder) {}

    /// Makes a handler, registered under the label, with a count of 0.
    static FunctionHandlerChild* make(const Binder& binder, const char* label) {
        void* block = jAllocator::get()->localAlloc(sizeof(FunctionHandlerChild));
        auto* handler = new (block) FunctionHandlerChild(binder);
        memAddInfo(block, false, "include/kit/SignalSlot", __LINE__, label, sizeof(FunctionHandlerChild));
        return handler;
    }

    void setObject(void* object) override { binder_.object = static_cast<C*>(object); }

    std::uint64_t getID() const override {
        // A member pointer is wider than an address, and that of a virtual function holds no address at all.
        const auto object = static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(binder_.object));
        const auto method =
            static_cast<unsigned long long>(CRC::c64(&binder_.method, sizeof(binder_.method)));
        char text[36] = {};
        std::snprintf(text, sizeof(text), "%llx%llx", object, method);
        return static_cast<std::uint64_t>(CRC::c64(text, sizeof(text)));
    }

    FunctionHandler<R, A>* clone() const override {
        static const LabelText kLabel("FunctionHandlerChild<", TypeLabel<Binder>::text(), ",",
                                      TypeLabel<R>::text(), ",", TypeLabel<A>::text(), ">::clone");
        return make(binder_, kLabel.c_str());
    }

    R invoke(A argument) override { return (binder_.object->*binder_.method)(static_cast<A&&>(argument)); }

private:
    Binder binder_;
};

template <class Signature>
class Function;

/// A callback value of two words: one counted reference to a handler, or empty.
template <class R, class A>
class KOR_API Function<R(A)> {
public:
    std::uint64_t id = 0;                     ///< identity of the binding, 0 when empty
    FunctionHandler<R, A>* handler = nullptr; ///< the shared handler, null when empty

    Function() = default;

    /// Binds a member function to an object. Both must be given; the object must outlive every call.
    template <class C, class P>
    Function(C* object, R (C::*method)(P)) {
        static const LabelText kLabel("Function<", TypeLabel<R(A)>::text(), ">::Function");
        assert(object && method);
        hold(FunctionHandlerChild<bind_t<R, C, P>, R, A>::make({method, object}, kLabel.c_str()));
    }

    /// Takes a reference to a handler, such as one that `clone` made; null gives the empty value.
    explicit Function(FunctionHandler<R, A>* shared) {
        if (shared)
            hold(shared);
    }

    /// @{
    /// A copy refers to the same handler.
    Function(const Function& other) : id(other.id), handler(other.handler) {
        if (handler)
            ++handler->refCount;
    }

    Function& operator=(const Function& other) {
        Function copy(other);
        std::swap(id, copy.id);
        std::swap(handler, copy.handler);
        return *this;
    }
    /// @}

    ~Function() { release(); }

    /// Becomes empty; frees the handler with its last reference.
    void release() {
        static const LabelText kLabel("Function<", TypeLabel<R(A)>::text(), ">::release");
        if (handler && --handler->refCount < 1) {
            memRemoveInfo(handler, "include/kit/SignalSlot", __LINE__, kLabel.c_str());
            jAllocator::get()->localFree(handler);
        }
        id = 0;
        handler = nullptr;
    }

private:
    void hold(FunctionHandler<R, A>* shared) {
        handler = shared;
        id = shared->getID();
        ++shared->refCount;
    }
};

template <class Signature>
struct TypeLabel<Function<Signature>> {
    static constexpr LabelText text() {
        return LabelText("class Function<", TypeLabel<Signature>::text(), ">");
    }
};

/// Appends a slot that calls `method` on `object`; a binding that the signal has already is not added again.
///
/// The method may belong to a base class of the object's and may take what the signal's argument converts to.
/// The object must stay until `releaseSlots`.
template <class A, class Object, class C, class P>
void connect(jVector<Function<void(A)>>& signal, Object* object, void (C::*method)(P)) {
    const Function<void(A)> slot(static_cast<C*>(object), method);
    for (const Function<void(A)>& other : signal)
        if (other.id == slot.id)
            return;
    signal.push_back(slot);
}

/// Calls every slot in the order of connection. Slots that a slot appends are called too.
template <class A>
void emitSignal(const jVector<Function<void(A)>>& signal, std::type_identity_t<A> argument) {
    for (int i = 0; i < signal.count; ++i)
        if (FunctionHandler<void, A>* handler = signal.data[i].handler)
            handler->invoke(static_cast<A&&>(argument));
}

/// Releases every slot; the storage stays. Owners call it before the signal's destructor.
template <class A>
void releaseSlots(jVector<Function<void(A)>>& signal) {
    for (Function<void(A)>& slot : signal)
        slot.release();
    signal.count = 0;
}

} // namespace kor
