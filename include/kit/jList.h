#pragma once

#include "../support/Export.h"
#include "../support/jAllocator.h"
#include "../support/memInfo.h"
#include "TypeLabel.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

namespace kor {

/// A doubly linked list whose nodes stay where they are until they are removed.
///
/// Nodes and members are public for walking. What a value merely points to belongs to the owner of the list:
/// the bytes of a `KorData` must be taken over or freed before its node goes. Not thread-safe but for `size`
/// and `empty`.
template <class T>
class KOR_API jList {
public:
    /// One value and its neighbours.
    struct Node {
        Node* prev = nullptr; ///< null at the head
        Node* next = nullptr; ///< null at the tail
        T value;              ///< the value
    };

    std::int32_t count = 0; ///< number of nodes
    Node* head = nullptr;   ///< first node, null when empty
    Node* tail = nullptr;   ///< last node, null when empty

    jList() = default;
    /// @{
    /// Copies the values in order into nodes of their own.
    jList(const jList& other) { append(other); }
    jList& operator=(const jList& other) {
        if (this != &other) {
            release();
            append(other);
        }
        return *this;
    }
    /// @}
    ~jList() { release(); }

    /// Appends a copy of the value; returns its node.
    Node* push_back(const T& value) {
        static const LabelText kLabel("jList<", TypeLabel<T>::text(), ">::push_back");
        void* block = jAllocator::get()->localAlloc(sizeof(Node));
        Node* node = new (block) Node{tail, nullptr, value};
        memAddInfo(block, false, kFile, __LINE__, kLabel.c_str(), sizeof(Node));
        (tail ? tail->next : head) = node;
        tail = node;
        changeCount(1);
        return node;
    }

    /// Removes and frees a node, searched from the head. False, and nothing happens, when it is not here.
    bool remove(Node* node) {
        const Node* found = head;
        while (found && found != node)
            found = found->next;
        if (found)
            unlink(node);
        return found != nullptr;
    }

    /// Removes and frees every node for whose value `gone` returns true, asked once for each, head to tail.
    /// `gone` may change the value and append to the list, but must not remove.
    template <class Predicate>
    void removeIf(Predicate gone) {
        for (Node* node = head; node;) {
            const bool goes = gone(node->value);
            Node* next = node->next;
            if (goes)
                unlink(node);
            node = next;
        }
    }

    /// Frees all nodes.
    void release() {
        static const LabelText kLabel("jList<", TypeLabel<T>::text(), ">::release");
        for (Node* node = head; node;) {
            Node* next = node->next;
            freeNode(node, kLabel.c_str());
            changeCount(-1);
            node = next;
        }
        head = nullptr;
        tail = nullptr;
    }

    /// Number of nodes. While another thread changes the list, a value of a moment ago.
    int size() const {
        return std::atomic_ref<std::int32_t>(const_cast<std::int32_t&>(count))
            .load(std::memory_order_acquire);
    }
    /// True when there is no node. Like `size`, may be read while another thread changes the list.
    bool empty() const { return size() == 0; }

    /// Iterates over the values, head to tail.
    template <class Value, class NodePointer>
    class Iterator {
    public:
        /// @{
        /// Refers to a node, null for the end; valid until that node is removed.
        explicit Iterator(NodePointer node) : node_(node) {}
        Value& operator*() const { return node_->value; }
        Value* operator->() const { return &node_->value; }
        Iterator& operator++() {
            node_ = node_->next;
            return *this;
        }
        bool operator==(const Iterator&) const = default;
        /// @}

    private:
        NodePointer node_;
    };
    /// @{
    /// From the head up to behind the tail. Removing a node invalidates the iterators that refer to it.
    Iterator<T, Node*> begin() { return Iterator<T, Node*>(head); }
    Iterator<T, Node*> end() { return Iterator<T, Node*>(nullptr); }
    Iterator<const T, const Node*> begin() const { return Iterator<const T, const Node*>(head); }
    Iterator<const T, const Node*> end() const { return Iterator<const T, const Node*>(nullptr); }
    /// @}

private:
    static_assert(alignof(Node) <= alignof(std::max_align_t),
                  "the allocator aligns for fundamental types only");

    static constexpr const char* kFile = "include/kit/jList";

    void append(const jList& other) {
        for (const T& value : other)
            push_back(value);
    }

    void unlink(Node* node) {
        static const LabelText kLabel("jList<", TypeLabel<T>::text(), ">::remove");
        (node->prev ? node->prev->next : head) = node->next;
        (node->next ? node->next->prev : tail) = node->prev;
        freeNode(node, kLabel.c_str());
        changeCount(-1);
    }

    static void freeNode(Node* node, const char* label) {
        node->prev = nullptr;
        node->next = nullptr;
        std::destroy_at(node);
        memRemoveInfo(node, kFile, __LINE__, label);
        jAllocator::get()->localFree(node);
    }

    void changeCount(std::int32_t by) {
        std::atomic_ref<std::int32_t>(count).store(count + by, std::memory_order_release);
    }
};

} // namespace kor
