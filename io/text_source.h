/// \file
/// Line-by-line reading of plain or gzip-compressed text files (internal to hermite_io).
#pragma once

#include <string>
#include <vector>

struct gzFile_s;

namespace hermite::io {

/// A text file read line by line through zlib, which passes uncompressed files through
/// unchanged, so the same reader serves .sdf and .sdf.gz. Not copyable; one thread at a time.
class TextSource {
public:
    /// Opens `path`; on failure `Ok()` is false and `Error()` gives the reason, e.g.
    /// "cannot open file: No such file or directory".
    explicit TextSource(const std::string& path);
    ~TextSource();
    TextSource(const TextSource&) = delete;
    TextSource& operator=(const TextSource&) = delete;

    /// Reads the next line into `line`, without its "\n" or "\r\n". Returns false at the end of
    /// the file and on a read error (then `Error()` is set, e.g. for a truncated gzip file).
    bool ReadLine(std::string& line);

    /// True while the file is open and no error occurred.
    bool Ok() const { return file_ != nullptr && error_.empty(); }
    /// Why opening or reading failed; empty if nothing did.
    const std::string& Error() const { return error_; }
    /// The number of the line last returned (1-based; 0 before the first).
    unsigned int LineNumber() const { return lineNumber_; }

private:
    void Close();

    gzFile_s* file_ = nullptr;
    std::string error_;
    unsigned int lineNumber_ = 0;
    std::vector<char> buffer_;
};

}  // namespace hermite::io
