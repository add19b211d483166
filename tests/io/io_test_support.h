// Helpers of the molecule I/O tests: temporary directories, files, and the Debian data sets.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "qv/chem.h"

namespace hermite::io::testing {

/// The 47 CDK2 ligands with hydrogens of Debian's rdkit-data, read in place.
inline const std::string Cdk2Path = "/usr/share/RDKit/Contrib/Fastcluster/testdata/cdk2.sdf";
/// 163 benzodiazepine-receptor ligands, heavy atoms only, read in place.
inline const std::string BzrPath = "/usr/share/RDKit/Projects/DbCLI/testData/bzr.sdf";

inline bool FileExists(const std::string& path) {
    struct stat status;
    return ::stat(path.c_str(), &status) == 0;
}

/// A fresh directory under $TMPDIR (or /tmp), removed with its contents on destruction.
class TemporaryDirectory {
public:
    TemporaryDirectory() {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/hermite-io-XXXXXX";
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        if (::mkdtemp(buffer.data()) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
        path_ = buffer.data();
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    /// `name` inside the directory.
    std::string File(const std::string& name) const { return path_ + "/" + name; }
    /// The names of the directory's entries.
    std::vector<std::string> Entries() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(path_)) {
            names.push_back(entry.path().filename().string());
        }
        return names;
    }

private:
    std::string path_;
};

inline std::string ReadText(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream contents;
    contents << stream.rdbuf();
    return contents.str();
}

inline void WriteText(const std::string& path, const std::string& text) {
    std::ofstream stream(path, std::ios::binary);
    stream << text;
}

/// Writes `text` gzip-compressed to `path`.
inline void WriteGzip(const std::string& path, const std::string& text) {
    gzFile file = ::gzopen(path.c_str(), "wb");
    if (file == nullptr || ::gzwrite(file, text.data(), static_cast<unsigned int>(text.size())) !=
                               static_cast<int>(text.size())) {
        throw std::runtime_error("gzip write failed");
    }
    ::gzclose(file);
}

/// The SD records of `text` ("$$$$"-terminated), each with its terminator line.
inline std::vector<std::string> SplitSdRecords(const std::string& text) {
    std::vector<std::string> records;
    std::istringstream lines(text);
    std::string line;
    std::string record;
    while (std::getline(lines, line)) {
        record += line + "\n";
        if (line.rfind("$$$$", 0) == 0) {
            records.push_back(record);
            record.clear();
        }
    }
    return records;
}

/// `record` with its first line (the title) replaced.
inline std::string Retitled(const std::string& record, const std::string& title) {
    return title + record.substr(record.find('\n'));
}

/// The rigid motion p -> R p + t, R the rotation by `angle` (radians) about `axis` (any
/// length).
inline QVChem::QVTrans AxisAngleMotion(std::array<double, 3> axis, double angle,
                                       std::array<double, 3> translation) {
    const double n = std::sqrt(axis[0] * axis[0] + axis[1] * axis[1] + axis[2] * axis[2]);
    const double x = axis[0] / n, y = axis[1] / n, z = axis[2] / n;
    const double c = std::cos(angle), s = std::sin(angle), t = 1.0 - c;
    const double rotation[9] = {t * x * x + c,     t * x * y - s * z, t * x * z + s * y,
                                t * x * y + s * z, t * y * y + c,     t * y * z - s * x,
                                t * x * z - s * y, t * y * z + s * x, t * z * z + c};
    return QVChem::QVTrans(rotation, translation.data());
}

}  // namespace hermite::io::testing
