#include <support/profile.h>

#include "support/HandlerSlot.h"

#include <utility>

namespace kor {

namespace {

constinit detail::Immortal<detail::HandlerSlot<ProfileHandler>> slot;

} // namespace

ProfileHandler setProfileHandler(ProfileHandler handler) {
    return slot.value.exchange(std::move(handler));
}

void profileName(float value, const jString& label, const vec4& colour) {
    const auto handler = slot.value.get();
    if (!handler)
        return;
    try {
        (*handler)(label.c_str(), value, colour);
    } catch (...) {
        // The render loop must not end because its profiler fails.
    }
}

} // namespace kor
