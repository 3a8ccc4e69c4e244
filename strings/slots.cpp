#include "strings/slots.h"

namespace ky {

namespace {

// Room for one more element, growing geometrically.
template <class T>
void MakeRoom(std::vector<T>& v) {
    if (v.size() == v.capacity()) v.reserve(v.empty() ? 16 : v.size() * 2);
}

}  // namespace

size_t StringSlots::Prefix(size_t count) const {
    size_t sum = 0;
    for (size_t i = count; i > 0; i &= i - 1) sum += m_tree[i];
    return sum;
}

size_t StringSlots::SlotOf(size_t position) const {
    // Descends the tree for the slot with exactly `position` live slots before it.
    size_t slot = 0, step = 1;
    while (step * 2 <= m_tree.size() - 1) step *= 2;
    size_t remaining = position;
    for (; step > 0; step /= 2) {
        if (slot + step < m_tree.size() && m_tree[slot + step] <= remaining) {
            slot += step;
            remaining -= m_tree[slot];
        }
    }
    return slot;  // 0-based: the first slot after those counted
}

size_t StringSlots::NextLive(size_t slot) const {
    while (slot < m_items.size() && !m_alive[slot]) ++slot;
    return slot < m_items.size() ? slot : kNone;
}

size_t StringSlots::Append(com::Bstr&& item) {
    if (m_tree.empty()) m_tree.push_back(0);
    const size_t slot = m_items.size();
    // Room first, so that nothing below can throw halfway.
    MakeRoom(m_items);
    MakeRoom(m_alive);
    MakeRoom(m_tree);
    // Node slot+1 covers the slots (slot+1 - lowbit, slot]: the new one and
    // the live ones before it in that range.
    const size_t node = slot + 1;
    m_tree.push_back(1 + Prefix(slot) - Prefix(node - (node & (~node + 1))));
    m_items.push_back(std::move(item));
    m_alive.push_back(1);
    ++m_live;
    return slot;
}

bool StringSlots::Remove(size_t slot) {
    m_items[slot].Reset();
    m_alive[slot] = 0;
    for (size_t node = slot + 1; node < m_tree.size(); node += node & (~node + 1)) --m_tree[node];
    --m_live;
    return m_items.size() > 64 && m_items.size() - m_live > m_live && Compact();
}

bool StringSlots::Compact() {
    if (m_live == m_items.size()) return false;
    size_t to = 0;
    for (size_t from = 0; from < m_items.size(); ++from) {
        if (m_alive[from]) m_items[to++] = std::move(m_items[from]);
    }
    m_items.resize(to);
    m_alive.assign(to, 1);
    Rebuild();
    return true;
}

void StringSlots::Clear() {
    m_items.clear();
    m_alive.clear();
    m_tree.clear();
    m_live = 0;
}

void StringSlots::Rebuild() {
    m_tree.assign(m_items.size() + 1, 0);
    for (size_t node = 1; node < m_tree.size(); ++node) {
        m_tree[node] += m_alive[node - 1];
        const size_t parent = node + (node & (~node + 1));
        if (parent < m_tree.size()) m_tree[parent] += m_tree[node];
    }
    m_live = m_items.size();
}

}  // namespace ky
