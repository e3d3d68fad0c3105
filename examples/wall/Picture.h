#pragma once

#include <glm/glm.hpp>

#include <functional>
#include <string>
#include <utility>
#include <vector>

/// Pixels, red, green, blue, from the upper left corner.
struct Picture {
    glm::ivec2 size{0};
    std::vector<unsigned char> pixels;
};

/// Reads a part of what is drawn at the moment: x, y (from below), width, height. Needs a current context.
Picture readPicture(const glm::ivec4& viewport);

/// Draws out of sight and reads that. Needs a current context.
Picture drawPicture(const glm::ivec2& size, const std::function<void()>& draw);

/// Pairs of keyword and text, as PNG files carry them.
using PictureText = std::vector<std::pair<std::string, std::string>>;

/// Writes a PNG file. Empty, or the reason why that failed; then no part of the file is left.
std::string savePng(const std::string& path, const Picture& picture, const PictureText& text);
