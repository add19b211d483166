/// \file
/// A screen in parts: the database split into runs of consecutive molecules, each part
/// screened anywhere (another process, another machine), its outcome encoded as bytes, and the
/// parts merged back into exactly the rows and hits of the whole screen.
///
/// Why the merge is exact: a part keeps its own best `ScreenSettings::best` hits of each
/// ranking, so the best of the whole database are among the parts' hits; rows and hits keep
/// the order of the input because parts are merged in their order, and equal scores are broken
/// by input position as in one run. Everything but timings is the same as `Screen` over the
/// whole database gives, bit for bit, whatever the parts and the threads of each.
///
/// Thread safety: the functions may run in several threads at once on different arguments; a
/// `PartMerger` belongs to one thread.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "screen/database.h"
#include "screen/screen.h"

namespace hermite::screen {

/// The slices of one part, in input order.
using PartSlices = std::vector<FileSlice>;

/// Splits the files `paths` into parts of about `molecules` source molecules each (at least 1;
/// a part may span several files), in input order. Each file is measured first
/// (`MeasureFile`, with the requirements of the screen): a file that cannot be used goes whole
/// into a part, so that its problem is reported once, as in one run.
std::vector<PartSlices> SplitIntoParts(const std::vector<std::string>& paths,
                                       const DatabaseRequirements& requirements,
                                       std::size_t molecules);

/// What one part produced: its rows (when kept) and its report. Positions are counted from 0
/// within the part. Hits carry their posed records, not their conformers.
struct ScreenPart {
    std::vector<Row> rows;
    ScreenReport report;
};

/// Screens the slices of one part (see `Screen`); keeps the rows when `keepRows`. The hits'
/// conformers are dropped once their posed records are made.
ScreenPart ScreenSlices(const QuerySet& queries, PartSlices slices, const ScreenSettings& settings,
                        bool keepRows, const ScreenCallbacks& callbacks, RunControl& control);

/// The part as bytes, for another process: doubles are stored bit for bit, so that a decoded
/// part is the part (between machines of the same byte order, which the encoding checks).
std::string EncodeScreenPart(const ScreenPart& part);
/// The part encoded by `EncodeScreenPart`; throws std::runtime_error for bytes that are not one.
ScreenPart DecodeScreenPart(std::string_view bytes);

/// The slices of a part as bytes, for the process that screens it; `kNoIndex` counts survive.
std::string EncodePartSlices(const PartSlices& slices);

/// The slices encoded by `EncodePartSlices`; throws std::runtime_error for bytes that are not.
PartSlices DecodePartSlices(std::string_view bytes);

/// Merges parts, given in any order, into the screen of the whole database: rows go to the
/// callback in input order as soon as every part before theirs is in, and hits are ranked
/// across parts.
class PartMerger {
public:
    /// `rankings` and `best` as in the screen of every part (one ranking, or one per query
    /// molecule with `ScreenSettings::perQuery`).
    PartMerger(std::size_t rankings, std::size_t best, ScreenCallbacks callbacks);

    /// Adds part `index` (0-based); a part given twice is ignored (returns false), so that a
    /// part computed again after a failure cannot be counted twice.
    bool Add(std::size_t index, ScreenPart part);
    /// The parts merged so far: every part before this index is in.
    std::size_t Merged() const { return next_; }

    /// The report of the whole screen; call once every part is in. `seconds` and
    /// `peakInFlight` are left to the caller.
    ScreenReport Finish();

private:
    void Merge(ScreenPart& part);

    ScreenCallbacks callbacks_;
    std::vector<BestList<Hit>> lists_;
    std::map<std::size_t, ScreenPart> waiting_;
    std::size_t next_ = 0;
    std::size_t position_ = 0;
    ScreenReport report_;
};

}  // namespace hermite::screen
