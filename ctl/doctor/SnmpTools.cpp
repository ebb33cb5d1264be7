#include "ctl/doctor/SnmpTools.h"

#include <sstream>

namespace kx::ctl {

std::string lineWith(const std::string& text, const std::string& beginning) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.find(beginning) == 0) {
            return line;
        }
    }
    return {};
}

std::string lastLine(const std::string& text) {
    std::istringstream lines(text);
    std::string last;
    for (std::string line; std::getline(lines, line);) {
        last = line.empty() ? last : line;
    }
    return last;
}

}  // namespace kx::ctl
