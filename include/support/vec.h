#pragma once

/// Plain values for frame data: aggregates without behaviour. Elements are stored in the order in which they
/// are named, and go onto the wire in that order.
namespace kor {

struct vec3 {
    float x = 0, y = 0, z = 0;
    bool operator==(const vec3&) const = default;
};

struct dvec3 {
    double x = 0, y = 0, z = 0;
    bool operator==(const dvec3&) const = default;
};

/// Also a colour: red, green, blue, alpha.
struct vec4 {
    float x = 0, y = 0, z = 0, w = 0;
    bool operator==(const vec4&) const = default;
};

struct quat {
    float x = 0, y = 0, z = 0, w = 0;
    bool operator==(const quat&) const = default;
};

struct dquat {
    double x = 0, y = 0, z = 0, w = 0;
    bool operator==(const dquat&) const = default;
};

/// Whether rows or columns follow one another is the application's choice.
struct mat4 {
    float m[16] = {};
    bool operator==(const mat4&) const = default;
};

struct dmat4 {
    double m[16] = {};
    bool operator==(const dmat4&) const = default;
};

} // namespace kor
