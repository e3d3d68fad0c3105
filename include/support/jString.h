#pragma once

#include "Export.h"

#include <compare>
#include <cstddef>
#include <string_view>

namespace kor {

/// A text that owns its characters; copies on copy. Texts of up to `kInlineCapacity` characters need no
/// memory block.
///
/// Like a standard string it may be read from several threads at once while none changes it.
class KOR_API jString {
public:
    /// Longest text that is stored inside the object, in characters.
    static constexpr std::size_t kInlineCapacity = 23;

    jString() noexcept;

    /// Copies a NUL-terminated text; null gives the empty text.
    jString(const char* text);

    /// Copies the text, which may hold NUL characters; `c_str` then seems to end at the first.
    jString(std::string_view text);

    /// @{
    /// Copies the text, or takes it over and leaves the other one empty.
    jString(const jString& other);
    jString(jString&& other) noexcept;
    /// @}
    ~jString();

    /// @{
    /// Becomes a copy of the text, which may be part of this string; null counts as the empty text. A string
    /// that is moved from is empty afterwards.
    jString& operator=(const jString& other);
    jString& operator=(jString&& other) noexcept;
    jString& operator=(const char* text);
    jString& operator=(std::string_view text);
    /// @}

    /// The NUL-terminated text; valid until the string is changed or destroyed.
    const char* c_str() const noexcept { return data_; }

    /// Length in characters (bytes), without the NUL at the end.
    std::size_t size() const noexcept { return size_; }
    /// True for the text of no characters.
    bool empty() const noexcept { return size_ == 0; }

    /// The text as a view; valid until the string is changed or destroyed.
    operator std::string_view() const noexcept { return {data_, size_}; }

    /// Becomes the empty text and gives its memory back.
    void clear() noexcept;

    /// Appends a text, also a part of this string.
    jString& operator+=(std::string_view text);

    /// Position of the last occurrence of the whole of `text`, -1 when there is none or `text` is null. The
    /// empty text occurs last at the end.
    int find_last_of(const char* text) const noexcept;

    /// A shared empty string.
    static const jString& null();

    /// @{
    /// Compares byte by byte; null counts as the empty text.
    friend bool operator==(const jString& a, const jString& b) noexcept { return a.view() == b.view(); }
    friend bool operator==(const jString& a, std::string_view b) noexcept { return a.view() == b; }
    friend bool operator==(const jString& a, const char* b) noexcept { return a.view() == (b ? b : ""); }
    friend std::strong_ordering operator<=>(const jString& a, const jString& b) noexcept {
        return a.view() <=> b.view();
    }
    /// @}

private:
    std::string_view view() const noexcept { return {data_, size_}; }
    bool isInline() const noexcept { return data_ == inline_; }
    void assign(std::string_view text);
    void take(jString& other) noexcept;
    void freeBlock() noexcept;
    void reset() noexcept;

    char* data_;
    std::size_t size_;
    std::size_t capacity_;
    char inline_[kInlineCapacity + 1];
};

} // namespace kor
