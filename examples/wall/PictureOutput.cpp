#include "PictureOutput.h"

#include <cstdio>

void PictureOutput::save(const CaptureOrder& order, const std::string& kind, const Camera& camera,
                         const Picture& picture, const PictureText& texts) {
    const std::string path =
        folder_ + "/capture-" + std::to_string(order.number) + "-" + kind + "-" + camera.name + ".png";
    if (const std::string reason = savePng(path, picture, texts); !reason.empty()) {
        complain("capture " + std::to_string(order.number) + ": " + reason);
        return;
    }
    auto line = nlohmann::ordered_json{{"type", "picture"},
                                       {"number", order.number},
                                       {"kind", kind},
                                       {"camera", camera.name},
                                       {"file", path}};
    for (const auto& [keyword, text] : texts)
        line[keyword] = text;
    report_.add(line);
}

void PictureOutput::complain(const std::string& text) {
    failed_ = true;
    std::fprintf(stderr, "kor-wall-slave: %s\n", text.c_str());
    report_.add({{"type", "complaint"}, {"text", text}});
}
