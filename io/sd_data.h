/// \file
/// The data items of SD records: parsing, formatting, partial charges stored in them (internal
/// to hermite_io).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "io/molecule_io.h"

namespace hermite::io {

/// An SD record split into its molfile (through the "M  END" line) and its data items.
struct SdRecordParts {
    std::string molBlock;
    SdProperties properties;
};

/// Splits an SD record. Data items start with a line "> ... <name> ..." (without angle
/// brackets the rest of the line is the name) and end at a blank line. A record without
/// "M  END" is all molfile.
SdRecordParts SplitSdRecord(const std::string& record);

/// The data items as SD text: "> <name>", the value, a blank line, for each item.
std::string FormatSdProperties(const SdProperties& properties);

/// `properties` without the items named in `replaced`, followed by `replaced`.
SdProperties MergeSdProperties(const SdProperties& properties, const SdProperties& replaced);

/// The input partial charges of a record of `numAtoms` atoms from its data items (see
/// `ChargeModel::Input`). Nullopt when the record has none; throws `RecordError` when an item is
/// there but malformed.
std::optional<std::vector<double>> InputChargesFromSdProperties(const SdProperties& properties,
                                                                unsigned int numAtoms);

}  // namespace hermite::io
