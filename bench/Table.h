#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kor::bench {

/// One figure with what it is held against: another program measured in the same run, or a fixed limit.
struct Row {
    std::string name; ///< figure, case, and after "vs" what the reference is
    double value = 0;
    std::string unit;
    double reference = 0; ///< in the same unit
    double ratio() const { return reference != 0 ? value / reference : 0; }
};

/// What has been measured, printed as it comes.
class Table {
public:
    void add(Row row);
    const std::vector<Row>& rows() const { return rows_; }

    /// The whole table, in columns.
    void print() const;
    /// A list of objects with the five members. False when the file cannot be written.
    bool writeJson(const std::string& path) const;

private:
    std::vector<Row> rows_;
};

} // namespace kor::bench
