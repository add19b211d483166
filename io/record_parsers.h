/// \file
/// From record text to conformers, per format (internal to hermite_io).
#pragma once

#include <string>
#include <vector>

#include "io/molecule_io.h"
#include "io/record_source.h"

namespace hermite::io {

/// What a usable record gave.
struct ParsedRecord {
    /// At least one conformer.
    std::vector<Conformer> conformers;
    /// Parts of the record that could not be used (reported as problems that skip nothing).
    std::vector<std::string> notes;
};

/// Parses one record of a file in `format`. Throws `RecordError` (or any std::exception from
/// RDKit, whose message then names the cause) when the record is to be skipped.
ParsedRecord ParseRecord(FileFormat format, const RawRecord& record, const std::string& file,
                         const ReadOptions& options);

}  // namespace hermite::io
