// A screen in parts: splitting the database, screening a part, encoding it, merging parts.

#include "screen/screen_parts.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace hermite::screen {

// ---------------------------------------------------------------------------------------------
// Splitting

std::vector<PartSlices> SplitIntoParts(const std::vector<std::string>& paths,
                                       const DatabaseRequirements& requirements,
                                       std::size_t molecules) {
    molecules = std::max<std::size_t>(1, molecules);
    std::vector<PartSlices> parts(1);
    std::size_t filled = 0;  // source molecules in the last part
    for (const std::string& path : paths) {
        const FileExtent extent = MeasureFile(path, requirements);
        if (!extent.usable) {
            parts.back().push_back(FileSlice{path});
            continue;
        }
        for (std::size_t first = 0; first < extent.molecules;) {
            if (filled == molecules) {
                parts.emplace_back();
                filled = 0;
            }
            const std::size_t count = std::min(molecules - filled, extent.molecules - first);
            parts.back().push_back(FileSlice{path, first, count});
            first += count;
            filled += count;
        }
    }
    if (parts.back().empty() && parts.size() > 1) {
        parts.pop_back();
    }
    return parts;
}

ScreenPart ScreenSlices(const QuerySet& queries, PartSlices slices, const ScreenSettings& settings,
                        bool keepRows, const ScreenCallbacks& callbacks, RunControl& control) {
    ScreenPart part;
    ScreenCallbacks collecting = callbacks;
    if (keepRows) {
        collecting.row = [&](const Row& row) {
            part.rows.push_back(row);
            if (callbacks.row) {
                callbacks.row(row);
            }
        };
    }
    part.report =
        Screen(queries, Database::Slices(std::move(slices)), settings, collecting, control);
    for (std::vector<Hit>& hits : part.report.hits) {
        for (Hit& hit : hits) {
            hit.conformer = io::Conformer();
        }
    }
    return part;
}

// ---------------------------------------------------------------------------------------------
// Encoding

namespace {

/// "hermite screen part", format 2, and a number whose bytes show the byte order.
constexpr char kMagic[] = "hermite-screen-part-3";
/// The slices of a part, format 1.
constexpr char kSlicesMagic[] = "hermite-part-slices-1";
constexpr std::uint64_t kByteOrder = 0x0102030405060708ULL;

class Encoder {
public:
    void Unsigned(std::uint64_t value) { Raw(&value, sizeof value); }
    void Real(double value) { Raw(&value, sizeof value); }
    void Flag(bool value) { Unsigned(value ? 1 : 0); }
    void Text(const std::string& text) {
        Unsigned(text.size());
        bytes_ += text;
    }
    std::string Take() { return std::move(bytes_); }

private:
    void Raw(const void* data, std::size_t size) {
        bytes_.append(static_cast<const char*>(data), size);
    }
    std::string bytes_;
};

class Decoder {
public:
    explicit Decoder(std::string_view bytes) : bytes_(bytes) {}

