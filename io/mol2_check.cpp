// The structural check of MOL2 records. RDKit's MOL2 parser finds its sections by their header
// lines, reads as many lines after the ATOM and BOND headers as the counts line announces,
// whatever they hold, and reads the UNITY_ATOM_ATTR section block by block without checking
// that a line has the fields it takes. It checks only that one of a bond's two atom numbers is
// in range before it looks both up. The check walks the record the way the parser will, and
// refuses what would send it out of bounds.

#include "io/mol2_check.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "io/conformer_builder.h"

namespace hermite::io {

namespace {

constexpr char SectionPrefix[] = "@<TRIPOS>";

/// Whether the parser reads section `name` (it takes the last of repeated ones).
bool IsReadSection(const std::string& name) {
    return name == "MOLECULE" || name == "ATOM" || name == "BOND" || name == "UNITY_ATOM_ATTR";
}

/// The lines of `text` as RDKit's parser reads them: split at '\n', a trailing '\r' dropped.
std::vector<std::string> LinesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        std::string line = text.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        lines.push_back(std::move(line));
        start = end + 1;
    }
    return lines;
}

/// The fields of a MOL2 line as RDKit's parser splits it: at spaces and tabs.
std::vector<std::string> FieldsOf(const std::string& line) {
    std::vector<std::string> fields;
    std::size_t start = line.find_first_not_of(" \t");
    while (start != std::string::npos) {
        const std::size_t end = line.find_first_of(" \t", start);
        fields.push_back(line.substr(start, end - start));
        start = end == std::string::npos ? end : line.find_first_not_of(" \t", end);
    }
    return fields;
}

/// `text` as an integer when all of it is one ("+1" and "01" too), as the parser reads
/// numbers.
std::optional<long> WholeInteger(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const long number = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno == ERANGE) {
        return std::nullopt;
    }
    return number;
}

bool IsSectionHeader(const std::string& line) {
    return line.rfind(SectionPrefix, 0) == 0;
}

/// A record as lines, with the line of each section header by section name ("ATOM" for a
/// line whose first field is "@<TRIPOS>ATOM").
class Mol2Layout {
public:
    explicit Mol2Layout(const std::string& text) : lines_(LinesOf(text)) {
        for (std::size_t i = 0; i < lines_.size(); ++i) {
            if (!IsSectionHeader(lines_[i])) {
                continue;
            }
            const std::string name = FieldsOf(lines_[i]).front().substr(sizeof SectionPrefix - 1);
            if (!headers_.emplace(name, i).second && IsReadSection(name)) {
                throw RecordError("the MOL2 record has more than one " + name + " section");
            }
        }
    }

    const std::vector<std::string>& Lines() const { return lines_; }

    /// The line of section `name`'s header, if the record has that section.
    std::optional<std::size_t> Header(const std::string& name) const {
        const auto found = headers_.find(name);
        return found == headers_.end() ? std::nullopt : std::optional(found->second);
    }

    /// The line after the last line of the section whose header is at `header`.
    std::size_t SectionEnd(std::size_t header) const {
        std::size_t end = header + 1;
        while (end < lines_.size() && !IsSectionHeader(lines_[end])) {
            ++end;
        }
        return end;
    }

    /// The `count` lines after section `name`'s header, which the parser reads as the
    /// section's records; refuses a section with fewer lines than that.
    std::vector<std::string> Records(const std::string& name, long count,
                                     const std::string& what) const {
        const std::optional<std::size_t> header = Header(name);
        if (!header) {
            throw RecordError("the MOL2 counts line announces " + std::to_string(count) + " " +
                              what + "s but the record has no " + name + " section");
        }
        const std::size_t first = *header + 1;
        if (SectionEnd(*header) - first < static_cast<std::size_t>(count)) {
            throw RecordError("the MOL2 " + name + " section holds fewer than the " +
                              std::to_string(count) + " " + what +
                              " lines the counts line announces");
        }
        return {lines_.begin() + static_cast<long>(first),
                lines_.begin() + static_cast<long>(first) + count};
    }

private:
    std::vector<std::string> lines_;
    std::map<std::string, std::size_t> headers_;
};

/// A count of the counts line; nothing when the field is missing or not a whole number (the
/// parser then refuses the record itself). A count cannot exceed the record's lines: the
/// parser reserves that many entries, and reads a negative count as a huge unsigned one.
std::optional<long> CountOf(const std::vector<std::string>& counts, std::size_t index,
                            const char* what, std::size_t lineCount) {
    if (index >= counts.size()) {
        return std::nullopt;
    }
    const std::optional<long> count = WholeInteger(counts[index]);
    if (count && (*count < 0 || static_cast<std::size_t>(*count) > lineCount)) {
        throw RecordError("the MOL2 " + std::string(what) + " count " + counts[index] +
                          " does not match the record");
    }
    return count;
}

