// The sort behind IKyPropPageOrder::Sort, on its own: inputs that drive it
// down its three paths (insertion, quicksort, heapsort).
#include <algorithm>
#include <numeric>
#include <utility>
#include <vector>

#include "helpers/introsort.h"
#include "kytest.h"

namespace ky::test {
namespace {

TEST(IntroSort, SortsEveryShapeAndKeepsSmallInputsStable) {
    unsigned seed = 7;
    auto next = [&] { return static_cast<int>((seed = seed * 1664525u + 1013904223u) >> 8); };
    for (int size : {0, 1, 2, 16, 32, 33, 100, 5000}) {
        // Random, few distinct, ascending, descending, organ pipe.
        for (int shape = 0; shape < 5; ++shape) {
            std::vector<std::pair<int, int>> items;  // key, input position
            for (int i = 0; i < size; ++i) {
                const int keys[] = {next() % 100000, next() % 3, i, size - i, i < size / 2 ? i : size - i};
                items.push_back({keys[shape], i});
            }
            std::vector<std::pair<int, int>> expected = items;
            std::stable_sort(expected.begin(), expected.end(), [](auto& a, auto& b) { return a.first < b.first; });
            IntroSort(items.begin(), items.end(), [](auto& a, auto& b) { return a.first < b.first; });
            if (size > 32) {  // equal keys in any order: the keys match, and the items as a set
                ASSERT_TRUE(std::equal(items.begin(), items.end(), expected.begin(),
                                       [](auto& a, auto& b) { return a.first == b.first; }));
                std::sort(items.begin(), items.end());
                std::sort(expected.begin(), expected.end());
            }
            ASSERT_TRUE(items == expected) << "size " << size << ", shape " << shape;
        }
    }
}

TEST(IntroSort, FallsBackToHeapsortOnAdversarialInput) {
    // A comparison that answers like a median-of-three killer: it decides
    // values only when first compared, always making the pivot small. The
    // sort must still finish, in the order of the keys it was told.
    const int size = 3000;
    std::vector<int> keys(size, -1), items(size);
    std::iota(items.begin(), items.end(), 0);
    int assigned = 0;
    long comparisons = 0;
    IntroSort(items.begin(), items.end(), [&](int a, int b) {
        ++comparisons;
        if (keys[a] < 0 && keys[b] < 0) keys[a] = assigned++;
        if (keys[a] < 0) return false;
        return keys[b] < 0 || keys[a] < keys[b];
    });
    // Values never fixed rank above all others, in the order they came out.
    for (int item : items)
        if (keys[item] < 0) keys[item] = assigned++;
    for (int i = 1; i < size; ++i) ASSERT_LT(keys[items[i - 1]], keys[items[i]]);
    EXPECT_LT(comparisons, 200L * size);  // n log n, not n squared
}

}  // namespace
}  // namespace ky::test
