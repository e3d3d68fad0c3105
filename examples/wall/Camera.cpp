#include "Camera.h"

#include <glm/gtc/matrix_transform.hpp>

Camera around(const std::vector<Camera>& cameras) {
    glm::ivec2 first = cameras.front().corner;
    glm::ivec2 last = first;
    for (const Camera& camera : cameras) {
        first = glm::min(first, camera.corner);
        last = glm::max(last, camera.corner + camera.size);
    }
    return {{}, first, last - first};
}

glm::mat4 viewThrough(const Camera& camera, const glm::dvec3& eye) {
    const double nearPlane = 10;
    const double farPlane = 4000;
    const double scale = nearPlane / eye.z; // the wall's edges, drawn in to the near plane
    const glm::dvec2 first = (glm::dvec2(camera.corner) - glm::dvec2(eye)) * scale;
    const glm::dvec2 last = (glm::dvec2(camera.corner + camera.size) - glm::dvec2(eye)) * scale;
    // y counts downwards, so the frustum's bottom is the greater one.
    return glm::frustum(first.x, last.x, last.y, first.y, nearPlane, farPlane) *
           glm::translate(glm::dmat4(1), -eye);
}
