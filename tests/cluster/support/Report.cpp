#include "Report.h"

#include <cstdlib>
#include <sstream>

Report Report::parse(const std::string& line) {
    Report report;
    std::istringstream fields(line);
    std::getline(fields, report.type, '\t');
    for (std::string field; std::getline(fields, field, '\t');) {
        const std::size_t equals = field.find('=');
        if (equals != std::string::npos) {
            report.fields[field.substr(0, equals)] = field.substr(equals + 1);
        }
    }
    return report;
}

const std::string& Report::text(const std::string& key) const {
    static const std::string kNone;
    const auto found = fields.find(key);
    return found == fields.end() ? kNone : found->second;
}

double Report::number(const std::string& key) const {
    return std::strtod(text(key).c_str(), nullptr);
}
