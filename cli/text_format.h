/// \file
/// Numbers and text as the outputs write them: fixed and round-trip exact decimals, one-line
/// fields, and the case-insensitive suffix test of file names.
#pragma once

#include <string>

namespace hermite::cli {

/// `value` with `decimals` digits after the point ("nan" and "inf" as printf writes them).
std::string FormatFixed(double value, int decimals);

/// `value` with 17 significant digits, enough to read back the same double.
std::string FormatExact(double value);

/// `text` with tabs, carriage returns and newlines replaced by spaces (for one-line fields).
std::string OneLine(const std::string& text);

/// True when `path` ends with `suffix`, ignoring ASCII case.
bool EndsWithIgnoringCase(const std::string& path, const std::string& suffix);

}  // namespace hermite::cli
