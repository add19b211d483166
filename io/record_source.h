/// \file
/// Splitting SD, MOL2 and SMILES files into records (internal to hermite_io).
#pragma once

#include <memory>
#include <string>

#include "io/molecule_io.h"
#include "io/text_source.h"

namespace hermite::io {

/// A file as a sequence of records.
class RecordSource {
public:
    /// Records from `text`, which must outlive the source.
    explicit RecordSource(TextSource& text) : text_(text) {}
    virtual ~RecordSource() = default;
    /// The next record; false at the end of the file or on a read error (see `Error()`).
    virtual bool Next(RawRecord& record) = 0;
    /// Why reading stopped early; empty at a normal end of file.
    const std::string& Error() const { return text_.Error(); }

protected:
    TextSource& text_;
};

/// The record splitter for a format (not `FileFormat::Unknown`), reading from `text`, which
/// must outlive it.
std::unique_ptr<RecordSource> MakeRecordSource(FileFormat format, TextSource& text);

/// `text` without leading and trailing spaces, tabs and carriage returns.
std::string Trim(const std::string& text);

}  // namespace hermite::io
