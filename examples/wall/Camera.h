#pragma once

#include <glm/glm.hpp>

#include <string>
#include <vector>

/// A part of the wall that a slave draws: a window in the wall's plane, looked through from the scene's eye.
struct Camera {
    std::string name;
    glm::ivec2 corner{0}; ///< upper left, pixels of the wall
    glm::ivec2 size{0};
};

/// The smallest part of the wall that holds all cameras' parts; its name is empty. There must be a camera.
Camera around(const std::vector<Camera>& cameras);

/// The view through that window. Frusta of neighbours share their edge, so that the pictures tile.
glm::mat4 viewThrough(const Camera& camera, const glm::dvec3& eye);
