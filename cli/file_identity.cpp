// Refusing outputs that name inputs or other outputs, by file identity.

#include "cli/file_identity.h"

#include <sys/stat.h>

#include <cstdlib>
#include <optional>

#include "cli/arguments.h"

namespace hermite::cli {

namespace {

/// What a path names: an existing file by device and inode (through links), a file still to be
/// made by the canonical path of its directory and its name. Character devices have none.
struct Identity {
    dev_t device = 0;
    ino_t inode = 0;
    std::string future;  ///< for a file that does not exist yet
    bool operator==(const Identity& other) const {
        return device == other.device && inode == other.inode && future == other.future;
    }
};

std::optional<Identity> IdentityOf(const std::string& path) {
    if (path.empty()) {
        return std::nullopt;
    }
    struct stat status;
    if (::stat(path.c_str(), &status) == 0) {
        if (S_ISCHR(status.st_mode)) {
            return std::nullopt;
        }
        return Identity{status.st_dev, status.st_ino, ""};
    }
    const std::size_t slash = path.find_last_of('/');
    const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    char* canonical = ::realpath(directory.c_str(), nullptr);
    if (canonical == nullptr) {
        return std::nullopt;  // the output cannot be made anyway; opening it will say why
    }
    Identity identity;
    identity.future = std::string(canonical) + "/" + path.substr(slash + 1);
    std::free(canonical);
    return identity;
}

}  // namespace

void RequireDistinctFiles(const std::vector<std::string>& inputs,
                          const std::vector<NamedOutput>& outputs) {
    for (std::size_t o = 0; o < outputs.size(); ++o) {
        const std::optional<Identity> output = IdentityOf(outputs[o].second);
        if (!output) {
            continue;
        }
        for (const std::string& input : inputs) {
            if (IdentityOf(input) == output) {
                throw UsageError(outputs[o].first + " names the input file " + input +
                                 "; refusing to overwrite it");
            }
        }
        for (std::size_t p = 0; p < o; ++p) {
            if (IdentityOf(outputs[p].second) == output) {
                throw UsageError(outputs[p].first + " and " + outputs[o].first +
                                 " name the same file " + outputs[o].second);
            }
        }
    }
}

}  // namespace hermite::cli
