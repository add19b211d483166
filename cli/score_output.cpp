// Score table, SD tags of hits and the ranked table on standard output.

#include "cli/score_output.h"

#include <algorithm>
#include <vector>

#include "cli/text_format.h"

namespace hermite::cli {

namespace {

/// Decimals of every score in the outputs.
constexpr int kDecimals = 4;
/// The widest title column of the ranked table.
constexpr std::size_t kMaxTitleWidth = 40;

std::string Score(double value) {
    return FormatFixed(value, kDecimals);
}

/// `text` cut to at most `width` bytes (ending in "..." when cut), not inside a UTF-8 character.
std::string Truncate(const std::string& text, std::size_t width) {
    if (text.size() <= width) {
        return text;
    }
    std::size_t end = width - 3;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) {
        --end;
    }
    return text.substr(0, end) + "...";
}

/// The displayed width of UTF-8 text (code points; good enough for titles).
std::size_t DisplayWidth(const std::string& text) {
    std::size_t width = 0;
    for (const char c : text) {
        if ((static_cast<unsigned char>(c) & 0xC0) != 0x80) {
            ++width;
        }
    }
    return width;
}

/// A table of text cells printed with aligned columns, each column left- or right-aligned, two
/// spaces between columns, no trailing blanks.
class AlignedTable {
public:
    explicit AlignedTable(std::vector<bool> leftAligned) : leftAligned_(std::move(leftAligned)) {}

    void Add(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }

    std::string Format() const {
        std::vector<std::size_t> widths(leftAligned_.size(), 0);
        for (const auto& row : rows_) {
            for (std::size_t c = 0; c < row.size(); ++c) {
                widths[c] = std::max(widths[c], DisplayWidth(row[c]));
            }
        }
        std::string text;
        for (const auto& row : rows_) {
            std::string line;
            for (std::size_t c = 0; c < row.size(); ++c) {
                const std::string padding(widths[c] - DisplayWidth(row[c]), ' ');
                line += c == 0 ? "" : "  ";
                line += leftAligned_[c] ? row[c] + padding : padding + row[c];
            }
            line.erase(line.find_last_not_of(' ') + 1);
            text += line + "\n";
        }
        return text;
    }

private:
    std::vector<bool> leftAligned_;
    std::vector<std::vector<std::string>> rows_;
};

/// A score reported only when computed: its column in the score table (and, after "hermite_",
/// its SD tag), its heading in the ranked table, and where it is in the scores.
struct OptionalScore {
    const char* column;
    const char* heading;
    double overlay::Scores::*value;
};

/// The electrostatic scores, then the colour scores, as the run computed them.
std::vector<OptionalScore> OptionalScores(const OutputContext& context) {
    std::vector<OptionalScore> scores;
    if (context.electrostatics) {
        scores.push_back({"es_tanimoto", "es_tan", &overlay::Scores::electrostaticTanimoto});
        scores.push_back({"es_carbo", "es_carbo", &overlay::Scores::electrostaticCarbo});
        scores.push_back({"es_combo", "es_combo", &overlay::Scores::electrostaticCombo});
    }
    if (context.colour) {
        scores.push_back({"colour_tanimoto", "colour", &overlay::Scores::colourTanimoto});
        scores.push_back({"combo", "combo", &overlay::Scores::combo});
    }
    return scores;
}

/// The aligned table of the best `limit` hits of one ranking ("No hits." when there is none).
std::string FormatHits(const std::vector<screen::Hit>& hits, const OutputContext& context,
                       std::size_t limit) {
    if (hits.empty() || limit == 0) {
        return "No hits.\n";
    }
    const std::vector<OptionalScore> optional = OptionalScores(context);
    std::vector<std::string> header = {"rank", "title", "shape", "hermite", "tv_query", "tv_fit"};
    for (const OptionalScore& score : optional) {
        header.push_back(score.heading);
    }
    header.push_back("conf");
    if (context.queryTitles.size() > 1) {
        header.push_back("query");
    }
    std::vector<bool> leftAligned(header.size(), false);
    leftAligned[1] = true;
    AlignedTable table(leftAligned);
    table.Add(header);
    for (std::size_t i = 0; i < hits.size() && i < limit; ++i) {
        const screen::Row& row = hits[i].row;
        const overlay::Scores& s = row.result.scores;
        std::vector<std::string> cells = {
            std::to_string(hits[i].rank), Truncate(OneLine(row.title), kMaxTitleWidth),
            Score(s.shapeTanimoto),       Score(s.hermiteTanimoto),
            Score(s.shapeTverskyQuery),   Score(s.shapeTverskyFit)};
        for (const OptionalScore& score : optional) {
            cells.push_back(Score(s.*score.value));
        }
        cells.push_back(std::to_string(row.conformer));
        if (context.queryTitles.size() > 1) {
            cells.push_back(std::to_string(row.query + 1) + "." +
                            std::to_string(row.queryConformer));
        }
        table.Add(cells);
    }
    return table.Format();
}

}  // namespace

