#pragma once

namespace kor::detail {

/// Code of the record with which a slave introduces itself: its name, the number of its cameras, their names.
/// The first packet on a connection, and alone in it.
inline constexpr signed char kIntroductionCode = 1;

} // namespace kor::detail
