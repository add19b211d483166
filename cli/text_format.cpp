// Decimal numbers, one-line fields and file-name suffixes for the outputs.

#include "cli/text_format.h"

#include <cstddef>
#include <cstdio>

namespace hermite::cli {

std::string FormatFixed(double value, int decimals) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.*f", decimals, value);
    return buffer;
}

std::string FormatExact(double value) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.17g", value);
    return buffer;
}

std::string OneLine(const std::string& text) {
    std::string line = text;
    for (char& c : line) {
        if (c == '\t' || c == '\n' || c == '\r') {
            c = ' ';
        }
    }
    return line;
}

bool EndsWithIgnoringCase(const std::string& path, const std::string& suffix) {
    if (path.size() < suffix.size()) {
        return false;
    }
    for (std::size_t i = 0; i < suffix.size(); ++i) {
        const char a = path[path.size() - suffix.size() + i];
        const char b = suffix[i];
        const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; };
        if (lower(a) != lower(b)) {
            return false;
        }
    }
    return true;
}

}  // namespace hermite::cli
