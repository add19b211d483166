// The molecule types of the readers and the choices of reading, free of the chemistry
// toolkit: screens of molecules given in memory use them without linking it.

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>

#include "io/molecule_io.h"

namespace hermite::io {

namespace {

std::string Lowercase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

bool EndsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

/// The extension of the file name in `path` ("" if none), lower case, after removing ".gz".
std::string Extension(const std::string& path) {
    std::string name = Lowercase(path.substr(path.find_last_of('/') + 1));
    if (EndsWith(name, ".gz")) {
        name.resize(name.size() - 3);
    }
    const std::size_t dot = name.find_last_of('.');
    return dot == std::string::npos ? std::string() : name.substr(dot + 1);
}

}  // namespace

std::optional<ChargeModel> ParseChargeModel(std::string_view text) {
    if (text == "gasteiger") {
        return ChargeModel::Gasteiger;
    }
    if (text == "mmff" || text == "mmff94") {
        return ChargeModel::MMFF94;
    }
    if (text == "input") {
        return ChargeModel::Input;
    }
    return std::nullopt;
}

const char* ChargeModelName(ChargeModel model) {
    switch (model) {
        case ChargeModel::Gasteiger:
            return "gasteiger";
        case ChargeModel::MMFF94:
            return "mmff";
        case ChargeModel::Input:
            return "input";
    }
    return "unknown";
}

unsigned int RecordSeed(unsigned int seed, unsigned int record) {
    // splitmix64 of both numbers: neighbouring records get unrelated streams.
    std::uint64_t z = (static_cast<std::uint64_t>(seed) << 32 | record) + 0x9e3779b97f4a7c15ull;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    z ^= z >> 31;
    return static_cast<unsigned int>(z & 0x7fffffffu);
}

FileFormat FormatFromPath(const std::string& path) {
    const std::string extension = Extension(path);
    if (extension == "sdf" || extension == "sd" || extension == "mol") {
        return FileFormat::Sdf;
    }
    if (extension == "mol2") {
        return FileFormat::Mol2;
    }
    if (extension == "smi" || extension == "smiles") {
        return FileFormat::Smiles;
    }
    return FileFormat::Unknown;
}

std::string Problem::Message() const {
    std::string message = file;
    if (record > 0) {
        message += ", record " + std::to_string(record);
        if (!title.empty()) {
            message += " (" + title + ")";
        }
    }
    return message + ": " + reason;
}

Conformer::Conformer() = default;

Conformer::Conformer(QVChem::QVMol mol) : mol_(std::move(mol)) {
    for (unsigned int i = 0; i < mol_.NumAtoms(); ++i) {
        recordAtomIndices_.push_back(i);
    }
}

bool HasFiniteCharges(const QVChem::QVMol& mol) {
    for (const QVChem::QVAtom& atom : mol) {
        if (!std::isfinite(atom.GetPartialCharge())) {
            return false;
        }
    }
    return true;
}

std::string DescribeSource(const Conformer& conformer) {
    std::string text = conformer.File().empty() ? std::string("(no file)") : conformer.File();
    if (conformer.Record() > 0) {
        text += ", record " + std::to_string(conformer.Record());
    }
    if (!conformer.Title().empty()) {
        std::string title = conformer.Title();
        for (char& c : title) {
            if (c == '\n' || c == '\r' || c == '\t') {
                c = ' ';
            }
        }
        text += " (" + title + ")";
    }
    return text;
}

}  // namespace hermite::io
