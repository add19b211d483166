/// \file
/// Minimal JSON text for the outputs of `hermite`: strings with escapes, and numbers that read
/// back as the same double.
#pragma once

#include <string>
#include <vector>

namespace hermite::cli {

/// `text` as a JSON string literal, quotes included (control characters escaped; bytes of
/// UTF-8 are passed through).
std::string JsonString(const std::string& text);

/// `value` as a JSON number with 17 significant digits (round-trip exact); `null` for NaN and
/// infinities, which JSON cannot represent.
std::string JsonNumber(double value);

/// A JSON array of numbers, e.g. "[1.5, 2, 3]".
std::string JsonNumbers(const std::vector<double>& values);

}  // namespace hermite::cli
