#include "strings/equalityindex.h"

#include "com/fnv.h"

namespace ky {

namespace {

// The comparison flags whose sort keys the tests hold against VarBstrCmp.
constexpr ULONG kCoveredFlags = NORM_IGNORECASE | NORM_IGNORENONSPACE | NORM_IGNORESYMBOLS | SORT_DIGITSASNUMBERS |
                                LINGUISTIC_IGNORECASE | LINGUISTIC_IGNOREDIACRITIC | SORT_STRINGSORT |
                                NORM_IGNOREKANATYPE | NORM_IGNOREWIDTH | NORM_LINGUISTIC_CASING;

}  // namespace

bool MakeSortKey(BSTR text, ULONG flags, std::vector<BYTE>* key) {
    const UINT length = ::SysStringLen(text);
    const BYTE kind = length == 0 ? 0 : text[0] == L'\0' ? 1 : 2;
    // Sort keys rarely take more than eight bytes a character: one call for
    // most strings, a second one to learn the size for the others.
    key->resize(1 + 8 * size_t(length) + 16);
    (*key)[0] = kind;
    if (length == 0) {
        key->resize(1);
        return true;
    }
    const DWORD mapFlags = LCMAP_SORTKEY | flags;
    int size = ::LCMapStringW(LOCALE_USER_DEFAULT, mapFlags, text, static_cast<int>(length),
                              reinterpret_cast<LPWSTR>(key->data() + 1), static_cast<int>(key->size() - 1));
    if (size <= 0) {
        size = ::LCMapStringW(LOCALE_USER_DEFAULT, mapFlags, text, static_cast<int>(length), nullptr, 0);
        if (size <= 0) return false;
        key->resize(1 + static_cast<size_t>(size));
        size = ::LCMapStringW(LOCALE_USER_DEFAULT, mapFlags, text, static_cast<int>(length),
                              reinterpret_cast<LPWSTR>(key->data() + 1), size);
        if (size <= 0) return false;
    }
    key->resize(1 + static_cast<size_t>(size));
    return true;
}

bool EqualityIndex::Covers(ULONG flags) { return (flags & ~kCoveredFlags) == 0; }

void EqualityIndex::Drop() {
    m_foundSlot = StringSlots::kNone;
    m_buckets.clear();
    m_ready = false;
}

void EqualityIndex::Build(const StringSlots& items, ULONG flags) {
    Drop();
    m_flags = flags;
    try {
        m_buckets.reserve(items.Size());
        for (size_t slot = items.NextLive(0); slot != StringSlots::kNone; slot = items.NextLive(slot + 1)) {
            uint64_t key;
            if (!KeyOf(items.At(slot), &key)) {
                Drop();
                return;
            }
            m_buckets.emplace(key, slot);
        }
        m_ready = true;
    } catch (...) {
        Drop();
    }
}

void EqualityIndex::Insert(size_t slot, BSTR item) noexcept {
    m_foundSlot = StringSlots::kNone;
    Follow(item, [&](uint64_t key) {
        m_buckets.emplace(key, slot);
        return true;
    });
}

void EqualityIndex::Erase(size_t slot, BSTR item) noexcept {
    Follow(item, [&](uint64_t key) { return EraseEntry(key, slot); });
}

void EqualityIndex::EraseFound(size_t slot, BSTR item) noexcept {
    if (!m_ready || slot != m_foundSlot) return Erase(slot, item);
    if (!EraseEntry(m_foundKey, slot)) Drop();
    m_foundSlot = StringSlots::kNone;
}

bool EqualityIndex::EraseEntry(uint64_t key, size_t slot) noexcept {
    auto range = m_buckets.equal_range(key);
    for (auto it = range.first; it != range.second; ++it) {
        if (it->second == slot) {
            m_buckets.erase(it);
            return true;
        }
    }
    return false;
}

template <class Change>
void EqualityIndex::Follow(BSTR item, Change&& change) noexcept {
    if (!m_ready) return;
    try {
        uint64_t key;
        if (KeyOf(item, &key) && change(key)) return;
    } catch (...) {
    }
    Drop();
}

EqualityIndex::Answer EqualityIndex::First(BSTR text, const StringSlots& items, size_t* slot) {
    uint64_t key;
    if (!m_ready || !KeyOf(text, &key)) return Answer::Unknown;
    size_t first = StringSlots::kNone;
    auto range = m_buckets.equal_range(key);
    for (auto it = range.first; it != range.second; ++it) {
        if (it->second < first && ::VarBstrCmp(text, items.At(it->second), LOCALE_USER_DEFAULT, m_flags) == VARCMP_EQ)
            first = it->second;
    }
    *slot = m_foundSlot = first;
    m_foundKey = key;
    return first == StringSlots::kNone ? Answer::No : Answer::Yes;
}

bool EqualityIndex::KeyOf(BSTR text, uint64_t* key) {
    if (!MakeSortKey(text, m_flags, &m_sortKey)) return false;
    com::Fnv1 hash;
    hash.Add(m_sortKey.data(), m_sortKey.size());
    *key = hash.Value();
    return true;
}

}  // namespace ky
