#include "WallScene.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr glm::vec3 kAxisZ{0, 0, 1};

// Position on a track that starts anew at its end, and how often it has.
struct Lap {
    int count;
    float distance;
};

Lap lapOf(double time, float speed, float track) {
    const double distance = time * static_cast<double>(speed);
    const double laps = std::floor(distance / static_cast<double>(track));
    return {static_cast<int>(laps), static_cast<float>(distance - laps * static_cast<double>(track))};
}

// These three cross every seam, each in a colour of its own, so that a picture tells where each is.

constexpr float kFastThickness = 24;
constexpr float kDiagonalThickness = 20;
constexpr float kDiagonalSlope = 0.15F;

// How far the middle of the diagonal bar has to be off the picture for none of it to be seen.
float diagonalReach(const glm::vec2& wall) {
    return kDiagonalSlope * wall.x / 2 + kDiagonalThickness;
}

Box fastBar(double time, const glm::vec2& wall) {
    const CrossingBar course = crossingBars(wall)[0];
    const Lap lap = lapOf(time, course.speed, course.track);
    Box bar{0, lap.count, true};
    bar.position = {wall.x / 2, lap.distance - kFastThickness / 2, 0};
    bar.size = {wall.x * 1.2F, kFastThickness, 1};
    bar.colour = {1, 0, 0};
    return bar;
}

Box diagonalBar(double time, const glm::vec2& wall) {
    const CrossingBar course = crossingBars(wall)[1];
    const Lap lap = lapOf(time, course.speed, course.track);
    Box bar{1, lap.count, true};
    bar.position = {wall.x / 2, lap.distance - diagonalReach(wall), 0};
    bar.orientation = glm::angleAxis(std::atan(kDiagonalSlope), kAxisZ);
    bar.size = {wall.x * 1.2F, kDiagonalThickness, 1};
    bar.colour = {0, 1, 0};
    return bar;
}

// Behind the wall, so that it moves with the viewpoint, too.
Box spinningBlade(double time, const glm::vec2& wall) {
    Box blade{2, 0, true};
    blade.position = {wall.x / 2, wall.y / 2, -120};
    blade.orientation = glm::angleAxis(static_cast<float>(std::fmod(0.6 * time, 2 * M_PI)), kAxisZ);
    blade.size = {wall.x * 1.2F, 20, 1};
    blade.colour = {0, 0, 1};
    return blade;
}

Box traveller(double time, const glm::vec2& wall) {
    const Lap lap = lapOf(time, 200, wall.x + 300);
    Box cube{3, lap.count, false};
    cube.position = {lap.distance - 150, wall.y * 0.7F, -60};
    cube.orientation =
        glm::angleAxis(static_cast<float>(std::fmod(time, 2 * M_PI)), glm::normalize(glm::vec3(1, 2, 3)));
    cube.size = glm::vec3(wall.y / 4);
    cube.colour = {0.2, 0.22, 0.25};
    return cube;
}

// Elsewhere every 0.7 s, and never in between: a blended jump would show for a frame.
Box jumper(double time, const glm::vec2& wall) {
    const int jumps = static_cast<int>(std::floor(time / 0.7));
    Box cube{4, jumps, false};
    cube.position = {wall.x * (0.1F + 0.2F * static_cast<float>(jumps * 3 % 5)), wall.y * 0.25F, -30};
    cube.size = glm::vec3(wall.y / 6);
    cube.colour = {0.25, 0.18, 0.25};
    return cube;
}

} // namespace

std::array<CrossingBar, 2> crossingBars(const glm::vec2& wall) {
    return {{{"red", 1000, wall.y + kFastThickness}, {"green", 300, wall.y + 2 * diagonalReach(wall)}}};
}

void animate(WallScene& scene, double time, const glm::vec2& wall) {
    scene.time = time;
    scene.eye = {static_cast<double>(wall.x) * (0.5 + 0.12 * std::sin(0.7 * time)),
                 static_cast<double>(wall.y) * (0.5 + 0.2 * std::sin(0.9 * time)), 700};
    scene.boxes.clear();
    for (const auto box : {fastBar, diagonalBar, spinningBlade, traveller, jumper})
        scene.boxes.push_back(box(time, wall));
    for (int i = 0; i < 12; ++i) { // posts far behind, which show how the viewpoint moves
        Box post{10 + i, 0, false};
        post.position = {wall.x * (static_cast<float>(i) + 0.5F) / 12, wall.y / 2, -300};
        post.size = {14, wall.y * 1.2F, 14};
        post.colour = {0.12, 0.13, 0.16};
        scene.boxes.push_back(post);
    }
}

void blend(WallScene& scene, const WallScene& later, double weight) {
    if (weight >= 1) {
        scene = later;
        return;
    }
    const auto share = static_cast<float>(weight);
    scene.time += (later.time - scene.time) * weight;
    scene.eye = glm::mix(scene.eye, later.eye, weight);
    for (const Box& next : later.boxes) {
        const auto box = std::find_if(scene.boxes.begin(), scene.boxes.end(),
                                      [&next](const Box& candidate) { return candidate.id == next.id; });
        if (box == scene.boxes.end() || box->cut != next.cut)
            continue; // new or jumped: comes with weight 1 when its own frame does
        box->position = glm::mix(box->position, next.position, share);
        box->orientation = glm::slerp(box->orientation, next.orientation, share);
        box->size = glm::mix(box->size, next.size, share);
        box->colour = glm::mix(box->colour, next.colour, share);
    }
}
