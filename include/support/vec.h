#pragma once

/// Plain values for frame data: aggregates without behaviour. Elements are stored in the order in which they
/// are named, and go onto the wire in that order.
namespace kor {

/// Three single-precision elements: a point, a direction.
struct vec3 {
    /// @{
    /// An element.
    float x = 0, y = 0, z = 0;
    /// @}

    /// True when all elements are equal.
    bool operator==(const vec3&) const = default;
};

/// Three double-precision elements: a point, a direction.
struct dvec3 {
    /// @{
    /// An element.
    double x = 0, y = 0, z = 0;
    /// @}

    /// True when all elements are equal.
    bool operator==(const dvec3&) const = default;
};

/// Also a colour: red, green, blue, alpha.
struct vec4 {
    /// @{
    /// An element.
    float x = 0, y = 0, z = 0, w = 0;
    /// @}

    /// True when all elements are equal.
    bool operator==(const vec4&) const = default;
};

/// A quaternion of single precision, w last.
struct quat {
    /// @{
    /// An element.
    float x = 0, y = 0, z = 0, w = 0;
    /// @}

    /// True when all elements are equal.
    bool operator==(const quat&) const = default;
};

/// A quaternion of double precision, w last.
struct dquat {
    /// @{
    /// An element.
    double x = 0, y = 0, z = 0, w = 0;
    /// @}

    /// True when all elements are equal.
    bool operator==(const dquat&) const = default;
};

/// Whether rows or columns follow one another is the application's choice.
struct mat4 {
    float m[16] = {}; ///< elements; zero unless given
    /// True when all elements are equal.
    bool operator==(const mat4&) const = default;
};

/// Like `mat4`, of double precision.
struct dmat4 {
    double m[16] = {}; ///< elements; zero unless given
    /// True when all elements are equal.
    bool operator==(const dmat4&) const = default;
};

} // namespace kor
