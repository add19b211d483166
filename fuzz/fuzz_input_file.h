/// \file
/// The fuzzing input as a file: the readers under test open paths, so each input is written to
/// one temporary file per process, named with the extension that selects the reader.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

namespace hermite::fuzz {

/// A temporary file, created once per process and rewritten for every input; removed at exit.
class FuzzInputFile {
public:
    /// A file in $TMPDIR (default /tmp) whose name ends in `extension` (".sdf", ".h5"...).
    explicit FuzzInputFile(const std::string& extension) {
        const char* directory = std::getenv("TMPDIR");
        std::string pattern = std::string(directory && *directory ? directory : "/tmp") +
                              "/hermite-fuzz-XXXXXX" + extension;
        const int descriptor = mkstemps(pattern.data(), static_cast<int>(extension.size()));
        if (descriptor < 0) {
            std::perror("hermite fuzzer: cannot create its input file");
            std::abort();
        }
        close(descriptor);
        path_ = pattern;
    }
    ~FuzzInputFile() { std::remove(path_.c_str()); }
    FuzzInputFile(const FuzzInputFile&) = delete;
    FuzzInputFile& operator=(const FuzzInputFile&) = delete;

    /// Replaces the file's contents with `size` bytes from `data`; returns the path.
    const std::string& Write(const std::uint8_t* data, std::size_t size) {
        std::FILE* file = std::fopen(path_.c_str(), "wb");
        if (!file || std::fwrite(data, 1, size, file) != size || std::fclose(file) != 0) {
            std::perror("hermite fuzzer: cannot write its input file");
            std::abort();
        }
        return path_;
    }

private:
    std::string path_;
};

}  // namespace hermite::fuzz
