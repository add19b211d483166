// JSON strings and round-trip exact numbers.

#include "cli/json_output.h"

#include <cmath>
#include <cstdio>

#include "cli/text_format.h"

namespace hermite::cli {

std::string JsonString(const std::string& text) {
    std::string json = "\"";
    for (const char c : text) {
        switch (c) {
            case '"':
                json += "\\\"";
                break;
            case '\\':
                json += "\\\\";
                break;
            case '\n':
                json += "\\n";
                break;
            case '\r':
                json += "\\r";
                break;
            case '\t':
                json += "\\t";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char escape[8];
                    std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
                    json += escape;
                } else {
                    json += c;
                }
        }
    }
    return json + "\"";
}

std::string JsonNumber(double value) {
    return std::isfinite(value) ? FormatExact(value) : "null";
}

std::string JsonNumbers(const std::vector<double>& values) {
    std::string json = "[";
    for (std::size_t i = 0; i < values.size(); ++i) {
        json += (i == 0 ? "" : ", ") + JsonNumber(values[i]);
    }
    return json + "]";
}

}  // namespace hermite::cli
