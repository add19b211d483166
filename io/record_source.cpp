// Record splitters: "$$$$"-terminated SD records, "@<TRIPOS>MOLECULE"-started MOL2 records and
// one SMILES per line.

#include "io/record_source.h"

#include <cctype>

namespace hermite::io {

namespace {

const char* const Blanks = " \t\r";

bool IsBlank(const std::string& line) {
    return line.find_first_not_of(Blanks) == std::string::npos;
}

bool StartsWith(const std::string& text, const char* prefix) {
    return text.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

/// SD records end with a line starting with "$$$$"; a last record may lack it. Stretches of
/// blank lines between records are not records.
class SdfRecordSource : public RecordSource {
public:
    using RecordSource::RecordSource;

    bool Next(RawRecord& record) override {
        record = RawRecord();
        std::string line;
        bool hasContent = false;
        unsigned int lines = 0;
        while (text_.ReadLine(line)) {
            if (StartsWith(line, "$$$$")) {
                if (hasContent) {
                    return Finish(record);
                }
                record.text.clear();  // an empty record: blank lines only
                lines = 0;
                continue;
            }
            if (lines++ == 0) {
                record.title = Trim(line);
            }
            hasContent = hasContent || !IsBlank(line);
            record.text += line;
            record.text += '\n';
        }
        return Error().empty() && hasContent && Finish(record);
    }

private:
    bool Finish(RawRecord& record) {
        record.number = ++count_;
        return true;
    }

    unsigned int count_ = 0;
};

/// MOL2 records start at a "@<TRIPOS>MOLECULE" line, the next line being the molecule's name;
/// anything before the first one (comments) is ignored.
class Mol2RecordSource : public RecordSource {
public:
    using RecordSource::RecordSource;

    bool Next(RawRecord& record) override {
        record = RawRecord();
        std::string line;
        if (!SkipToMoleculeStart()) {
            return false;
        }
        record.text = pendingStart_ + '\n';
        pendingStart_.clear();
        bool titleRead = false;
        while (text_.ReadLine(line)) {
            if (IsMoleculeStart(line)) {
                pendingStart_ = line;
                break;
            }
            if (!titleRead) {
                record.title = Trim(line);
                titleRead = true;
            }
            record.text += line;
            record.text += '\n';
        }
        if (!Error().empty()) {
            return false;
        }
        record.number = ++count_;
        return true;
    }

private:
    static bool IsMoleculeStart(const std::string& line) {
        return StartsWith(line, "@<TRIPOS>MOLECULE");
    }

    /// Makes `pendingStart_` the next "@<TRIPOS>MOLECULE" line; false if there is none.
    bool SkipToMoleculeStart() {
        std::string line;
        while (pendingStart_.empty() && text_.ReadLine(line)) {
            if (IsMoleculeStart(line)) {
                pendingStart_ = line;
            }
        }
        return !pendingStart_.empty();
    }

    std::string pendingStart_;
    unsigned int count_ = 0;
};

/// True when `content` is a column header such as RDKit's SMILES writer puts first ("SMILES
/// Name", "smiles,name"): its first column is the word "smiles" in any case, which is never a
/// valid SMILES ('m' and 'M' are no element symbols outside brackets).
bool IsSmilesHeader(const std::string& content) {
    const std::string word = "smiles";
    const std::size_t end = content.find_first_of(" \t,;");
    if ((end == std::string::npos ? content.size() : end) != word.size()) {
        return false;
    }
    for (std::size_t i = 0; i < word.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(content[i])) != word[i]) {
            return false;
        }
    }
    return true;
}

/// One record per line: the SMILES, then optionally white space and a name (the rest of the
/// line; without one the SMILES is the title). Blank lines and lines starting with '#' are
/// skipped, and so is a column header on the first other line.
class SmilesRecordSource : public RecordSource {
public:
    using RecordSource::RecordSource;

    bool Next(RawRecord& record) override {
        record = RawRecord();
        std::string line;
        while (text_.ReadLine(line)) {
            const std::string content = Trim(line);
            if (content.empty() || content[0] == '#') {
                continue;
            }
            const bool first = !contentSeen_;
            contentSeen_ = true;
            if (first && IsSmilesHeader(content)) {
                continue;
            }
            const std::size_t end = content.find_first_of(" \t");
            record.text = content.substr(0, end);
            record.title = end == std::string::npos ? record.text : Trim(content.substr(end));
            record.number = text_.LineNumber();
            return true;
        }
        return false;
    }

private:
    bool contentSeen_ = false;
};

}  // namespace

std::string Trim(const std::string& text) {
    const std::size_t first = text.find_first_not_of(Blanks);
    if (first == std::string::npos) {
        return std::string();
    }
    const std::size_t last = text.find_last_not_of(Blanks);
    return text.substr(first, last - first + 1);
}

std::unique_ptr<RecordSource> MakeRecordSource(FileFormat format, TextSource& text) {
    switch (format) {
        case FileFormat::Sdf:
            return std::make_unique<SdfRecordSource>(text);
        case FileFormat::Mol2:
            return std::make_unique<Mol2RecordSource>(text);
        case FileFormat::Smiles:
            return std::make_unique<SmilesRecordSource>(text);
        case FileFormat::Unknown:
            break;
    }
    return nullptr;
}

}  // namespace hermite::io
