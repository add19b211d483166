// Pharmacophore features: RDKit's feature factory over the whole parsed record of a conformer.

#include "io/features.h"

#include <GraphMol/Conformer.h>
#include <GraphMol/MolChemicalFeatures/FeatureParser.h>
#include <GraphMol/MolChemicalFeatures/MolChemicalFeature.h>
#include <GraphMol/MolChemicalFeatures/MolChemicalFeatureDef.h>
#include <GraphMol/MolChemicalFeatures/MolChemicalFeatureFactory.h>
#include <GraphMol/MolOps.h>
#include <GraphMol/RWMol.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <unordered_map>

#include "hermite_io_default_fdef.h"
#include "io/conformer_builder.h"

namespace hermite::io {

/// The parsed definitions: RDKit's factory, and the type of each of its definitions.
struct FeatureDefinitions::Parsed {
    std::string text;
    std::string source;
    RDKit::MolChemicalFeatureFactory factory;
    std::vector<std::string> families;
    std::unordered_map<const RDKit::MolChemicalFeatureDef*, unsigned int> types;
};

namespace {

using DefinitionList = RDKit::MolChemicalFeatureDef::CollectionType;

/// `text` without the white space RDKit trims from its lines.
std::string Trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) {
        return std::string();
    }
    return text.substr(first, text.find_last_not_of(" \t\r\n") + 1 - first);
}

/// Throws for a line without any letter or digit. RDKit's reader takes the first word of each
/// line that is not a comment without checking that there is one, and aborts the process on a
/// line of punctuation alone (such as "]"); no such line is valid anywhere in the format. Lines
/// are joined as RDKit joins them: a line ending in '\' continues on the next one.
void RejectLinesWithoutWords(const std::string& text, const std::string& source) {
    std::istringstream lines(text);
    std::string physical;
    std::string logical;
    unsigned int number = 0;
    while (std::getline(lines, physical)) {
        ++number;
        const std::string line = Trimmed(physical);
        if (physical.empty() || physical[0] == '#' || line.empty()) {
            continue;
        }
        if (line.back() == '\\') {
            logical += line.substr(0, line.size() - 1);
            continue;
        }
        logical += line;
        const bool hasWord = std::any_of(logical.begin(), logical.end(),
                                         [](unsigned char c) { return std::isalnum(c) != 0; });
        if (logical[0] != '#' && !hasWord) {
            throw std::runtime_error(source + ": line " + std::to_string(number) +
                                     ": no keyword: \"" + logical + "\"");
        }
        logical.clear();
    }
}

/// The definitions of `text`, parsed by RDKit; its exceptions become one message naming
/// `source` and, for syntax errors, the line.
DefinitionList ParseDefinitions(const std::string& text, const std::string& source) {
    // RDKit's reader stops at the end of the stream before handling a last line that has no
    // line break, so the text always gets one.
    const std::string terminated = text.empty() || text.back() == '\n' ? text : text + "\n";
    RejectLinesWithoutWords(terminated, source);
    DefinitionList definitions;
    int status = 0;
    try {
        status = RDKit::parseFeatureData(terminated, definitions);
    } catch (const RDKit::FeatureFileParseException& error) {
        std::string message =
            source + ": line " + std::to_string(error.lineNo()) + ": " + error.what();
        std::string line = error.line();
        line.erase(line.find_last_not_of(" \t\r\n") + 1);
        if (!line.empty()) {
            message += ": \"" + line + "\"";
        }
        throw std::runtime_error(message);
    } catch (const std::exception& error) {
        // E.g. a Weights line with more or fewer weights than the pattern has atoms.
        throw std::runtime_error(source +
                                 ": invalid feature definitions: " + Trimmed(error.what()));
    } catch (...) {
        throw std::runtime_error(source + ": invalid feature definitions");
    }
    if (status != 0) {
        throw std::runtime_error(source + ": RDKit could not parse the feature definitions");
    }
    return definitions;
}

/// Throws unless every definition can place its features: a pattern, and weights (normalised
/// by RDKit to sum 1) that are finite, which they are not when they summed to zero.
void CheckDefinitions(const DefinitionList& definitions, const std::string& source) {
    if (definitions.empty()) {
        throw std::runtime_error(source + ": no feature is defined (DefineFeature ... EndFeature)");
    }
    for (const auto& definition : definitions) {
        if (definition->getPattern() == nullptr) {
            throw std::runtime_error(source + ": feature " + definition->getType() +
                                     " has no usable pattern");
        }
        const bool finite = std::all_of(definition->beginWeights(), definition->endWeights(),
                                        [](double weight) { return std::isfinite(weight); });
        if (!finite) {
            throw std::runtime_error(source + ": the weights of feature " + definition->getType() +
                                     " sum to zero");
        }
    }
}

/// `record` itself when RDKit's pattern matching can use it as it is, otherwise (rings not
/// perceived or implicit hydrogens not computed, which the readers always do) a copy in `copy`
/// that has both. The record is shared with other threads and is never modified.
const RDKit::ROMol& Matchable(const RDKit::ROMol& record, std::unique_ptr<RDKit::RWMol>& copy) {
    if (record.getRingInfo()->isInitialized() && !record.needsUpdatePropertyCache()) {
        return record;
    }
    copy = std::make_unique<RDKit::RWMol>(record);
    copy->updatePropertyCache(false);
    RDKit::MolOps::findSSSR(*copy);
    return *copy;
}

