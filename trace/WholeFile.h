#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace kor::detail {

/// A file that is either written to its end or not touched: the bytes go to another one beside it, which
/// takes its place in the end. Into devices and pipes is written directly. For one thread.
class WholeFile {
public:
    WholeFile() = default;
    WholeFile(const WholeFile&) = delete;
    WholeFile& operator=(const WholeFile&) = delete;

    /// Removes what was written unless `finish` has succeeded.
    ~WholeFile();

    /// False when it cannot be opened; `error` says why.
    bool open(const std::string& path);

    /// After a failure nothing more is written; `finish` reports it.
    void write(std::string_view bytes);

    /// Puts the file in its place. False when that, or any `write`, has failed.
    bool finish();

    const std::string& error() const { return error_; }

private:
    bool fail();

    std::ofstream stream_;
    std::filesystem::path target_;
    std::filesystem::path part_; // empty when written directly
    std::string error_;
};

} // namespace kor::detail
