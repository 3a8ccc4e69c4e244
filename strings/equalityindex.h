// Finds the elements of a string collection that VarBstrCmp, under given
// flags, calls equal to a text, without comparing against every element.
//
// Elements are bucketed by a hash of their sort key (LCMapStringW with
// LCMAP_SORTKEY, the same locale and the same flags as the comparison), and
// only the elements of one bucket are compared, with VarBstrCmp itself. A
// false bucket match therefore costs a comparison and nothing else; what the
// index relies on is the other direction, that strings which compare equal
// have equal sort keys. That is checked by the tests for the flags that
// Covers() accepts; under any other flags the collection scans.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "strings/slots.h"

namespace ky {

// The sort key that orders `text` under `flags` as VarBstrCmp does, for the
// flags that EqualityIndex::Covers() accepts: a class byte (0 for a null or
// empty string, 1 for one that starts with U+0000, which VarBstrCmp settles
// apart, 2 otherwise), then LCMapStringW's key. False when none can be made.
bool MakeSortKey(BSTR text, ULONG flags, std::vector<BYTE>* key);

class EqualityIndex {
public:
    enum class Answer { Yes, No, Unknown };

    // True for the comparison flags that the index may be used with.
    static bool Covers(ULONG flags);

    // True when the index holds every element, keyed for `flags`.
    bool ReadyFor(ULONG flags) const { return m_ready && m_flags == flags; }
    void Drop();
    // Indexes the live elements for `flags`; on failure the index stays dropped.
    void Build(const StringSlots& items, ULONG flags);

    // Keep a ready index in step with the collection. Neither throws: an
    // index that cannot follow is dropped and rebuilt when next needed.
    void Insert(size_t slot, BSTR item) noexcept;
    void Erase(size_t slot, BSTR item) noexcept;
    // As Erase; when `slot` is the one First found last, by the key First
    // made for its text (equal elements have equal keys): no key is made.
    void EraseFound(size_t slot, BSTR item) noexcept;

    // Yes with the first slot in list order (the lowest) whose element equals
    // `text`; No when none does; Unknown when no key could be made for it.
    Answer First(BSTR text, const StringSlots& items, size_t* slot);

private:
    bool KeyOf(BSTR text, uint64_t* key);
    bool EraseEntry(uint64_t key, size_t slot) noexcept;
    // Applies a change for the item's key; drops the index when that fails.
    template <class Change>
    void Follow(BSTR item, Change&& change) noexcept;

    std::unordered_multimap<uint64_t, size_t> m_buckets;  // key hash -> slot
    std::vector<BYTE> m_sortKey;
    // What First found last, and the key of the text it was asked for.
    size_t m_foundSlot = StringSlots::kNone;
    uint64_t m_foundKey = 0;
    ULONG m_flags = 0;
    bool m_ready = false;
};

}  // namespace ky
