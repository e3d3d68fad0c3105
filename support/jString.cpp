#include <support/jString.h>

#include <support/jAllocator.h>
#include <support/memInfo.h>

#include <algorithm>
#include <cstring>

namespace kor {

namespace {

constexpr const char* kFile = "support/jString";

std::string_view viewOf(const char* text) {
    return text ? std::string_view(text) : std::string_view();
}

char* makeBlock(std::size_t capacity) {
    void* block = jAllocator::get()->localAlloc(capacity + 1);
    memAddInfo(block, true, kFile, __LINE__, "jString::assign", capacity + 1);
    return static_cast<char*>(block);
}

} // namespace

jString::jString() noexcept {
    reset();
}

jString::jString(const char* text) : jString(viewOf(text)) {}

jString::jString(std::string_view text) : jString() {
    assign(text);
}

jString::jString(const jString& other) : jString(other.view()) {}

jString::jString(jString&& other) noexcept {
    take(other);
}

jString::~jString() {
    freeBlock();
}

jString& jString::operator=(const jString& other) {
    assign(other.view());
    return *this;
}

jString& jString::operator=(jString&& other) noexcept {
    if (this != &other) {
        freeBlock();
        take(other);
    }
    return *this;
}

jString& jString::operator=(const char* text) {
    assign(viewOf(text));
    return *this;
}

jString& jString::operator=(std::string_view text) {
    assign(text);
    return *this;
}

void jString::clear() noexcept {
    freeBlock();
    reset();
}

jString& jString::operator+=(std::string_view text) {
    const std::size_t size = size_ + text.size();
    if (size <= capacity_) {
        std::copy_n(text.data(), text.size(), data_ + size_);
        size_ = size;
        data_[size_] = '\0';
        return *this;
    }
    const std::size_t capacity = std::max(size, 2 * capacity_);
    char* block = makeBlock(capacity);
    std::copy_n(data_, size_, block);
    std::copy_n(text.data(), text.size(), block + size_);
    block[size] = '\0';
    freeBlock();
    data_ = block;
    size_ = size;
    capacity_ = capacity;
    return *this;
}

int jString::find_last_of(const char* text) const noexcept {
    const std::size_t position = text ? view().rfind(text) : std::string_view::npos;
    return position == std::string_view::npos ? -1 : static_cast<int>(position);
}

const jString& jString::null() {
    static const jString kNull;
    return kNull;
}

void jString::assign(std::string_view text) {
    char* target = data_;
    if (text.size() > capacity_)
        target = makeBlock(text.size());
    // The text may be a part of this string, so it is copied before the old block goes.
    std::memmove(target, text.empty() ? "" : text.data(), text.size());
    target[text.size()] = '\0';
    if (target != data_) {
        freeBlock();
        data_ = target;
        capacity_ = text.size();
    }
    size_ = text.size();
}

void jString::take(jString& other) noexcept {
    reset();
    if (other.isInline()) {
        std::copy_n(other.inline_, other.size_ + 1, inline_);
        size_ = other.size_;
    } else {
        data_ = other.data_;
        size_ = other.size_;
        capacity_ = other.capacity_;
    }
    other.reset();
}

void jString::freeBlock() noexcept {
    if (!isInline()) {
        memRemoveInfo(data_, kFile, __LINE__, "jString::release");
        jAllocator::get()->localFree(data_);
    }
}

void jString::reset() noexcept {
    data_ = inline_;
    size_ = 0;
    capacity_ = kInlineCapacity;
    inline_[0] = '\0';
}

} // namespace kor