    std::uint64_t Unsigned() {
        std::uint64_t value;
        Raw(&value, sizeof value);
        return value;
    }
    double Real() {
        double value;
        Raw(&value, sizeof value);
        return value;
    }
    bool Flag() { return Unsigned() != 0; }
    std::string Text() {
        const std::uint64_t size = Unsigned();
        Require(size);
        std::string text(bytes_.substr(offset_, size));
        offset_ += size;
        return text;
    }
    /// A count of items that each take at least `itemBytes` bytes, checked against the bytes
    /// left.
    std::size_t Count(std::size_t itemBytes) {
        const std::uint64_t count = Unsigned();
        if (itemBytes > 0 && count > (bytes_.size() - offset_) / itemBytes) {
            Fail();
        }
        return static_cast<std::size_t>(count);
    }
    bool AtEnd() const { return offset_ == bytes_.size(); }
    [[noreturn]] static void Fail() { throw std::runtime_error("not an encoded screen part"); }

private:
    void Require(std::uint64_t size) const {
        if (size > bytes_.size() - offset_) {
            Fail();
        }
    }
    void Raw(void* data, std::size_t size) {
        Require(size);
        std::memcpy(data, bytes_.data() + offset_, size);
        offset_ += size;
    }
    std::string_view bytes_;
    std::size_t offset_ = 0;
};

/// `count` items read by `read`, appended one by one: a corrupt count fails at the end of the
/// input, never by reserving memory for items the input cannot hold.
template <class Item, class Read>
void ReadItems(Decoder& in, std::vector<Item>& items, Read read) {
    const std::size_t count = in.Count(sizeof(std::uint64_t));
    items.clear();
    for (std::size_t i = 0; i < count; ++i) {
        items.push_back(read(in));
    }
}

void Put(Encoder& out, const QVChem::QVTrans& transform) {
    double R[9], t[3];
    transform.Extract(R, t, true);
    for (const double value : R) {
        out.Real(value);
    }
    for (const double value : t) {
        out.Real(value);
    }
}

QVChem::QVTrans GetTransform(Decoder& in) {
    double R[9], t[3];
    for (double& value : R) {
        value = in.Real();
    }
    for (double& value : t) {
        value = in.Real();
    }
    return QVChem::QVTrans(R, t);
}

/// The scores in their order of declaration.
double overlay::Scores::*const kScoreFields[] = {&overlay::Scores::shapeTanimoto,
                                                 &overlay::Scores::shapeTverskyQuery,
                                                 &overlay::Scores::shapeTverskyFit,
                                                 &overlay::Scores::hermiteTanimoto,
                                                 &overlay::Scores::electrostaticTanimoto,
                                                 &overlay::Scores::electrostaticCarbo,
                                                 &overlay::Scores::electrostaticCombo,
                                                 &overlay::Scores::colourTanimoto,
                                                 &overlay::Scores::combo,
                                                 &overlay::Scores::colourOverlap,
                                                 &overlay::Scores::overlap,
                                                 &overlay::Scores::querySelfOverlap,
                                                 &overlay::Scores::fitSelfOverlap};

void Put(Encoder& out, const Row& row) {
    out.Unsigned(row.position);
    out.Text(row.title);
    out.Text(row.file);
    out.Unsigned(row.record);
    out.Unsigned(row.conformer);
    out.Unsigned(row.conformers);
    out.Unsigned(row.query);
    out.Unsigned(row.queryConformer);
    Put(out, row.result.transform);
    for (double overlay::Scores::*field : kScoreFields) {
        out.Real(row.result.scores.*field);
    }
    out.Unsigned(row.result.hermiteEvaluations);
    out.Unsigned(row.result.exactEvaluations);
    out.Real(row.rankScore);
    out.Text(row.error);
    out.Flag(row.skippedByBound);
    out.Unsigned(row.warnings.size());
    for (const std::string& warning : row.warnings) {
        out.Text(warning);
    }
}

unsigned int GetUnsigned32(Decoder& in) {
    const std::uint64_t value = in.Unsigned();
    if (value > 0xFFFFFFFFu) {
        Decoder::Fail();
    }
    return static_cast<unsigned int>(value);
}

Row GetRow(Decoder& in) {
    Row row;
    row.position = in.Unsigned();
    row.title = in.Text();
    row.file = in.Text();
    row.record = GetUnsigned32(in);
    row.conformer = GetUnsigned32(in);
    row.conformers = GetUnsigned32(in);
    row.query = in.Unsigned();
    row.queryConformer = GetUnsigned32(in);
    row.result.transform = GetTransform(in);
    for (double overlay::Scores::*field : kScoreFields) {
        row.result.scores.*field = in.Real();
    }
    row.result.hermiteEvaluations = GetUnsigned32(in);
    row.result.exactEvaluations = GetUnsigned32(in);
    row.rankScore = in.Real();
    row.error = in.Text();
    row.skippedByBound = in.Flag();
    ReadItems(in, row.warnings, [](Decoder& d) { return d.Text(); });
    return row;
}

void Put(Encoder& out, const Hit& hit) {
    Put(out, hit.row);
    out.Unsigned(hit.rank);
    out.Real(hit.score);
    out.Unsigned(hit.position);
    out.Text(hit.molBlock);
    out.Unsigned(hit.properties.size());
    for (const auto& [name, value] : hit.properties) {
        out.Text(name);
        out.Text(value);
    }
    out.Text(hit.writeError);
}

Hit GetHit(Decoder& in) {
    Hit hit;
    hit.row = GetRow(in);
    hit.rank = in.Unsigned();
    hit.score = in.Real();
    hit.position = in.Unsigned();
    hit.molBlock = in.Text();
    ReadItems(in, hit.properties, [](Decoder& d) {
        std::string name = d.Text();
        return std::make_pair(std::move(name), d.Text());
    });
    hit.writeError = in.Text();
    return hit;
}

void Put(Encoder& out, const io::Problem& problem) {
    out.Text(problem.file);
    out.Unsigned(problem.record);
    out.Text(problem.title);
    out.Text(problem.reason);
    out.Flag(problem.skipped);
}

io::Problem GetProblem(Decoder& in) {
    io::Problem problem;
    problem.file = in.Text();
    problem.record = GetUnsigned32(in);
    problem.title = in.Text();
    problem.reason = in.Text();
    problem.skipped = in.Flag();
    return problem;
}

void Put(Encoder& out, const RowTally& tally) {
    out.Unsigned(tally.rows);
    out.Unsigned(tally.passing.size());
    for (const unsigned long passing : tally.passing) {
        out.Unsigned(passing);
    }
    out.Unsigned(tally.warnings);
    out.Unsigned(tally.skippedByBound);
    for (const std::vector<Row>* rows : {&tally.failedRows, &tally.warnedRows}) {
        out.Unsigned(rows->size());
        for (const Row& row : *rows) {
            Put(out, row);
        }
    }
}

RowTally GetTally(Decoder& in) {
    RowTally tally;
    tally.rows = in.Unsigned();
    ReadItems(in, tally.passing,
              [](Decoder& d) { return static_cast<unsigned long>(d.Unsigned()); });
    tally.warnings = in.Unsigned();
    tally.skippedByBound = in.Unsigned();
    ReadItems(in, tally.failedRows, GetRow);
    ReadItems(in, tally.warnedRows, GetRow);
    return tally;
}

}  // namespace

