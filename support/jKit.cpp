#include <support/jKit.h>

#include <chrono>
#include <thread>

namespace kor {

void jKit::sleep(unsigned int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

} // namespace kor
