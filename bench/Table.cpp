#include "Table.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <utility>

namespace kor::bench {

namespace {

/// Four digits that count, without an exponent.
std::string number(double value) {
    char text[64];
    const double size = value < 0 ? -value : value;
    const int decimals = size >= 1000 ? 0 : size >= 100 ? 1 : size >= 10 ? 2 : 3;
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

void printRow(const Row& row, int width) {
    std::printf("%-*s %12s %-8s %12s %8s\n", width, row.name.c_str(), number(row.value).c_str(),
                row.unit.c_str(), number(row.reference).c_str(), number(row.ratio()).c_str());
}

} // namespace

void Table::add(Row row) {
    std::fprintf(stderr, "  %s: %s %s (%s)\n", row.name.c_str(), number(row.value).c_str(), row.unit.c_str(),
                 number(row.reference).c_str());
    rows_.push_back(std::move(row));
}

void Table::print() const {
    std::size_t width = 4;
    for (const Row& row : rows_)
        width = std::max(width, row.name.size());
    std::printf("%-*s %12s %-8s %12s %8s\n", static_cast<int>(width), "name", "value", "unit", "reference",
                "ratio");
    for (const Row& row : rows_)
        printRow(row, static_cast<int>(width));
}

bool Table::writeJson(const std::string& path) const {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const Row& row : rows_)
        list.push_back({{"name", row.name},
                        {"value", row.value},
                        {"unit", row.unit},
                        {"reference", row.reference},
                        {"ratio", row.ratio()}});
    std::ofstream file(path);
    file << list.dump(2) << '\n';
    return static_cast<bool>(file.flush());
}

} // namespace kor::bench