std::string EncodeScreenPart(const ScreenPart& part) {
    Encoder out;
    out.Text(kMagic);
    out.Unsigned(kByteOrder);
    out.Unsigned(part.rows.size());
    for (const Row& row : part.rows) {
        Put(out, row);
    }
    const ScreenReport& report = part.report;
    out.Unsigned(report.hits.size());
    for (const std::vector<Hit>& hits : report.hits) {
        out.Unsigned(hits.size());
        for (const Hit& hit : hits) {
            Put(out, hit);
        }
    }
    out.Unsigned(report.problems.Kept().size());
    for (const io::Problem& problem : report.problems.Kept()) {
        Put(out, problem);
    }
    out.Unsigned(report.problems.Files());
    out.Unsigned(report.problems.Records());
    out.Unsigned(report.problems.Partial());
    out.Unsigned(report.failed);
    Put(out, report.tally);
    out.Unsigned(report.counts.molecules);
    out.Unsigned(report.counts.conformers);
    out.Unsigned(report.counts.overlays);
    out.Real(report.overlaySeconds);
    out.Real(report.seconds);
    out.Unsigned(report.peakInFlight);
    out.Flag(report.interrupted);
    return out.Take();
}

std::string EncodePartSlices(const PartSlices& slices) {
    Encoder out;
    out.Text(kSlicesMagic);
    out.Unsigned(slices.size());
    for (const FileSlice& slice : slices) {
        out.Text(slice.path);
        out.Unsigned(slice.first);
        out.Unsigned(slice.count);
    }
    return out.Take();
}

PartSlices DecodePartSlices(std::string_view bytes) {
    const std::runtime_error notSlices("not the encoded slices of a screen part");
    try {
        Decoder in(bytes);
        if (in.Text() != kSlicesMagic) {
            throw notSlices;
        }
        PartSlices slices;
        ReadItems(in, slices, [](Decoder& d) {
            FileSlice slice;
            slice.path = d.Text();
            slice.first = d.Unsigned();
            slice.count = d.Unsigned();
            return slice;
        });
        if (!in.AtEnd()) {
            throw notSlices;
        }
        return slices;
    } catch (const std::runtime_error&) {
        throw notSlices;
    }
}

