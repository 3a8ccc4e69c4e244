// The elements of a string collection in list order, held so that removing
// one out of the middle costs no move of the others: each element sits in a
// slot that keeps its number while elements before it are removed (a removed
// element leaves an empty slot), and a Fenwick tree over the slots counts the
// live ones, so that a position finds its slot, and a slot its position, in
// logarithmic time. When empty slots outnumber the live ones the list is
// compacted, which numbers the slots anew. List order is slot order.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <cstdint>
#include <vector>

#include "com/raii.h"

namespace ky {

class StringSlots {
public:
    static constexpr size_t kNone = SIZE_MAX;

    size_t Size() const { return m_live; }
    // Slots, live and empty; slot numbers run below this.
    size_t SlotCount() const { return m_items.size(); }
    bool IsLive(size_t slot) const { return m_alive[slot] != 0; }
    BSTR At(size_t slot) const { return m_items[slot].Get(); }
    com::Bstr& Item(size_t slot) { return m_items[slot]; }

    // The slot of the element at `position` (below Size()).
    size_t SlotOf(size_t position) const;
    // The position of the element in a live slot.
    size_t PositionOf(size_t slot) const { return Prefix(slot); }
    // The next live slot from `slot` on, or kNone.
    size_t NextLive(size_t slot) const;

    // Appends an element (may throw std::bad_alloc); its slot.
    size_t Append(com::Bstr&& item);
    // Empties a live slot; true when that compacted the list (every slot
    // number changed).
    bool Remove(size_t slot);
    // Numbers the live elements anew from 0, in list order; true when
    // anything moved.
    bool Compact();
    void Clear();

private:
    size_t Prefix(size_t count) const;  // live slots among the first `count`
    void Rebuild();

    std::vector<com::Bstr> m_items;
    std::vector<uint8_t> m_alive;
    std::vector<size_t> m_tree;  // Fenwick tree over m_alive, 1-based
    size_t m_live = 0;
};

}  // namespace ky
