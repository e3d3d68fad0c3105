#pragma once

#include "WallScene.h"

#include <vector>

/// A frame number in digits of boxes, in the wall's plane, near the upper left corner of a picture.
std::vector<Box> frameCounter(int frame, const glm::ivec2& corner);
