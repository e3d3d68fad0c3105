#pragma once

#include <glm/glm.hpp>
#include <glm/gtc/quaternion.hpp>

#include <array>
#include <vector>

/// What the wall shows. The master alone computes it; a slave blends two of them and draws the outcome.
///
/// Lengths are in pixels of the wall: x to the right and y down from its upper left corner, z towards the
/// viewer. What lies in the plane of the wall (z = 0) stands still on it however the viewpoint moves.

struct Box {
    int id = 0;
    int cut = 0;       ///< changes when the box jumps: what is before and after is not to be blended
    bool glow = false; ///< light that adds up, so that one bar does not hide the other
    glm::vec3 position{0};
    glm::quat orientation{1, 0, 0, 0};
    glm::vec3 size{1};
    glm::vec3 colour{1};
};

struct WallScene {
    double time = 0; ///< master's time for which it was computed, seconds
    glm::dvec3 eye{0};
    std::vector<Box> boxes;
};

/// A bar that moves straight down across all pictures, over and over.
struct CrossingBar {
    const char* colour;
    float speed; ///< pixels per second
    float track; ///< pixels from one start to the next
};

/// What the pictures can be measured against.
std::array<CrossingBar, 2> crossingBars(const glm::vec2& wall);

/// Computes the scene at a time in seconds for a wall of so many pixels. Reuses the boxes' memory.
void animate(WallScene& scene, double time, const glm::vec2& wall);

/// Moves `scene` towards `later` by `weight`: 0 leaves it, 1 gives `later`. Boxes are matched by id.
void blend(WallScene& scene, const WallScene& later, double weight);
