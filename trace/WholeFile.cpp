#include "trace/WholeFile.h"

#include <cerrno>
#include <cstring>
#include <random>
#include <system_error>

namespace kor::detail {

namespace fs = std::filesystem;

WholeFile::~WholeFile() {
    stream_.close();
    if (!part_.empty()) {
        std::error_code ignored;
        fs::remove(part_, ignored);
    }
}

bool WholeFile::fail() {
    error_ = errno != 0 ? std::strerror(errno) : "it cannot be written";
    return false;
}

bool WholeFile::open(const std::string& path) {
    std::error_code failure;
    target_ = path;
    if (fs::path real = fs::canonical(path, failure); !failure)
        target_ = real; // a link stays one
    const fs::file_status status = fs::status(target_, failure);
    if (fs::is_directory(status)) {
        error_ = "it is a directory";
        return false;
    }
    fs::path written = target_;
    if (!fs::exists(status) || fs::is_regular_file(status)) {
        std::random_device random;
        written += '.';
        written += std::to_string(random());
        written += ".part";
        part_ = written;
    }
    errno = 0;
    stream_.open(written, std::ios::binary | std::ios::trunc);
    return stream_.is_open() || fail();
}

void WholeFile::write(std::string_view bytes) {
    if (!error_.empty())
        return;
    errno = 0;
    if (!stream_.write(bytes.data(), static_cast<std::streamsize>(bytes.size())))
        fail();
}

bool WholeFile::finish() {
    if (!error_.empty())
        return false;
    errno = 0;
    stream_.close();
    if (!stream_)
        return fail();
    if (!part_.empty()) {
        std::error_code failure;
        fs::rename(part_, target_, failure);
        if (failure) {
            error_ = failure.message();
            return false;
        }
        part_.clear();
    }
    return true;
}

} // namespace kor::detail
