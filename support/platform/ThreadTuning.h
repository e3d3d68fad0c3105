#pragma once

namespace kor::detail {

/// Makes the calling thread fit for the network: names it (15 characters at most are kept), lets its timers
/// end to the microsecond, and asks the scheduler to run it soon after it wakes even where spinning threads
/// fill every core. What the system does not permit is left as it is.
void prepareNetworkThread(const char* name);

} // namespace kor::detail
