#include "strings/equalityindex.h"

#include "com/fnv.h"

namespace ky {

namespace {

// The comparison flags whose sort keys the tests hold against VarBstrCmp.
constexpr ULONG kCoveredFlags = NORM_IGNORECASE | NORM_IGNORENONSPACE | NORM_IGNORESYMBOLS | SORT_DIGITSASNUMBERS |
                                LINGUISTIC_IGNORECASE | LINGUISTIC_IGNOREDIACRITIC | SORT_STRINGSORT |
                                NORM_IGNOREKANATYPE | NORM_IGNOREWIDTH | NORM_LINGUISTIC_CASING;

}  // namespace

bool EqualityIndex::Covers(ULONG flags) { return (flags & ~kCoveredFlags) == 0; }

void EqualityIndex::Drop() {
    m_buckets.clear();
    m_ready = false;
}

void EqualityIndex::Build(const std::vector<com::Bstr>& items, ULONG flags) {
    Drop();
    m_flags = flags;
    try {
        m_buckets.reserve(items.size());
        for (const com::Bstr& item : items) {
            uint64_t key;
            if (!KeyOf(item.Get(), &key)) {
                Drop();
                return;
            }
            m_buckets.emplace(key, item.Get());
        }
        m_ready = true;
    } catch (...) {
        Drop();
    }
}

void EqualityIndex::Insert(BSTR item) noexcept {
    Follow(item, [&](uint64_t key) {
        m_buckets.emplace(key, item);
        return true;
    });
}

void EqualityIndex::Erase(BSTR item) noexcept {
    Follow(item, [&](uint64_t key) {
        auto range = m_buckets.equal_range(key);
        for (auto it = range.first; it != range.second; ++it) {
            if (it->second == item) {
                m_buckets.erase(it);
                return true;
            }
        }
        return false;
    });
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

EqualityIndex::Answer EqualityIndex::Contains(BSTR text) {
    uint64_t key;
    if (!m_ready || !KeyOf(text, &key)) return Answer::Unknown;
    auto range = m_buckets.equal_range(key);
    for (auto it = range.first; it != range.second; ++it) {
        if (::VarBstrCmp(text, it->second, LOCALE_USER_DEFAULT, m_flags) == VARCMP_EQ) return Answer::Yes;
    }
    return Answer::No;
}

bool EqualityIndex::KeyOf(BSTR text, uint64_t* key) {
    // VarBstrCmp settles some cases before it consults the locale: a null or
    // empty string equals only another, and a string that starts with U+0000
    // never equals one that does not. The class byte keeps those apart.
    UINT length = ::SysStringLen(text);
    BYTE kind = length == 0 ? 0 : text[0] == L'\0' ? 1 : 2;
    com::Fnv1 hash;
    hash.Add(&kind, 1);
    if (length > 0) {
        const DWORD mapFlags = LCMAP_SORTKEY | m_flags;
        int size = ::LCMapStringW(LOCALE_USER_DEFAULT, mapFlags, text, static_cast<int>(length), nullptr, 0);
        if (size <= 0) return false;
        m_sortKey.resize(static_cast<size_t>(size));
        size = ::LCMapStringW(LOCALE_USER_DEFAULT, mapFlags, text, static_cast<int>(length),
                              reinterpret_cast<LPWSTR>(m_sortKey.data()), size);
        if (size <= 0) return false;
        hash.Add(m_sortKey.data(), static_cast<size_t>(size));
    }
    *key = hash.Value();
    return true;
}

}  // namespace ky
