// The sort behind IKyPropPageOrder::Sort, on its own: every shape of input
// that drives it down its three paths (insertion, quicksort, heapsort).
#include <algorithm>
#include <numeric>
#include <vector>

#include "helpers/introsort.h"
#include "kytest.h"

namespace ky::test {
namespace {

struct Item {
    int key;
    int position;
};

std::vector<Item> Items(const std::vector<int>& keys) {
    std::vector<Item> items;
    for (size_t i = 0; i < keys.size(); ++i) items.push_back({keys[i], static_cast<int>(i)});
    return items;
}

void ExpectSorted(const std::vector<int>& keys, bool stable) {
    std::vector<Item> items = Items(keys);
    IntroSort(items.begin(), items.end(), [](const Item& a, const Item& b) { return a.key < b.key; });
    std::vector<Item> expected = Items(keys);
    std::stable_sort(expected.begin(), expected.end(), [](const Item& a, const Item& b) { return a.key < b.key; });
    for (size_t i = 0; i < items.size(); ++i) {
        ASSERT_EQ(expected[i].key, items[i].key) << "size " << keys.size() << " at " << i;
        if (stable) {
            ASSERT_EQ(expected[i].position, items[i].position) << "size " << keys.size() << " at " << i;
        }
    }
    // A permutation: every input position once.
    std::vector<int> positions;
    for (const auto& item : items) positions.push_back(item.position);
    std::sort(positions.begin(), positions.end());
    for (size_t i = 0; i < positions.size(); ++i) ASSERT_EQ(static_cast<int>(i), positions[i]);
}

TEST(IntroSort, SortsEveryShapeAndKeepsSmallInputsStable) {
    unsigned seed = 7;
    auto next = [&] { return static_cast<int>((seed = seed * 1664525u + 1013904223u) >> 8); };
    for (int size : {0, 1, 2, 3, 16, 31, 32, 33, 64, 100, 1000, 5000}) {
        std::vector<int> random(size), few(size), ascending(size), descending(size), equal(size, 4), pipe(size);
        for (int i = 0; i < size; ++i) {
            random[i] = next() % 100000;
            few[i] = next() % 3;
            ascending[i] = i;
            descending[i] = size - i;
            pipe[i] = i < size / 2 ? i : size - i;  // organ pipe
        }
        for (const auto* keys : {&random, &few, &ascending, &descending, &equal, &pipe})
            ExpectSorted(*keys, size <= 32);
    }
}

TEST(IntroSort, FallsBackToHeapsortOnAdversarialInput) {
    // A comparison that answers like a median-of-three killer: it decides
    // values only when first compared, always making the pivot small. The
    // sort must still finish, and in order of the keys it was told.
    const int size = 3000;
    std::vector<int> keys(size, -1);
    int assigned = 0;
    long comparisons = 0;
    std::vector<int> items(size);
    std::iota(items.begin(), items.end(), 0);
    auto less = [&](int a, int b) {
        ++comparisons;
        if (keys[a] < 0 && keys[b] < 0) keys[a] = assigned++;
        if (keys[a] < 0) return false;
        if (keys[b] < 0) return true;
        return keys[a] < keys[b];
    };
    IntroSort(items.begin(), items.end(), less);
    // Values never fixed rank above all others, in the order they came out.
    for (int item : items)
        if (keys[item] < 0) keys[item] = assigned++;
    for (int i = 1; i < size; ++i) ASSERT_LT(keys[items[i - 1]], keys[items[i]]);
    EXPECT_LT(comparisons, 200L * size);  // n log n, not n squared
}

}  // namespace
}  // namespace ky::test
