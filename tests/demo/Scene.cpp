#include "examples/framelock/SceneRecords.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

constexpr double kFrame = 1.0 / 60;

std::vector<unsigned char> packet(int frameId, double time, int payloadBytes) {
    Scene scene;
    animate(scene, time);
    std::vector<unsigned char> bytes(static_cast<std::size_t>(frameSize(scene, payloadBytes)));
    kor::BufferWriter writer(bytes.data(), static_cast<int>(bytes.size()));
    EXPECT_TRUE(writeFrame(writer, frameId, scene, payloadBytes));
    EXPECT_EQ(writer.tell(), static_cast<int>(bytes.size()));
    return bytes;
}

bool read(const std::vector<unsigned char>& bytes, ReceivedFrame& frame) {
    return readFrame(bytes.data(), static_cast<int>(bytes.size()), frame);
}

TEST(SceneRecords, GiveBackWhatWasWritten) {
    Scene scene;
    animate(scene, 12.5);
    ReceivedFrame frame;
    ASSERT_TRUE(read(packet(750, 12.5, 100), frame));
    EXPECT_EQ(frame.frameId, 750);
    EXPECT_EQ(frame.payloadFrame, 750);
    EXPECT_EQ(frame.scene.time, 12.5);
    ASSERT_EQ(frame.scene.cameras.size(), scene.cameras.size());
    EXPECT_EQ(frame.scene.cameras[1].position, scene.cameras[1].position);
    EXPECT_EQ(frame.scene.cameras[1].projection, scene.cameras[1].projection);
    ASSERT_EQ(frame.scene.objects.size(), scene.objects.size());
    EXPECT_EQ(frame.scene.objects[7].orientation, scene.objects[7].orientation);
    EXPECT_EQ(frame.scene.objects[7].colour, scene.objects[7].colour);
}

TEST(SceneRecords, RefuseABufferThatIsTooSmall) {
    Scene scene;
    animate(scene, 1);
    std::vector<unsigned char> bytes(static_cast<std::size_t>(frameSize(scene, 0)) - 1);
    kor::BufferWriter writer(bytes.data(), static_cast<int>(bytes.size()));
    EXPECT_FALSE(writeFrame(writer, 60, scene, 0));
    EXPECT_EQ(writer.tell(), 0);
}

TEST(SceneRecords, RefuseEveryTruncation) {
    const std::vector<unsigned char> whole = packet(60, 1, 20);
    ReceivedFrame frame;
    for (std::size_t size = 0; size < whole.size(); ++size) {
        // A block of its own, so that the address sanitizer sees every read behind the end.
        const std::vector<unsigned char> cut(whole.begin(),
                                             whole.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_FALSE(read(cut, frame)) << size;
    }
}

TEST(SceneRecords, SurviveEveryChangedByte) {
    const std::vector<unsigned char> whole = packet(60, 1, 20);
    ReceivedFrame frame;
    for (std::size_t i = 0; i < whole.size(); ++i) {
        for (const int value : {0x00, 0x05, 0x7F, 0xFF}) {
            std::vector<unsigned char> changed = whole;
            changed[i] = static_cast<unsigned char>(value);
            read(changed, frame);
            EXPECT_LE(frame.scene.objects.size(), whole.size());
        }
    }
}

TEST(Scene, BlendsWhatMovesSmoothly) {
    Scene between;
    Scene later;
    Scene truth;
    animate(between, 1.0);
    animate(later, 1.0 + kFrame);
    animate(truth, 1.0 + 0.25 * kFrame);
    blend(between, later, 0.25);
    EXPECT_NEAR(between.time, truth.time, 1e-12);
    for (std::size_t i = 0; i < truth.objects.size(); ++i) {
        EXPECT_NEAR(between.objects[i].position.x, truth.objects[i].position.x, 1e-3);
        EXPECT_NEAR(between.objects[i].orientation.y, truth.objects[i].orientation.y, 1e-3);
    }
    const kor::dquat& turn = between.cameras[0].orientation;
    EXPECT_NEAR(std::hypot(turn.y, turn.w), 1, 1e-12);
}

TEST(Scene, DoesNotBlendAcrossAJump) {
    Scene scene;
    Scene later;
    animate(scene, 2.5 - kFrame / 2);
    animate(later, 2.5 + kFrame / 2);
    ASSERT_NE(scene.objects[0].cut, later.objects[0].cut);
    const kor::vec3 before = scene.objects[0].position;
    blend(scene, later, 0.9);
    EXPECT_EQ(scene.objects[0].position, before);
    blend(scene, later, 1);
    EXPECT_EQ(scene.objects[0].position, later.objects[0].position);
}

TEST(Scene, TakesInWhatItDoesNotKnow) {
    Scene scene;
    Scene later;
    animate(later, 3);
    blend(scene, later, 0.5);
    EXPECT_EQ(scene.objects.size(), later.objects.size());
    EXPECT_EQ(scene.cameras.size(), later.cameras.size());
}

} // namespace
