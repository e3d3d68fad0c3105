#pragma once

#include <support/vec.h>

#include <vector>

/// The scene of the demo. The master computes it for a time; slaves receive it and blend two of them.
struct SceneCamera {
    int index = 0;
    kor::dvec3 position;
    kor::dquat orientation;
    kor::mat4 projection; ///< column-major
};

struct SceneObject {
    int id = 0;
    int cut = 0; ///< changes when the object jumps: what is before and after a jump is not to be blended
    kor::vec3 position;
    kor::quat orientation;
    kor::vec4 colour;
};

struct Scene {
    double time = 0; ///< master's time for which it was computed, seconds
    std::vector<SceneCamera> cameras;
    std::vector<SceneObject> objects;
};

/// Computes the scene at a time in seconds. Reuses the vectors of `scene`.
void animate(Scene& scene, double time);

/// Moves `scene` towards `later` by `weight` (0 leaves it, 1 gives `later`). Cameras and objects are matched
/// by position in the list and by id; what only `later` holds is added.
void blend(Scene& scene, const Scene& later, double weight);
