#pragma once

#include "Export.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kor {

/// Allocation tracking: who holds which blocks of `jAllocator`.
///
/// Every operation may be called from any thread. Registering and unregistering cost some tens of nanoseconds
/// and take no lock that all threads share, so tracking stays on in production. File and label texts are kept
/// by pointer and must live as long as the block: use literals.

/// Registers a block under the file and operation that allocated it.
///
/// `block` must come from `jAllocator::localAlloc`; null is ignored. `isArray`: true for the storage of an
/// array, false for a single object. `size` in bytes. A block that is registered already is registered anew.
KOR_API void memAddInfo(void* block, bool isArray, const char* file, int line, const char* label,
                        std::size_t size);

/// Unregisters a block; call it right before `localFree`. True when the block was registered.
///
/// File, line and label name the operation that frees; they are there for symmetry and are not kept.
KOR_API bool memRemoveInfo(void* block, const char* file, int line, const char* label);

/// Switches tracking on (the default) or off. Blocks registered before stay registered until they are
/// removed.
KOR_API void setMemTracking(bool enabled);

/// Live blocks of one source file, line and operation.
struct MemReportEntry {
    const char* file = "";    ///< source path without extension, such as "include/kit/jVector"
    const char* label = "";   ///< qualified name of the operation that allocated
    int line = 0;             ///< line of the registration
    bool isArray = false;     ///< storage of an array, or single objects
    std::uint64_t blocks = 0; ///< number of live blocks
    std::uint64_t bytes = 0;  ///< their sizes as registered, added up
};

/// What was live when `memReport` ran.
struct MemReport {
    std::vector<MemReportEntry> entries; ///< most bytes first
    std::uint64_t liveBlocks = 0;        ///< registered blocks in all
    std::uint64_t liveBytes = 0;         ///< their sizes added up
    std::uint64_t totalBlocks = 0;       ///< blocks ever registered since the process began
};

/// Counts the live blocks. Other threads go on meanwhile, so the figures are exact only while they are quiet.
KOR_API MemReport memReport();

} // namespace kor
