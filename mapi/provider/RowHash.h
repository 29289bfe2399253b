// A hash of row numbers for a table whose rows keep their own keys (the folder index, by Message-ID and by
// file key): open addressing with linear probing, four bytes a slot, at most half the slots used. Rows with
// equal keys are all kept, so a lookup walks every row of a key.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

namespace velmar::mapi {

class CRowHash {
public:
    // Room for count rows before Grow is needed.
    explicit CRowHash(size_t count = 0) { m_slots.assign(SlotsFor(count), 0); }

    static size_t HashOf(std::string_view key) { return std::hash<std::string_view>{}(key); }

    size_t Count() const { return m_count; }
    bool Full() const { return (m_count + 1) * 2 > m_slots.size(); }

    // Adds row under hash; the caller grows a full table first. Throws std::bad_alloc.
    void Insert(size_t hash, std::uint32_t row) {
        const size_t mask = m_slots.size() - 1;
        size_t slot = hash & mask;
        while (m_slots[slot] != 0) slot = (slot + 1) & mask;
        m_slots[slot] = row + 1;
        ++m_count;
    }

    // Calls visit(row) for the rows that may have been inserted under hash (the caller compares the keys),
    // until visit returns true; returns whether one did.
    template <class Visit>
    bool Probe(size_t hash, Visit&& visit) const {
        const size_t mask = m_slots.size() - 1;
        for (size_t slot = hash & mask; m_slots[slot] != 0; slot = (slot + 1) & mask)
            if (visit(m_slots[slot] - 1)) return true;
        return false;
    }

    // Twice the room; hashOf(row) gives each row's hash again. Throws std::bad_alloc.
    template <class HashOfRow>
    void Grow(HashOfRow&& hashOf) {
        std::vector<std::uint32_t> old(m_slots.size() * 2, 0);
        old.swap(m_slots);
        m_count = 0;
        for (const std::uint32_t entry : old)
            if (entry != 0) Insert(hashOf(entry - 1), entry - 1);
    }

private:
    // A power of two with at least one empty slot left at half load, so every probe ends.
    static size_t SlotsFor(size_t count) {
        size_t slots = 16;
        while (slots < count * 2 + 1) slots *= 2;
        return slots;
    }

    std::vector<std::uint32_t> m_slots;  // row + 1; 0 marks an empty slot
    size_t m_count = 0;
};

}  // namespace velmar::mapi
