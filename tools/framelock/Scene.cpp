#include "Scene.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace {

constexpr int kCameras = 2;
constexpr int kObjects = 24;
constexpr double kTrackLength = 20; // of the object that crosses the picture and starts again, metres
constexpr double kTrackSpeed = 8;   // metres per second

kor::dquat turnAroundY(double angle) {
    return {0, std::sin(angle / 2), 0, std::cos(angle / 2)};
}

kor::quat toFloat(const kor::dquat& q) {
    return {static_cast<float>(q.x), static_cast<float>(q.y), static_cast<float>(q.z),
            static_cast<float>(q.w)};
}

kor::mat4 perspective(double verticalField, double aspect, double nearPlane, double farPlane) {
    const double f = 1 / std::tan(verticalField / 2);
    kor::mat4 p;
    p.m[0] = static_cast<float>(f / aspect);
    p.m[5] = static_cast<float>(f);
    p.m[10] = static_cast<float>((farPlane + nearPlane) / (nearPlane - farPlane));
    p.m[11] = -1;
    p.m[14] = static_cast<float>(2 * farPlane * nearPlane / (nearPlane - farPlane));
    return p;
}

SceneCamera cameraAt(int index, double time) {
    const double angle = 0.2 * time + index * std::numbers::pi / 6;
    return {index,
            {12 * std::sin(angle), 2, 12 * std::cos(angle)},
            turnAroundY(angle),
            perspective(0.9 + 0.1 * std::sin(0.5 * time), 16.0 / 9, 0.1, 200)};
}

SceneObject crossingObjectAt(int id, double time) {
    const double distance = time * kTrackSpeed;
    const double laps = std::floor(distance / kTrackLength);
    return {id,
            static_cast<int>(laps),
            {static_cast<float>(distance - laps * kTrackLength - kTrackLength / 2), 0, 0},
            {0, 0, 0, 1},
            {1, 0.2F, 0.1F, 1}};
}

SceneObject orbitingObjectAt(int id, double time) {
    const double share = static_cast<double>(id) / kObjects;
    const double angle = (0.3 + share) * time + share * 2 * std::numbers::pi;
    const double radius = 2 + 6 * share;
    return {id,
            0,
            {static_cast<float>(radius * std::cos(angle)), static_cast<float>(std::sin(3 * angle)),
             static_cast<float>(radius * std::sin(angle))},
            toFloat(turnAroundY(2 * angle)),
            {static_cast<float>(share), static_cast<float>(0.5 + 0.5 * std::sin(time)), 0.7F, 1}};
}

float mix(float a, float b, double weight) {
    return static_cast<float>(a + (static_cast<double>(b) - a) * weight);
}

kor::vec3 mix(const kor::vec3& a, const kor::vec3& b, double weight) {
    return {mix(a.x, b.x, weight), mix(a.y, b.y, weight), mix(a.z, b.z, weight)};
}

kor::vec4 mix(const kor::vec4& a, const kor::vec4& b, double weight) {
    return {mix(a.x, b.x, weight), mix(a.y, b.y, weight), mix(a.z, b.z, weight), mix(a.w, b.w, weight)};
}

// Straight line and back onto the sphere: between two frames the turn is far too small for the difference to
// an even turn to show.
template <class Quaternion>
Quaternion turn(const Quaternion& a, const Quaternion& b, double weight) {
    const double dot = static_cast<double>(a.x) * b.x + static_cast<double>(a.y) * b.y +
                       static_cast<double>(a.z) * b.z + static_cast<double>(a.w) * b.w;
    const double towards = dot < 0 ? -weight : weight;
    const double x = a.x * (1 - weight) + b.x * towards;
    const double y = a.y * (1 - weight) + b.y * towards;
    const double z = a.z * (1 - weight) + b.z * towards;
    const double w = a.w * (1 - weight) + b.w * towards;
    const double length = std::sqrt(x * x + y * y + z * z + w * w);
    if (!(length > 0))
        return b;
    using Element = decltype(a.x + a.x);
    return {static_cast<Element>(x / length), static_cast<Element>(y / length),
            static_cast<Element>(z / length), static_cast<Element>(w / length)};
}

void blendCamera(SceneCamera& camera, const SceneCamera& later, double weight) {
    const auto between = [weight](double a, double b) { return a + (b - a) * weight; };
    camera.position = {between(camera.position.x, later.position.x),
                       between(camera.position.y, later.position.y),
                       between(camera.position.z, later.position.z)};
    camera.orientation = turn(camera.orientation, later.orientation, weight);
    for (int i = 0; i < 16; ++i)
        camera.projection.m[i] = mix(camera.projection.m[i], later.projection.m[i], weight);
}

void blendObject(SceneObject& object, const SceneObject& later, double weight) {
    if (object.cut != later.cut)
        return;
    object.position = mix(object.position, later.position, weight);
    object.orientation = turn(object.orientation, later.orientation, weight);
    object.colour = mix(object.colour, later.colour, weight);
}

} // namespace

void animate(Scene& scene, double time) {
    scene.time = time;
    scene.cameras.clear();
    for (int i = 0; i < kCameras; ++i)
        scene.cameras.push_back(cameraAt(i, time));
    scene.objects.clear();
    scene.objects.push_back(crossingObjectAt(0, time));
    for (int id = 1; id < kObjects; ++id)
        scene.objects.push_back(orbitingObjectAt(id, time));
}

void blend(Scene& scene, const Scene& later, double weight) {
    if (weight >= 1) {
        scene = later;
        return;
    }
    scene.time += (later.time - scene.time) * weight;
    for (std::size_t i = 0; i < later.cameras.size(); ++i)
        if (i < scene.cameras.size())
            blendCamera(scene.cameras[i], later.cameras[i], weight);
        else
            scene.cameras.push_back(later.cameras[i]);
    for (std::size_t i = 0; i < later.objects.size(); ++i) {
        const SceneObject& next = later.objects[i];
        const auto same = [&next](const SceneObject& object) { return object.id == next.id; };
        // Lists of two neighbouring frames nearly always agree.
        if (i < scene.objects.size() && same(scene.objects[i])) {
            blendObject(scene.objects[i], next, weight);
        } else if (const auto found = std::find_if(scene.objects.begin(), scene.objects.end(), same);
                   found != scene.objects.end()) {
            blendObject(*found, next, weight);
        } else {
            scene.objects.push_back(next);
        }
    }
}
