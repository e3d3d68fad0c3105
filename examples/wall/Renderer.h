#pragma once

#include "Camera.h"
#include "WallScene.h"

#include <vector>

/// Draws boxes with OpenGL 3.3. Needs a current context for its whole life.
class Renderer {
public:
    Renderer();
    ~Renderer();
    Renderer(const Renderer&) = delete;
    Renderer& operator=(const Renderer&) = delete;

    /// Draws what the camera sees, with `frame` as the counter in its corner, into a part of the target:
    /// x, y (from below), width, height.
    void draw(const WallScene& scene, const Camera& camera, int frame, const glm::ivec4& viewport);

    /// The lowest 16 bits of the frame number instead: eight by two cells, white for 1, the lowest bit at the
    /// upper left.
    static void drawFlash(int frame, const glm::ivec4& viewport);

private:
    struct Instance {
        glm::mat4 model;
        glm::vec3 colour;
    };

    void drawBoxes(unsigned program, int firstVertex, int vertices, const glm::mat4& view);

    unsigned solid_ = 0; // programs
    unsigned glow_ = 0;
    unsigned vertexArray_ = 0;
    unsigned shape_ = 0; // buffers
    unsigned instanceBuffer_ = 0;
    std::vector<Instance> instances_; // of the pass that is drawn; kept for its memory
};
