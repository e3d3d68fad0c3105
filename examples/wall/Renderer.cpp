#include "Renderer.h"

#include "FrameCounter.h"
#include "Shader.h"

#include <epoxy/gl.h>
#include <glm/gtc/matrix_transform.hpp>
#include <glm/gtc/type_ptr.hpp>

#include <algorithm>
#include <cstddef>

namespace {

const char* const kVertexShader = R"(#version 330 core
layout(location = 0) in vec3 corner;
layout(location = 1) in vec3 normal;
layout(location = 2) in mat4 model;
layout(location = 6) in vec3 colour;
uniform mat4 view;
out vec3 shade;
out float across;
void main() {
    vec3 n = normalize(mat3(model) * normal);
    shade = colour * (0.6 + 0.4 * abs(n.z));
    across = corner.y;
    gl_Position = view * (model * vec4(corner, 1.0));
})";

const char* const kSolidShader = R"(#version 330 core
in vec3 shade;
out vec4 pixel;
void main() { pixel = vec4(shade, 1.0); })";

// A bar's long edges fade over one pixel, so that a picture tells where they are to a fraction of one.
const char* const kGlowShader = R"(#version 330 core
in vec3 shade;
in float across;
out vec4 pixel;
void main() {
    float pixelSize = length(vec2(dFdx(across), dFdy(across)));
    float covered = clamp((0.5 - abs(across)) / pixelSize + 0.5, 0.0, 1.0);
    pixel = vec4(shade * covered, 1.0);
})";

struct Vertex {
    glm::vec3 corner;
    glm::vec3 normal;
};

constexpr int kQuadVertices = 6;
constexpr int kCubeVertices = 36;

// A square across the z axis, then a cube. The square is larger than 1 in y by the room for its soft edges.
std::vector<Vertex> shapes() {
    const glm::vec2 corners[] = {{-0.5, -0.5}, {0.5, -0.5}, {0.5, 0.5},
                                 {-0.5, -0.5}, {0.5, 0.5},  {-0.5, 0.5}};
    std::vector<Vertex> vertices;
    for (const glm::vec2& c : corners)
        vertices.push_back({{c.x, c.y * 1.5F, 0}, {0, 0, 1}});
    for (int axis = 0; axis < 3; ++axis) {
        for (const float side : {-0.5F, 0.5F}) {
            for (const glm::vec2& c : corners) {
                Vertex vertex{glm::vec3(0), glm::vec3(0)};
                vertex.corner[axis] = side;
                vertex.corner[(axis + 1) % 3] = c.x;
                vertex.corner[(axis + 2) % 3] = c.y;
                vertex.normal[axis] = side * 2;
                vertices.push_back(vertex);
            }
        }
    }
    return vertices;
}

glm::mat4 modelOf(const Box& box) {
    return glm::scale(glm::translate(glm::mat4(1), box.position) * glm::mat4_cast(box.orientation), box.size);
}

void attribute(unsigned location, int floats, std::size_t stride, std::size_t offset, unsigned divisor) {
    glEnableVertexAttribArray(location);
    // OpenGL takes an offset as a pointer.
    const auto* start = reinterpret_cast<const void*>(offset); // NOLINT(performance-no-int-to-ptr)
    glVertexAttribPointer(location, floats, GL_FLOAT, GL_FALSE, static_cast<GLsizei>(stride), start);
    glVertexAttribDivisor(location, divisor);
}

} // namespace

