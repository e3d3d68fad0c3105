#pragma once

/// KOR_API marks what the library exports; everything else stays hidden.
/// A program that links the static library gets KOR_STATIC from the CMake target or from pkg-config.
#if defined(_WIN32) && !defined(KOR_STATIC)
#if defined(KOR_BUILDING)
#define KOR_API __declspec(dllexport)
#else
#define KOR_API __declspec(dllimport)
#endif
#elif !defined(_WIN32)
#define KOR_API [[gnu::visibility("default")]]
#else
#define KOR_API
#endif