std::string ScoreTableHeader(const OutputContext& context) {
    std::string text =
        "title\tfile\trecord\tconformer\tconformers\tquery\tquery_conformer\tshape_tanimoto\t"
        "hermite_tanimoto\ttversky_query\ttversky_fit";
    for (const OptionalScore& score : OptionalScores(context)) {
        text += std::string("\t") + score.column;
    }
    return text + "\tstatus\n";
}

std::string ScoreTableLine(const screen::Row& row, const OutputContext& context) {
    const overlay::Scores& s = row.result.scores;
    std::string line = OneLine(row.title) + "\t" + OneLine(row.file) + "\t" +
                       std::to_string(row.record) + "\t" + std::to_string(row.conformer) + "\t" +
                       std::to_string(row.conformers) + "\t" + std::to_string(row.query + 1) +
                       "\t" + (row.Ok() ? std::to_string(row.queryConformer) : "");
    if (row.Ok()) {
        line += "\t" + Score(s.shapeTanimoto) + "\t" + Score(s.hermiteTanimoto) + "\t" +
                Score(s.shapeTverskyQuery) + "\t" + Score(s.shapeTverskyFit);
        for (const OptionalScore& score : OptionalScores(context)) {
            line += "\t" + Score(s.*score.value);
        }
        line += "\tok";
    } else {
        line += std::string(4 + OptionalScores(context).size(), '\t') +
                "\terror: " + OneLine(row.error);
    }
    return line + "\n";
}

io::SdProperties HitTags(const screen::Hit& hit, const OutputContext& context) {
    const screen::Row& row = hit.row;
    const overlay::Scores& s = row.result.scores;
    io::SdProperties tags = {
        {"hermite_rank", std::to_string(hit.rank)},
        {"hermite_shape_tanimoto", Score(s.shapeTanimoto)},
        {"hermite_hermite_tanimoto", Score(s.hermiteTanimoto)},
        {"hermite_tversky_query", Score(s.shapeTverskyQuery)},
        {"hermite_tversky_fit", Score(s.shapeTverskyFit)},
    };
    for (const OptionalScore& score : OptionalScores(context)) {
        tags.push_back({std::string("hermite_") + score.column, Score(s.*score.value)});
    }
    tags.push_back({"hermite_conformer", std::to_string(row.conformer)});
    tags.push_back({"hermite_query", std::to_string(row.query + 1)});
    tags.push_back({"hermite_query_conformer", std::to_string(row.queryConformer)});
    tags.push_back({"hermite_query_title", OneLine(context.queryTitles.at(row.query))});
    return tags;
}

std::string FormatRankedTable(const std::vector<std::vector<screen::Hit>>& rankings,
                              const OutputContext& context, unsigned long molecules,
                              const std::vector<unsigned long>& passing, std::size_t limit) {
    std::string text;
    for (std::size_t r = 0; r < rankings.size(); ++r) {
        const std::string query =
            rankings.size() == 1 && context.queryTitles.size() > 1
                ? std::to_string(context.queryTitles.size()) + " query molecules"
                : "Query: " + OneLine(context.queryTitles.at(r));
        text += (r == 0 ? "" : "\n") + query + "; " + std::to_string(molecules) + " molecules, " +
                std::to_string(passing.at(r)) + " with " + screen::RankMetricLabel(context.rankBy) +
                " >= " + Score(context.cutoff) +
                (context.skipByBound ? " among those overlaid" : "") + "\n";
        text += FormatHits(rankings[r], context, limit);
    }
    return text;
}

}  // namespace hermite::cli
