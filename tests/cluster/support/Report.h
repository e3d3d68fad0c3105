#pragma once

#include <map>
#include <string>

/// One line that a node reported; see ReportLine.
struct Report {
    std::string type;
    std::map<std::string, std::string> fields;

    static Report parse(const std::string& line);

    /// Empty when there is no such field.
    const std::string& text(const std::string& key) const;
    /// 0 when there is no such field.
    double number(const std::string& key) const;
    long long count(const std::string& key) const { return static_cast<long long>(number(key)); }
};
