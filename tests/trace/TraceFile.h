#pragma once

#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <cstdlib>

namespace kor::testing_support {

/// A folder that goes with the object.
class ScratchFolder {
public:
    ScratchFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "kor-trace-XXXXXX").string();
        if (!::mkdtemp(name.data()))
            throw std::runtime_error("no folder for the test");
        folder_ = name;
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    ~ScratchFolder() { std::filesystem::remove_all(folder_); }

    std::string file(const std::string& name) const { return (folder_ / name).string(); }
    std::ptrdiff_t files() const { return std::distance(std::filesystem::directory_iterator(folder_), {}); }

private:
    std::filesystem::path folder_;
};

inline std::string contentOf(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

inline nlohmann::json traceOf(const std::string& path) {
    return nlohmann::json::parse(contentOf(path));
}

/// The events with that phase, and with that name unless it is empty.
inline std::vector<nlohmann::json> eventsOf(const nlohmann::json& trace, const std::string& phase,
                                            const std::string& name = {}) {
    std::vector<nlohmann::json> result;
    for (const nlohmann::json& event : trace.at("traceEvents"))
        if (event.at("ph") == phase && (name.empty() || event.at("name") == name))
            result.push_back(event);
    return result;
}

} // namespace kor::testing_support