/// Refuses a bond line whose atom numbers are not those of two different atoms among the
/// record's `atoms`.
void CheckBond(const std::string& line, long atoms, std::set<std::pair<long, long>>& bonded) {
    const std::vector<std::string> fields = FieldsOf(line);
    if (fields.size() < 4) {
        throw RecordError("the MOL2 bond line '" + line +
                          "' lacks a field (a bond number, two atom numbers and a type)");
    }
    const std::string& bond = fields[0];
    long ends[2] = {0, 0};
    for (int end = 0; end < 2; ++end) {
        const std::string& atom = fields[1 + end];
        const std::optional<long> number = WholeInteger(atom);
        if (!number) {
            throw RecordError("bond " + bond + " refers to atom '" + atom +
                              "', which is not an atom number");
        }
        if (*number < 1) {
            throw RecordError("bond " + bond + " refers to atom " + atom +
                              " (MOL2 atoms are numbered from 1)");
        }
        if (*number > atoms) {
            throw RecordError("bond " + bond + " refers to atom " + atom + " of a record with " +
                              std::to_string(atoms) + " atoms");
        }
        ends[end] = *number;
    }
    if (ends[0] == ends[1]) {
        throw RecordError("bond " + bond + " joins atom " + fields[1] + " to itself");
    }
    if (!bonded.emplace(std::min(ends[0], ends[1]), std::max(ends[0], ends[1])).second) {
        throw RecordError("bond " + bond + " joins atoms " + fields[1] + " and " + fields[2] +
                          " a second time");
    }
}

/// Refuses a UNITY_ATOM_ATTR section the parser would read out of bounds. The section is a
/// series of blocks: a line "atom number-of-attributes", then that many attribute lines. The
/// parser takes the section's first line as a block's head whatever it holds, reads two fields
/// of a head and the first field of an attribute line (and the second of an "AtomExpr" line),
/// and after a block stops at an empty line, a line starting with '@' or '#', or the end.
void CheckAtomAttributes(const Mol2Layout& record, long atoms) {
    const std::optional<std::size_t> header = record.Header("UNITY_ATOM_ATTR");
    if (!header) {
        return;
    }
    const std::vector<std::string>& lines = record.Lines();
    const std::size_t end = record.SectionEnd(*header);
    for (std::size_t head = *header + 1; head < lines.size();) {
        const std::vector<std::string> fields = FieldsOf(lines[head]);
        if (fields.size() < 2) {
            throw RecordError(
                "a line of the MOL2 UNITY_ATOM_ATTR section gives no atom and number of "
                "attributes: '" +
                lines[head] + "'");
        }
        const std::optional<long> atom = WholeInteger(fields[0]);
        const std::optional<long> attributes = WholeInteger(fields[1]);
        if (!atom || !attributes) {
            return;  // the parser refuses the record
        }
        if (*atom < 1 || *atom > atoms) {
            throw RecordError("the MOL2 UNITY_ATOM_ATTR section gives attributes of atom " +
                              fields[0] + " of a record with " + std::to_string(atoms) + " atoms");
        }
        if (*attributes < 0 || static_cast<std::size_t>(*attributes) >= end - head) {
            throw RecordError(
                "a block of the MOL2 UNITY_ATOM_ATTR section announces more attribute lines "
                "than the section holds");
        }
        for (long i = 1; i <= *attributes; ++i) {
            const std::vector<std::string> attribute = FieldsOf(lines[head + i]);
            if (attribute.empty()) {
                throw RecordError(
                    "an atom attribute line of the MOL2 UNITY_ATOM_ATTR section is empty");
            }
            if (attribute[0] == "AtomExpr" && attribute.size() < 2) {
                throw RecordError(
                    "an AtomExpr line of the MOL2 UNITY_ATOM_ATTR section has no value");
            }
        }
        head += static_cast<std::size_t>(*attributes) + 1;
        if (head < lines.size() &&
            (lines[head].empty() || lines[head][0] == '@' || lines[head][0] == '#')) {
            return;
        }
    }
}

}  // namespace

void CheckMol2Record(const std::string& text) {
    const Mol2Layout record(text);
    const std::vector<std::string>& lines = record.Lines();
    if (lines.size() < 3) {
        return;  // no counts line: the parser refuses the record
    }
    const std::vector<std::string> counts = FieldsOf(lines[2]);
    const std::optional<long> atoms = CountOf(counts, 0, "atom", lines.size());
    const long bonds = CountOf(counts, 1, "bond", lines.size()).value_or(0);
    if (!atoms || *atoms == 0 || !record.Header("ATOM")) {
        return;  // the parser refuses a record without atoms
    }
    record.Records("ATOM", *atoms, "atom");
    if (bonds > 0) {
        std::set<std::pair<long, long>> bonded;
        for (const std::string& line : record.Records("BOND", bonds, "bond")) {
            CheckBond(line, *atoms, bonded);
        }
    }
    CheckAtomAttributes(record, *atoms);
}

}  // namespace hermite::io
