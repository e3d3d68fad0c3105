#pragma once

#include "../Table.h"

#include <span>

namespace kor::bench {

/// Something measured, with one row or several.
struct Figure {
    const char* name;
    const char* what; ///< for --list
    void (*measure)(Table& table);
    bool sideBySide = false; ///< processes that hand each other data on several processors
};

std::span<const Figure> figures();

void measureRoundTrip(Table& table);
void measureBulk(Table& table);
void measureBulkPlain(Table& table);
void measureBulkLoopback(Table& table);
void measureLargePacket(Table& table);
void measureFanOut(Table& table);
void measureIdle(Table& table);
void measureRepair(Table& table);
void measureWireBytes(Table& table);
void measureClock(Table& table);
void measureTracking(Table& table);
void measureTrace(Table& table);

} // namespace kor::bench
