// Unit tests of the coefficient order of Hermite expansions: the lmn order (by total degree s,
// then l, then m), its maps to and from triples, and the lexicographic reordering for grids.

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <set>
#include <vector>

#include "hermite/hermite.h"
#include "support/test_support.h"

namespace {

using QVHermiteMath::GetLmnIndex;
using QVHermiteMath::lmnInvMapBuilder;
using QVHermiteMath::lmnMapBuilder;
using QVHermiteMath::reorder;

using hermite_test::CoefficientCount;

using Triple = std::vector<unsigned int>;

constexpr unsigned int kLargestOrder = 4294967295u;

/// One row of the worked example for N = 2.
struct Row {
    unsigned int lmn;
    Triple triple;
    unsigned int lexicographic;
};

/// The ten triples of order 2. Within degree s the triples run by l ascending, then m ascending
/// (so n descends); the lexicographic position is where the triple falls when l, m, n are
/// looped with n fastest.
const std::vector<Row>& OrderTwoTable() {
    static const std::vector<Row> table = {
        {0, {0, 0, 0}, 0}, {1, {0, 0, 1}, 1}, {2, {0, 1, 0}, 3}, {3, {1, 0, 0}, 6},
        {4, {0, 0, 2}, 2}, {5, {0, 1, 1}, 4}, {6, {0, 2, 0}, 5}, {7, {1, 0, 1}, 7},
        {8, {1, 1, 0}, 8}, {9, {2, 0, 0}, 9},
    };
    return table;
}

TEST(BasisIndexingTest, OrderTwoTableLmnPositions) {
    for (const Row& row : OrderTwoTable()) {
        EXPECT_EQ(GetLmnIndex(row.triple[0], row.triple[1], row.triple[2]), row.lmn)
            << "(" << row.triple[0] << "," << row.triple[1] << "," << row.triple[2] << ")";
    }
}

TEST(BasisIndexingTest, OrderTwoForwardMapMatchesTable) {
    const auto forward = lmnMapBuilder(2);
    ASSERT_EQ(forward.size(), 10u);
    for (const Row& row : OrderTwoTable()) {
        const auto it = forward.find(row.lmn);
        ASSERT_NE(it, forward.end()) << row.lmn;
        EXPECT_EQ(it->second, row.triple) << "position " << row.lmn;
    }
}

TEST(BasisIndexingTest, OrderTwoInverseMapMatchesTable) {
    const auto inverse = lmnInvMapBuilder(lmnMapBuilder(2));
    ASSERT_EQ(inverse.size(), 10u);
    for (const Row& row : OrderTwoTable()) {
        const auto it = inverse.find(row.triple);
        ASSERT_NE(it, inverse.end()) << row.lmn;
        EXPECT_EQ(it->second, row.lmn);
    }
}

TEST(BasisIndexingTest, OrderTwoReorderPlacesEachEntryAtItsLexicographicPosition) {
    // Distinct, recognisable inputs: entry at lmn position p is 100 + p.
    std::vector<double> coeffs(10);
    for (unsigned int p = 0; p < 10; ++p) {
        coeffs[p] = 100.0 + p;
    }
    const std::vector<double> lexicographic = reorder(2, coeffs);
    ASSERT_EQ(lexicographic.size(), 10u);
    for (const Row& row : OrderTwoTable()) {
        EXPECT_EQ(lexicographic[row.lexicographic], coeffs[row.lmn]) << "position " << row.lmn;
    }
}

TEST(BasisIndexingTest, OrderTwoReorderReadsLmnPositionsInTheStatedSequence) {
    std::vector<double> coeffs(10);
    for (unsigned int p = 0; p < 10; ++p) {
        coeffs[p] = 0.5 * p - 1.0;
    }
    const unsigned int source[10] = {0, 1, 4, 2, 5, 6, 3, 7, 8, 9};
    const std::vector<double> lexicographic = reorder(2, coeffs);
    ASSERT_EQ(lexicographic.size(), 10u);
    for (unsigned int i = 0; i < 10; ++i) {
        EXPECT_EQ(lexicographic[i], coeffs[source[i]]) << "lexicographic position " << i;
    }
}

TEST(BasisIndexingTest, ClosedFormulaAgreesWithForwardMapUpToOrderTwenty) {
    for (unsigned int order = 0; order <= 20; ++order) {
        const auto forward = lmnMapBuilder(order);
        ASSERT_EQ(forward.size(), CoefficientCount(order)) << "order " << order;
        unsigned int expected_key = 0;
        for (const auto& [key, triple] : forward) {
            // Keys are 0, 1, 2, ... without gaps.
            EXPECT_EQ(key, expected_key++);
            ASSERT_EQ(triple.size(), 3u);
            EXPECT_LE(triple[0] + triple[1] + triple[2], order);
            EXPECT_EQ(GetLmnIndex(triple[0], triple[1], triple[2]), key)
                << "order " << order << " key " << key;
        }
    }
}

TEST(BasisIndexingTest, ForwardMapRunsByDegreeThenLThenM) {
    const auto forward = lmnMapBuilder(6);
    ASSERT_EQ(forward.size(), 84u);
    // Consecutive triples compare as (s, l, m) strictly ascending.
    auto it = forward.begin();
    auto previous = it->second;
    for (++it; it != forward.end(); ++it) {
        const Triple& t = it->second;
        const unsigned int s0 = previous[0] + previous[1] + previous[2];
        const unsigned int s1 = t[0] + t[1] + t[2];
        const bool ascending =
            s1 > s0 ||
            (s1 == s0 && (t[0] > previous[0] || (t[0] == previous[0] && t[1] > previous[1])));
        EXPECT_TRUE(ascending) << "at key " << it->first;
        previous = t;
    }
}

TEST(BasisIndexingTest, ForwardMapPrefixIsSharedAcrossOrders) {
    // A triple has the same position in every expansion whose order is at least its degree.
    const auto small = lmnMapBuilder(4);
    const auto large = lmnMapBuilder(9);
    for (const auto& [key, triple] : small) {
        EXPECT_EQ(large.at(key), triple);
    }
}

TEST(BasisIndexingTest, InverseMapIsABijectionUpToOrderTwenty) {
    for (unsigned int order = 0; order <= 20; ++order) {
        const auto forward = lmnMapBuilder(order);
        const auto inverse = lmnInvMapBuilder(forward);
        ASSERT_EQ(inverse.size(), forward.size()) << "order " << order;
        std::set<unsigned int> seen;
        for (const auto& [triple, position] : inverse) {
            EXPECT_TRUE(seen.insert(position).second) << "duplicate position " << position;
            EXPECT_EQ(forward.at(position), triple);
        }
        for (const auto& [position, triple] : forward) {
            EXPECT_EQ(inverse.at(triple), position);
        }
    }
}

TEST(BasisIndexingTest, InverseOfAnArbitraryForwardMap) {
    std::map<unsigned int, Triple> forward;
    forward[9] = {0, 0, 0};
    forward[5] = {1, 2, 3};
    forward[17] = {4, 0, 1};
    const auto inverse = lmnInvMapBuilder(forward);
    ASSERT_EQ(inverse.size(), 3u);
    EXPECT_EQ(inverse.at(Triple({0, 0, 0})), 9u);
    EXPECT_EQ(inverse.at(Triple({1, 2, 3})), 5u);
    EXPECT_EQ(inverse.at(Triple({4, 0, 1})), 17u);
    EXPECT_TRUE(lmnInvMapBuilder({}).empty());
}

TEST(BasisIndexingTest, ReorderMatchesLexicographicLoopsUpToOrderTwelve) {
    for (unsigned int order = 0; order <= 12; ++order) {
        const auto forward = lmnMapBuilder(order);
        // Entry at lmn position p encodes its triple, so the lexicographic output can be decoded.
        std::vector<double> coeffs(forward.size());
        for (const auto& [p, t] : forward) {
            coeffs[p] = 10000.0 * t[0] + 100.0 * t[1] + t[2];
        }
        const std::vector<double> lexicographic = reorder(order, coeffs);
        ASSERT_EQ(lexicographic.size(), CoefficientCount(order));
        std::size_t i = 0;
        for (unsigned int l = 0; l <= order; ++l) {
            for (unsigned int m = 0; l + m <= order; ++m) {
                for (unsigned int n = 0; l + m + n <= order; ++n, ++i) {
                    EXPECT_EQ(lexicographic[i], 10000.0 * l + 100.0 * m + n)
                        << "order " << order << " (" << l << "," << m << "," << n << ")";
                }
            }
        }
    }
}

TEST(BasisIndexingTest, OrderZeroHasOneCoefficient) {
    EXPECT_EQ(GetLmnIndex(0, 0, 0), 0u);
    const auto forward = lmnMapBuilder(0);
    ASSERT_EQ(forward.size(), 1u);
    EXPECT_EQ(forward.at(0), Triple({0, 0, 0}));
    const auto inverse = lmnInvMapBuilder(forward);
    ASSERT_EQ(inverse.size(), 1u);
    EXPECT_EQ(inverse.at(Triple({0, 0, 0})), 0u);

    const std::vector<double> one = {-3.75};
    EXPECT_EQ(reorder(0, one), one);
}

TEST(BasisIndexingTest, HighestPowerOfXIsTheLastPosition) {
    // (N, 0, 0) is the last triple of degree N, so its position is the count minus one.
    for (unsigned int order = 0; order <= 1000; ++order) {
        EXPECT_EQ(GetLmnIndex(order, 0, 0), CoefficientCount(order) - 1) << "order " << order;
    }
}

TEST(BasisIndexingTest, HighestPowerOfZIsTheFirstPositionOfItsDegree) {
    // (0, 0, s) opens degree s, after the s(s+1)(s+2)/6 triples of lower degree.
    for (std::uint64_t s = 0; s <= 1000; ++s) {
        EXPECT_EQ(GetLmnIndex(0, 0, static_cast<unsigned int>(s)), s * (s + 1) * (s + 2) / 6)
            << "s " << s;
    }
    EXPECT_EQ(GetLmnIndex(0, 0, 1), 1u);
    EXPECT_EQ(GetLmnIndex(0, 0, 2), 4u);
    EXPECT_EQ(GetLmnIndex(0, 0, 3), 10u);
    EXPECT_EQ(GetLmnIndex(0, 0, 6), 56u);
    EXPECT_EQ(GetLmnIndex(0, 0, 7), 84u);
}

TEST(BasisIndexingTest, PositionDoesNotDependOnTheOrderOfTheExpansion) {
    // Hand-worked positions: (1,2,3): s = 6 -> 56 + 1*(15-1)/2 + 2 = 65;
    // (2,0,1): s = 3 -> 10 + 2*(9-2)/2 + 0 = 17; (0,3,0): s = 3 -> 10 + 0 + 3 = 13.
    EXPECT_EQ(GetLmnIndex(1, 2, 3), 65u);
    EXPECT_EQ(GetLmnIndex(2, 0, 1), 17u);
    EXPECT_EQ(GetLmnIndex(0, 3, 0), 13u);
    for (unsigned int order : {6u, 8u, 15u}) {
        const auto inverse = lmnInvMapBuilder(lmnMapBuilder(order));
        EXPECT_EQ(inverse.at(Triple({1, 2, 3})), 65u);
        EXPECT_EQ(inverse.at(Triple({2, 0, 1})), 17u);
        EXPECT_EQ(inverse.at(Triple({0, 3, 0})), 13u);
    }
}

TEST(BasisIndexingTest, ReorderIgnoresExcessInput) {
    std::vector<double> coeffs(13);
    for (unsigned int p = 0; p < coeffs.size(); ++p) {
        coeffs[p] = 1.0 + p;
    }
    const std::vector<double> exact(coeffs.begin(), coeffs.begin() + 10);
    const std::vector<double> lexicographic = reorder(2, coeffs);
    EXPECT_EQ(lexicographic.size(), 10u);
    EXPECT_EQ(lexicographic, reorder(2, exact));
    for (double value : lexicographic) {
        EXPECT_LE(value, 10.0);
    }
}

TEST(BasisIndexingTest, ReorderLeavesItsInputUnchanged) {
    const std::vector<double> coeffs = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    const std::vector<double> before = coeffs;
    (void)reorder(2, coeffs);
    EXPECT_EQ(coeffs, before);
}

TEST(BasisIndexingTest, LargestUnsignedOrderGivesEmptyResults) {
    // order + 1 wraps to 0, which describes an empty basis.
    EXPECT_TRUE(lmnMapBuilder(kLargestOrder).empty());
    EXPECT_TRUE(lmnInvMapBuilder(lmnMapBuilder(kLargestOrder)).empty());
    EXPECT_TRUE(reorder(kLargestOrder, std::vector<double>{}).empty());
    EXPECT_TRUE(reorder(kLargestOrder, std::vector<double>{1.0, 2.0}).empty());
}

}  // namespace
