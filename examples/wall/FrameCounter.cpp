#include "FrameCounter.h"

#include <string>

namespace {

// Five rows of three cells, from above; the highest bit is the left one.
constexpr int kDigits[10][5] = {{7, 5, 5, 5, 7}, {2, 6, 2, 2, 7}, {7, 1, 7, 4, 7}, {7, 1, 7, 1, 7},
                                {5, 5, 7, 1, 1}, {7, 4, 7, 1, 7}, {7, 4, 7, 5, 7}, {7, 1, 1, 1, 1},
                                {7, 5, 7, 5, 7}, {7, 5, 7, 1, 7}};
constexpr int kCell = 4; // pixels

} // namespace

std::vector<Box> frameCounter(int frame, const glm::ivec2& corner) {
    std::vector<Box> boxes;
    if (frame < 0)
        return boxes;
    glm::ivec2 place = corner + glm::ivec2(16, 14);
    for (const char digit : std::to_string(frame)) {
        for (int row = 0; row < 5; ++row) {
            for (int column = 0; column < 3; ++column) {
                if ((kDigits[digit - '0'][row] >> (2 - column) & 1) == 0)
                    continue;
                Box cell;
                cell.position = {glm::vec2(place + kCell * glm::ivec2(column, row)), 0};
                cell.size = {kCell, kCell, 0.1F};
                cell.colour = glm::vec3(0.4F);
                boxes.push_back(cell);
            }
        }
        place.x += 4 * kCell;
    }
    return boxes;
}
