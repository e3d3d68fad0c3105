#include "examples/wall/Camera.h"
#include "examples/wall/WallFrame.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

constexpr glm::vec2 kWall{960, 240};

WallFrame frameAt(double time) {
    WallFrame frame;
    frame.id = 42;
    frame.mode = {false, true, true, false};
    frame.order = {3, 99.5};
    animate(frame.scene, time, kWall);
    return frame;
}

std::vector<unsigned char> packet(const WallFrame& frame) {
    std::vector<unsigned char> bytes(static_cast<std::size_t>(packetSize(frame)));
    kor::BufferWriter writer(bytes.data(), static_cast<int>(bytes.size()));
    writeFrame(writer, frame);
    EXPECT_EQ(writer.tell(), static_cast<int>(bytes.size()));
    return bytes;
}

bool read(const std::vector<unsigned char>& bytes, WallFrame& frame) {
    return readFrame(bytes.data(), static_cast<int>(bytes.size()), frame);
}

TEST(WallFrame, GivesBackWhatWasWritten) {
    const WallFrame sent = frameAt(1.5);
    WallFrame frame;
    ASSERT_TRUE(read(packet(sent), frame));
    EXPECT_EQ(frame.id, 42);
    EXPECT_FALSE(frame.mode.lock);
    EXPECT_TRUE(frame.mode.interpolation);
    EXPECT_TRUE(frame.mode.overlay);
    EXPECT_FALSE(frame.mode.flash);
    EXPECT_EQ(frame.order.number, 3);
    EXPECT_EQ(frame.order.position, 99.5);
    EXPECT_EQ(frame.scene.eye, sent.scene.eye);
    ASSERT_EQ(frame.scene.boxes.size(), sent.scene.boxes.size());
    EXPECT_EQ(frame.scene.boxes[1].orientation, sent.scene.boxes[1].orientation);
    EXPECT_EQ(frame.scene.boxes[2].glow, sent.scene.boxes[2].glow);
    EXPECT_EQ(frame.scene.boxes[3].colour, sent.scene.boxes[3].colour);
}

TEST(WallFrame, RefusesTruncationsAndSurvivesChangedBytes) {
    const std::vector<unsigned char> whole = packet(frameAt(1));
    WallFrame frame;
    for (std::size_t size = 0; size < whole.size(); ++size) {
        EXPECT_FALSE(read({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)}, frame)) << size;
    }
    for (std::size_t i = 0; i < whole.size(); ++i) {
        std::vector<unsigned char> changed = whole;
        changed[i] ^= 0xFF;
        read(changed, frame);
        EXPECT_LE(frame.scene.boxes.size(), whole.size());
    }
}

TEST(WallScene, MovesItsBarsAtTheirSpeeds) {
    WallScene first;
    WallScene later;
    animate(first, 0.05, kWall);
    animate(later, 0.06, kWall);
    for (std::size_t i = 0; i < 2; ++i) {
        const float way = later.boxes[i].position.y - first.boxes[i].position.y;
        EXPECT_NEAR(way / 0.01F, crossingBars(kWall)[i].speed, 0.1F);
    }
}

TEST(WallScene, IsNotBlendedAcrossAJump) {
    const float lap = crossingBars(kWall)[0].track / crossingBars(kWall)[0].speed;
    WallScene scene;
    WallScene later;
    animate(scene, static_cast<double>(lap) - 0.001, kWall);
    animate(later, static_cast<double>(lap) + 0.001, kWall);
    const glm::vec3 before = scene.boxes[0].position;
    const float other = (scene.boxes[1].position.y + later.boxes[1].position.y) / 2;
    blend(scene, later, 0.5);
    EXPECT_EQ(scene.boxes[0].position, before);
    EXPECT_NEAR(scene.boxes[1].position.y, other, 1e-4F) << "what does not jump is blended all the same";
    blend(scene, later, 1);
    EXPECT_EQ(scene.boxes[0].position, later.boxes[0].position);
}

// Where a point comes to lie in a camera's picture, in pixels of the wall.
glm::vec2 onTheWall(const Camera& camera, const glm::dvec3& eye, const glm::vec3& point) {
    const glm::vec4 clip = viewThrough(camera, eye) * glm::vec4(point, 1);
    const glm::vec2 share = glm::vec2(clip.x, -clip.y) / clip.w * 0.5F + 0.5F;
    return glm::vec2(camera.corner) + share * glm::vec2(camera.size);
}

TEST(Camera, TilesWithItsNeighbour) {
    const Camera left{"left", {0, 0}, {320, 240}};
    const Camera right{"right", {320, 0}, {320, 240}};
    for (const glm::dvec3 eye : {glm::dvec3(480, 120, 700), glm::dvec3(100, 10, 500)}) {
        for (const glm::vec3 point :
             {glm::vec3(320, 50, 0), glm::vec3(330, 200, -120), glm::vec3(310, 80, 40)}) {
            const glm::vec2 apart = onTheWall(left, eye, point) - onTheWall(right, eye, point);
            EXPECT_NEAR(glm::length(apart), 0, 0.01F);
        }
        const glm::vec2 still = onTheWall(left, eye, {100, 50, 0});
        EXPECT_NEAR(glm::distance(still, glm::vec2(100, 50)), 0, 0.01F) << "the wall's plane stands still";
    }
}

} // namespace
