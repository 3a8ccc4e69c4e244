// Answers "does the collection hold a string that VarBstrCmp calls equal to
// this one?" without comparing against every element.
//
// Strings are bucketed by a hash of their sort key (LCMapStringW with
// LCMAP_SORTKEY, the same locale and the same flags as the comparison), and
// only the strings of one bucket are compared, with VarBstrCmp itself. A false
// bucket match therefore costs a comparison and nothing else; what the index
// relies on is the other direction, that strings which compare equal have
// equal sort keys. That is checked by the tests for the flags that
// Covers() accepts; under any other flags the collection scans.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "com/raii.h"

namespace ky {

class EqualityIndex {
public:
    enum class Answer { Yes, No, Unknown };

    // True for the comparison flags that the index may be used with.
    static bool Covers(ULONG flags);

    // True when the index holds every element, keyed for `flags`.
    bool ReadyFor(ULONG flags) const { return m_ready && m_flags == flags; }
    void Drop();
    // Indexes `items` for `flags`; on failure the index stays dropped.
    void Build(const std::vector<com::Bstr>& items, ULONG flags);

    // Keep a ready index in step with the collection. Neither throws: an
    // index that cannot follow is dropped and rebuilt when next needed.
    void Insert(BSTR item) noexcept;
    void Erase(BSTR item) noexcept;

    // Unknown when no key could be made for `text`.
    Answer Contains(BSTR text);

private:
    bool KeyOf(BSTR text, uint64_t* key);
    // Applies a change for the item's key; drops the index when that fails.
    template <class Change>
    void Follow(BSTR item, Change&& change) noexcept;

    std::unordered_multimap<uint64_t, BSTR> m_buckets;
    std::vector<BYTE> m_sortKey;
    ULONG m_flags = 0;
    bool m_ready = false;
};

}  // namespace ky