/// The weighted mean of the positions of a feature's atoms, with its definition's weights (equal
/// weights when it has none).
RDGeom::Point3D FeaturePosition(const RDKit::MolChemicalFeature& feature,
                                const RDKit::Conformer& coordinates) {
    const RDKit::MolChemicalFeatureDef* definition = feature.getFeatDef();
    const auto& atoms = feature.getAtoms();
    const bool weighted = definition->getNumWeights() == atoms.size();
    RDGeom::Point3D sum(0.0, 0.0, 0.0);
    double total = 0.0;
    auto weight = definition->beginWeights();
    for (const RDKit::Atom* atom : atoms) {
        const double w = weighted ? *weight++ : 1.0;
        RDGeom::Point3D position = coordinates.getAtomPos(atom->getIdx());
        position *= w;
        sum += position;
        total += w;
    }
    sum /= total;
    return sum;
}

std::vector<Feature> Perceive(const RDKit::ROMol& record, int conformerId,
                              const FeatureDefinitions::Parsed& parsed) {
    std::unique_ptr<RDKit::RWMol> copy;
    const RDKit::ROMol& molecule = Matchable(record, copy);
    const RDKit::Conformer& coordinates = molecule.getConformer(conformerId);
    const RDKit::FeatSPtrList found = parsed.factory.getFeaturesForMol(molecule, "", conformerId);
    std::vector<Feature> features;
    features.reserve(found.size());
    for (const RDKit::FeatSPtr& match : found) {
        Feature feature;
        feature.family = match->getFamily();
        feature.type = parsed.types.at(match->getFeatDef());
        const RDGeom::Point3D position = FeaturePosition(*match, coordinates);
        feature.x = position.x;
        feature.y = position.y;
        feature.z = position.z;
        for (const RDKit::Atom* atom : match->getAtoms()) {
            feature.atoms.push_back(atom->getIdx());
        }
        features.push_back(std::move(feature));
    }
    return features;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// FeatureDefinitions

FeatureDefinitions::FeatureDefinitions() : FeatureDefinitions(Default()) {}

FeatureDefinitions::FeatureDefinitions(std::shared_ptr<const Parsed> parsed)
    : parsed_(std::move(parsed)), families_(parsed_->families) {}

FeatureDefinitions FeatureDefinitions::FromText(const std::string& text,
                                                const std::string& source) {
    const DefinitionList definitions = ParseDefinitions(text, source);
    CheckDefinitions(definitions, source);
    auto parsed = std::make_shared<Parsed>();
    parsed->text = text;
    parsed->source = source;
    for (const auto& definition : definitions) {
        // A family's type is its rank among the families by first appearance.
        auto known =
            std::find(parsed->families.begin(), parsed->families.end(), definition->getFamily());
        if (known == parsed->families.end()) {
            parsed->families.push_back(definition->getFamily());
            known = parsed->families.end() - 1;
        }
        parsed->types[definition.get()] =
            static_cast<unsigned int>(known - parsed->families.begin());
        parsed->factory.addFeatureDef(definition);
    }
    return FeatureDefinitions(std::move(parsed));
}

FeatureDefinitions FeatureDefinitions::FromFile(const std::string& path) {
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored)) {
        throw std::runtime_error(path + ": cannot read file: Is a directory");
    }
    std::ifstream stream(path, std::ios::binary);
    if (!stream) {
        throw std::runtime_error(path + ": cannot open file: " + std::strerror(errno));
    }
    std::string text{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    if (stream.bad()) {
        throw std::runtime_error(path + ": cannot read file");
    }
    return FromText(text, path);
}

const std::string& FeatureDefinitions::DefaultText() {
    static const std::string text(DefaultFeatureDefinitionsText);
    return text;
}

const FeatureDefinitions& FeatureDefinitions::Default() {
    static const FeatureDefinitions definitions =
        FromText(DefaultText(), "default feature definitions");
    return definitions;
}

std::optional<unsigned int> FeatureDefinitions::TypeOf(const std::string& family) const {
    const auto found = std::find(families_.begin(), families_.end(), family);
    if (found == families_.end()) {
        return std::nullopt;
    }
    return static_cast<unsigned int>(found - families_.begin());
}

const std::string& FeatureDefinitions::Text() const {
    return parsed_->text;
}

const std::string& FeatureDefinitions::Source() const {
    return parsed_->source;
}

// ---------------------------------------------------------------------------------------------
// Perception

std::vector<Feature> PerceiveFeatures(const Conformer& conformer,
                                      const FeatureDefinitions& definitions) {
    const Conformer::RecordData* data = ConformerAccess::Data(conformer);
    if (data == nullptr) {
        return {};
    }
    try {
        return Perceive(*data->molecule, data->conformerId, *definitions.parsed_);
    } catch (const std::exception& error) {
        throw std::runtime_error(DescribeSource(conformer) +
                                 ": feature perception failed: " + error.what());
    }
}

}  // namespace hermite::io