ScreenPart DecodeScreenPart(std::string_view bytes) {
    Decoder in(bytes);
    if (in.Text() != kMagic) {
        Decoder::Fail();
    }
    if (in.Unsigned() != kByteOrder) {
        throw std::runtime_error("the screen part was encoded on a machine of another byte order");
    }
    ScreenPart part;
    ReadItems(in, part.rows, GetRow);
    ScreenReport& report = part.report;
    ReadItems(in, report.hits, [](Decoder& d) {
        std::vector<Hit> hits;
        ReadItems(d, hits, GetHit);
        return hits;
    });
    std::vector<io::Problem> kept;
    ReadItems(in, kept, GetProblem);
    const unsigned long files = in.Unsigned();
    const unsigned long records = in.Unsigned();
    const unsigned long partial = in.Unsigned();
    report.problems = ProblemLog(std::move(kept), files, records, partial);
    report.failed = in.Unsigned();
    report.tally = GetTally(in);
    report.counts.molecules = in.Unsigned();
    report.counts.conformers = in.Unsigned();
    report.counts.overlays = in.Unsigned();
    report.overlaySeconds = in.Real();
    report.seconds = in.Real();
    report.peakInFlight = in.Unsigned();
    report.interrupted = in.Flag();
    if (!in.AtEnd()) {
        Decoder::Fail();
    }
    return part;
}

// ---------------------------------------------------------------------------------------------
// Merging

PartMerger::PartMerger(std::size_t rankings, std::size_t best, ScreenCallbacks callbacks)
    : callbacks_(std::move(callbacks)), lists_(rankings, BestList<Hit>(best)) {}

bool PartMerger::Add(std::size_t index, ScreenPart part) {
    if (index < next_ || waiting_.count(index) > 0) {
        return false;
    }
    waiting_.emplace(index, std::move(part));
    while (!waiting_.empty() && waiting_.begin()->first == next_) {
        Merge(waiting_.begin()->second);
        waiting_.erase(waiting_.begin());
        ++next_;
        if (callbacks_.progress) {
            callbacks_.progress(report_.counts);
        }
    }
    return true;
}

void PartMerger::Merge(ScreenPart& part) {
    // A part numbers its molecules from 0 (the rows of one molecule, one per query molecule
    // with `perQuery`, share its position); `counts.molecules` of them.
    for (Row& row : part.rows) {
        row.position += position_;
        if (callbacks_.row) {
            callbacks_.row(row);
        }
    }
    ScreenReport& report = part.report;
    if (report.hits.size() > lists_.size()) {
        throw std::runtime_error("a screen part has more rankings than the screen");
    }
    for (std::size_t r = 0; r < report.hits.size(); ++r) {
        for (Hit& hit : report.hits[r]) {
            hit.position += position_;
            hit.row.position = hit.position;
            lists_[r].Offer(std::move(hit));
        }
    }
    for (std::vector<Row>* rows : {&report.tally.failedRows, &report.tally.warnedRows}) {
        for (Row& row : *rows) {
            row.position += position_;
        }
    }
    position_ += report.counts.molecules;
    report_.problems.Add(report.problems);
    report_.failed += report.failed;
    report_.tally.Add(report.tally);
    report_.counts.molecules += report.counts.molecules;
    report_.counts.conformers += report.counts.conformers;
    report_.counts.overlays += report.counts.overlays;
    report_.overlaySeconds += report.overlaySeconds;
    report_.interrupted = report_.interrupted || report.interrupted;
}

ScreenReport PartMerger::Finish() {
    ScreenReport report = std::move(report_);
    report.hits.clear();
    for (BestList<Hit>& list : lists_) {
        std::vector<Hit> hits = list.Sorted();
        for (std::size_t i = 0; i < hits.size(); ++i) {
            hits[i].rank = i + 1;
        }
        report.hits.push_back(std::move(hits));
    }
    return report;
}

}  // namespace hermite::screen
