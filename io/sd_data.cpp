// SD data items.

#include "io/sd_data.h"

#include <cmath>
#include <set>
#include <sstream>

#include "io/conformer_builder.h"
#include "io/record_source.h"

namespace hermite::io {

namespace {

/// The data item that holds per-atom values in RDKit's atom property list convention.
const char* const AtomPropertyListCharges = "atom.dprop.PartialCharge";
/// A plain list of per-atom charges.
const char* const PlainListCharges = "PartialCharges";
/// Sparse charges: a count, then "atom-number charge" lines.
const char* const SparseCharges = "PUBCHEM_MMFF94_PARTIAL_CHARGES";

/// The name in a data header line: between the first '<' and the next '>', else the rest of
/// the line after '>'.
std::string DataItemName(const std::string& header) {
    const std::size_t open = header.find('<');
    if (open != std::string::npos) {
        const std::size_t close = header.find('>', open + 1);
        if (close != std::string::npos) {
            return header.substr(open + 1, close - open - 1);
        }
    }
    return Trim(header.substr(1));
}

bool IsBlankLine(const std::string& line) {
    return Trim(line).empty();
}

/// The item named `name`, or null.
const std::string* FindItem(const SdProperties& properties, const std::string& name) {
    for (const SdProperty& property : properties) {
        if (property.first == name) {
            return &property.second;
        }
    }
    return nullptr;
}

/// Every whitespace-separated number of `text`; throws `RecordError` on anything else.
std::vector<double> ParseNumbers(const std::string& text, const std::string& itemName) {
    std::istringstream stream(text);
    std::vector<double> numbers;
    std::string word;
    while (stream >> word) {
        std::size_t used = 0;
        double value = 0.0;
        try {
            value = std::stod(word, &used);
        } catch (const std::exception&) {
            used = 0;
        }
        if (used != word.size() || !std::isfinite(value)) {
            throw RecordError("partial charges in data item <" + itemName + "> are not numbers: '" +
                              word + "'");
        }
        numbers.push_back(value);
    }
    return numbers;
}

/// One charge per atom, in atom order.
std::vector<double> DenseCharges(const std::string& text, const std::string& itemName,
                                 unsigned int numAtoms) {
    std::vector<double> charges = ParseNumbers(text, itemName);
    if (charges.size() != numAtoms) {
        throw RecordError("data item <" + itemName + "> has " + std::to_string(charges.size()) +
                          " partial charges for " + std::to_string(numAtoms) + " atoms");
    }
    return charges;
}

/// A count, then pairs of 1-based atom number and charge.
std::vector<double> SparseChargeList(const std::string& text, unsigned int numAtoms) {
    const std::vector<double> numbers = ParseNumbers(text, SparseCharges);
    const bool wellFormed = !numbers.empty() && numbers.size() % 2 == 1 &&
                            numbers[0] == static_cast<double>((numbers.size() - 1) / 2);
    if (!wellFormed) {
        throw RecordError(std::string("data item <") + SparseCharges +
                          "> is not a count followed by atom-charge pairs");
    }
    std::vector<double> charges(numAtoms, 0.0);
    for (std::size_t i = 1; i + 1 < numbers.size(); i += 2) {
        const double atomNumber = numbers[i];
        if (atomNumber < 1 || atomNumber > numAtoms || atomNumber != std::floor(atomNumber)) {
            throw RecordError(std::string("data item <") + SparseCharges +
                              "> names an atom that does not exist");
        }
        charges[static_cast<std::size_t>(atomNumber) - 1] = numbers[i + 1];
    }
    return charges;
}

}  // namespace

SdRecordParts SplitSdRecord(const std::string& record) {
    SdRecordParts parts;
    std::istringstream lines(record);
    std::string line;
    bool inData = false;
    SdProperty* item = nullptr;
    bool itemHasValue = false;
    while (std::getline(lines, line)) {
        if (!inData) {
            parts.molBlock += line;
            parts.molBlock += '\n';
            inData = line.compare(0, 6, "M  END") == 0;
        } else if (item == nullptr) {
            if (!line.empty() && line[0] == '>') {
                parts.properties.emplace_back(DataItemName(line), std::string());
                item = &parts.properties.back();
                itemHasValue = false;
            }
        } else if (IsBlankLine(line)) {
            item = nullptr;
        } else {
            if (itemHasValue) {
                item->second += '\n';
            }
            item->second += line;
            itemHasValue = true;
        }
    }
    return parts;
}

std::string FormatSdProperties(const SdProperties& properties) {
    std::string text;
    for (const SdProperty& property : properties) {
        text += "> <" + property.first + ">\n";
        if (!property.second.empty()) {
            text += property.second + '\n';
        }
        text += '\n';
    }
    return text;
}

SdProperties MergeSdProperties(const SdProperties& properties, const SdProperties& replaced) {
    std::set<std::string> replacedNames;
    for (const SdProperty& property : replaced) {
        replacedNames.insert(property.first);
    }
    SdProperties merged;
    for (const SdProperty& property : properties) {
        if (replacedNames.count(property.first) == 0) {
            merged.push_back(property);
        }
    }
    merged.insert(merged.end(), replaced.begin(), replaced.end());
    return merged;
}

std::optional<std::vector<double>> InputChargesFromSdProperties(const SdProperties& properties,
                                                                unsigned int numAtoms) {
    for (const char* name : {AtomPropertyListCharges, PlainListCharges}) {
        if (const std::string* value = FindItem(properties, name)) {
            return DenseCharges(*value, name, numAtoms);
        }
    }
    if (const std::string* value = FindItem(properties, SparseCharges)) {
        return SparseChargeList(*value, numAtoms);
    }
    return std::nullopt;
}

}  // namespace hermite::io
