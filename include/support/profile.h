#pragma once

#include "Export.h"
#include "jString.h"
#include "vec.h"

#include <functional>

namespace kor {

/// @{
/// Colours for profiler values.
inline constexpr vec4 vec4_red{1, 0, 0, 1};
inline constexpr vec4 vec4_yellow{1, 1, 0, 1};
inline constexpr vec4 vec4_one{1, 1, 1, 1};
/// @}

/// Receiver of profiler values: label, value (times in milliseconds) and colour for drawing.
using ProfileHandler = std::function<void(const char* label, float value, const vec4& colour)>;

/// Sets the receiver of profiler values; an empty one, the default, drops them.
///
/// It is called on whichever thread reports a value, possibly on two at once, and for a short while after it
/// has been replaced. It may itself replace the handler. An exception that it throws is dropped.
///
/// Returns the receiver that was set before, empty if there was none, so that the new one can pass values on.
KOR_API ProfileHandler setProfileHandler(ProfileHandler handler);

/// Hands one named value to the profiler. Costs one atomic load while there is no handler.
KOR_API void profileName(float value, const jString& label, const vec4& colour);

} // namespace kor
