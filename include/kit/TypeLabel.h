#pragma once

#include <array>
#include <cstddef>
#include <string_view>
#include <typeinfo>

namespace kor {

class Client;
class jString;
class KorLogicClient;
class KorLogicServer;
class RTAddr;
class SocketUDP;
struct KorData;

/// A short text, such as "jVector<class jString>::reserve", under which the containers register their memory.
/// Cut at `kCapacity` characters.
class LabelText {
public:
    /// Longest label in characters.
    static constexpr std::size_t kCapacity = 255;

    /// Joins its arguments: texts and other labels.
    template <class... Parts>
    constexpr explicit LabelText(const Parts&... parts) {
        (append(parts), ...);
    }

    /// The NUL-terminated text; valid as long as the label.
    constexpr const char* c_str() const { return text_.data(); }
    /// The text as a view; valid as long as the label.
    constexpr operator std::string_view() const { return {text_.data(), size_}; }

private:
    constexpr void append(std::string_view part) {
        for (const char c : part)
            if (size_ < kCapacity)
                text_[size_++] = c;
    }

    std::array<char, kCapacity + 1> text_{};
    std::size_t size_ = 0;
};

/// The spelling of a type in labels.
///
/// A class chooses its own with a public `static constexpr const char* kTypeLabel = "class Scene";`, or by a
/// specialisation. Others get what the compiler calls them.
template <class T>
struct TypeLabel {
    static constexpr LabelText text() {
        if constexpr (requires { T::kTypeLabel; }) {
            return LabelText(T::kTypeLabel);
#ifdef __cpp_rtti
        } else if constexpr (requires { sizeof(T); }) {
            return LabelText(typeid(T).name());
#endif
        } else {
            return LabelText("T");
        }
    }
};

template <class T>
struct TypeLabel<T*> {
    static constexpr LabelText text() { return LabelText(TypeLabel<T>::text(), " *"); }
};
template <class T>
struct TypeLabel<const T> {
    static constexpr LabelText text() { return LabelText(TypeLabel<T>::text(), " const"); }
};
template <class T>
struct TypeLabel<T&> {
    static constexpr LabelText text() { return LabelText(TypeLabel<T>::text(), " &"); }
};
template <class T>
struct TypeLabel<T&&> {
    static constexpr LabelText text() { return LabelText(TypeLabel<T>::text(), " &&"); }
};
template <class R, class A>
struct TypeLabel<R(A)> {
    static constexpr LabelText text() {
        return LabelText(TypeLabel<R>::text(), " __cdecl(", TypeLabel<A>::text(), ")");
    }
};

// The library's own types are told by name, so that they need not be complete where a container of pointers
// is used.
#define KOR_TYPE_LABEL(type, spelling)                                                                       \
    template <>                                                                                              \
    struct TypeLabel<type> {                                                                                 \
        static constexpr LabelText text() {                                                                  \
            return LabelText(spelling);                                                                      \
        }                                                                                                    \
    }

KOR_TYPE_LABEL(void, "void");
KOR_TYPE_LABEL(bool, "bool");
KOR_TYPE_LABEL(int, "int");
KOR_TYPE_LABEL(unsigned short, "unsigned short");
KOR_TYPE_LABEL(Client, "class Client");
KOR_TYPE_LABEL(jString, "class jString");
KOR_TYPE_LABEL(KorLogicClient, "class KorLogicClient");
KOR_TYPE_LABEL(KorLogicServer, "class KorLogicServer");
KOR_TYPE_LABEL(RTAddr, "class RTAddr");
KOR_TYPE_LABEL(SocketUDP, "class SocketUDP");
KOR_TYPE_LABEL(KorData, "struct KorData");
#undef KOR_TYPE_LABEL

} // namespace kor
