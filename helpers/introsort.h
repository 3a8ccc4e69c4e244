// Introspective sort whose small ranges are finished by insertion sort:
// quicksort with median-of-three pivots, heapsort once the recursion is too
// deep, and ranges of at most `threshold` elements left for one final
// insertion pass. An input no longer than the threshold is therefore sorted
// by insertion alone and keeps equal elements in their input order.
//
// `less` may throw; what the range then holds is unspecified, so sort a
// copy when the input must survive a failure. Every scan is bounded: an
// inconsistent comparison cannot run off the range.
#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <utility>

namespace ky {

namespace introsort_detail {

template <class It, class Less>
void InsertionSort(It first, It last, Less& less) {
    if (first == last) return;
    for (It i = std::next(first); i != last; ++i) {
        auto value = std::move(*i);
        It j = i;
        for (; j != first && less(value, *std::prev(j)); --j) *j = std::move(*std::prev(j));
        *j = std::move(value);
    }
}

// Puts the median of *a, *b, *c at *result.
template <class It, class Less>
void MedianToFirst(It result, It a, It b, It c, Less& less) {
    if (less(*a, *b)) {
        if (less(*b, *c))
            std::iter_swap(result, b);
        else if (less(*a, *c))
            std::iter_swap(result, c);
        else
            std::iter_swap(result, a);
    } else if (less(*a, *c)) {
        std::iter_swap(result, a);
    } else if (less(*b, *c)) {
        std::iter_swap(result, c);
    } else {
        std::iter_swap(result, b);
    }
}

// Partitions [first, last) around *pivot (which lies before first).
template <class It, class Less>
It Partition(It first, It last, It pivot, Less& less) {
    for (;;) {
        while (first != last && less(*first, *pivot)) ++first;
        if (first == last) return first;
        --last;
        while (first != last && less(*pivot, *last)) --last;
        if (first == last) return first;
        std::iter_swap(first, last);
        ++first;
    }
}

template <class It, class Less>
void Loop(It first, It last, std::size_t depth, Less& less, std::ptrdiff_t threshold) {
    while (last - first > threshold) {
        if (depth == 0) {
            std::make_heap(first, last, less);
            std::sort_heap(first, last, less);
            return;
        }
        --depth;
        It middle = first + (last - first) / 2;
        MedianToFirst(first, std::next(first), middle, std::prev(last), less);
        It cut = Partition(std::next(first), last, first, less);
        Loop(cut, last, depth, less, threshold);
        last = cut;
    }
}

}  // namespace introsort_detail

template <class It, class Less>
void IntroSort(It first, It last, Less less, std::ptrdiff_t threshold = 32) {
    std::ptrdiff_t count = last - first;
    if (count < 2) return;
    std::size_t depth = 0;
    for (std::ptrdiff_t n = count; n > 1; n >>= 1) depth += 2;
    introsort_detail::Loop(first, last, depth, less, threshold);
    introsort_detail::InsertionSort(first, last, less);
}

}  // namespace ky
