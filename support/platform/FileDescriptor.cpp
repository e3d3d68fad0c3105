#include "support/platform/FileDescriptor.h"

#include <unistd.h>

#include <utility>

namespace kor::detail {

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
        close();
        fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
}

void FileDescriptor::close() {
    if (fd_ >= 0)
        ::close(std::exchange(fd_, -1));
}

} // namespace kor::detail
