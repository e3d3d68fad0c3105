#pragma once

#include "Export.h"

namespace kor {

/// Small services of the system.
class KOR_API jKit {
public:
    /// Sleeps for at least that many milliseconds.
    static void sleep(unsigned int milliseconds);
};

} // namespace kor
