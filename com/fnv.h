// 64-bit FNV-1: for each byte the hash is first multiplied by the prime, then
// XORed with the byte. Usable at compile time.
#pragma once

#include <cstddef>
#include <cstdint>

namespace com {

class Fnv1 {
public:
    static constexpr std::uint64_t kOffsetBasis = 0xCBF29CE484222325ull;
    static constexpr std::uint64_t kPrime = 0x100000001B3ull;

    constexpr void Add(std::uint8_t byte) {
        m_value *= kPrime;
        m_value ^= byte;
    }
    void Add(const void* data, std::size_t size) {
        const auto* bytes = static_cast<const std::uint8_t*>(data);
        for (std::size_t i = 0; i < size; ++i) Add(bytes[i]);
    }
    constexpr std::uint64_t Value() const { return m_value; }

private:
    std::uint64_t m_value = kOffsetBasis;
};

}  // namespace com