Renderer::Renderer()
    : solid_(linkProgram(kVertexShader, kSolidShader)), glow_(linkProgram(kVertexShader, kGlowShader)) {
    glGenVertexArrays(1, &vertexArray_);
    glBindVertexArray(vertexArray_);
    glGenBuffers(1, &shape_);
    glBindBuffer(GL_ARRAY_BUFFER, shape_);
    const std::vector<Vertex> vertices = shapes();
    glBufferData(GL_ARRAY_BUFFER, static_cast<GLsizeiptr>(vertices.size() * sizeof(Vertex)), vertices.data(),
                 GL_STATIC_DRAW);
    attribute(0, 3, sizeof(Vertex), offsetof(Vertex, corner), 0);
    attribute(1, 3, sizeof(Vertex), offsetof(Vertex, normal), 0);
    glGenBuffers(1, &instanceBuffer_);
    glBindBuffer(GL_ARRAY_BUFFER, instanceBuffer_);
    for (unsigned column = 0; column < 4; ++column)
        attribute(2 + column, 4, sizeof(Instance), column * sizeof(glm::vec4), 1);
    attribute(6, 3, sizeof(Instance), offsetof(Instance, colour), 1);
}

Renderer::~Renderer() {
    glDeleteBuffers(1, &instanceBuffer_);
    glDeleteBuffers(1, &shape_);
    glDeleteVertexArrays(1, &vertexArray_);
    glDeleteProgram(glow_);
    glDeleteProgram(solid_);
}

void Renderer::draw(const WallScene& scene, const Camera& camera, int frame, const glm::ivec4& viewport) {
    const glm::mat4 view = viewThrough(camera, scene.eye);
    glViewport(viewport.x, viewport.y, viewport.z, viewport.w);
    glScissor(viewport.x, viewport.y, viewport.z, viewport.w);
    glEnable(GL_SCISSOR_TEST);
    glClearColor(0.04F, 0.04F, 0.06F, 1);
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);

    glEnable(GL_DEPTH_TEST);
    instances_.clear();
    for (const std::vector<Box>& boxes : {scene.boxes, frameCounter(frame, camera.corner)}) {
        for (const Box& box : boxes)
            if (!box.glow)
                instances_.push_back({modelOf(box), box.colour});
    }
    drawBoxes(solid_, kQuadVertices, kCubeVertices, view);

    glDisable(GL_DEPTH_TEST);
    glEnable(GL_BLEND);
    glBlendFunc(GL_ONE, GL_ONE);
    instances_.clear();
    for (const Box& box : scene.boxes)
        if (box.glow)
            instances_.push_back({modelOf(box), box.colour});
    drawBoxes(glow_, 0, kQuadVertices, view);
    glDisable(GL_BLEND);
    glDisable(GL_SCISSOR_TEST);
}

void Renderer::drawBoxes(unsigned program, int firstVertex, int vertices, const glm::mat4& view) {
    glUseProgram(program);
    glUniformMatrix4fv(glGetUniformLocation(program, "view"), 1, GL_FALSE, glm::value_ptr(view));
    glBindVertexArray(vertexArray_);
    glBindBuffer(GL_ARRAY_BUFFER, instanceBuffer_);
    glBufferData(GL_ARRAY_BUFFER, static_cast<GLsizeiptr>(instances_.size() * sizeof(Instance)),
                 instances_.data(), GL_STREAM_DRAW);
    glDrawArraysInstanced(GL_TRIANGLES, firstVertex, vertices, static_cast<GLsizei>(instances_.size()));
}

void Renderer::drawFlash(int frame, const glm::ivec4& viewport) {
    glEnable(GL_SCISSOR_TEST);
    for (int bit = 0; bit < 16; ++bit) {
        const int column = bit % 8;
        const int row = bit / 8; // from above
        const int left = viewport.z * column / 8;
        const int bottom = viewport.w * (1 - row) / 2;
        glScissor(viewport.x + left, viewport.y + bottom, viewport.z * (column + 1) / 8 - left,
                  viewport.w * (2 - row) / 2 - bottom);
        const float light = (static_cast<unsigned>(frame) >> bit & 1U) != 0 ? 1.0F : 0.0F;
        glClearColor(light, light, light, 1);
        glClear(GL_COLOR_BUFFER_BIT);
    }
    glDisable(GL_SCISSOR_TEST);
}
