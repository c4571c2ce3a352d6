// A growing array of rows with an index by their keys: rows are found in one step, numbered in the
// order in which they came, and never removed. Their number is bounded.
//
// A row has a member `hash`, that of its key.
//
// Ownership: the table owns its rows. It is usable zeroed.
//
// Failure: a row that finds no memory, or comes beyond the bound, isn't added; the table stays as
// it was.
//
// Threads: no lock; the owner serialises.

#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>

inline constexpr uint32_t kNoRow = UINT32_MAX;

template <typename Row>
struct RowTable {
    Row* rows;
    uint32_t count;
    uint32_t capacity;

    // The index: a row's number + 1, or 0 for a free slot. Twice as many slots as there is room for
    // rows, a power of two.
    uint32_t* slots;
    uint32_t slotMask;
};

template <typename Row>
[[nodiscard]] std::span<Row> rowsOf(RowTable<Row>& table) {
    return {table.rows, table.count};
}

// The number of the row of this hash for which matches(row) holds, or kNoRow.
template <typename Row, typename Matches>
[[nodiscard]] uint32_t rowFind(const RowTable<Row>& table, uint32_t hash, Matches matches) {
    if (table.slots == nullptr) return kNoRow;
    for (uint32_t at = hash & table.slotMask;; at = (at + 1) & table.slotMask) {
        const uint32_t slot = table.slots[at];
        if (slot == 0) return kNoRow;
        const Row& row = table.rows[slot - 1];
        if (row.hash == hash && matches(row)) return slot - 1;
    }
}

template <typename Row>
void rowEnterSlot(RowTable<Row>& table, uint32_t number) {
    uint32_t at = table.rows[number].hash & table.slotMask;
    while (table.slots[at] != 0) {
        at = (at + 1) & table.slotMask;
    }
    table.slots[at] = number + 1;
}

template <typename Row>
[[nodiscard]] bool rowsGrow(RowTable<Row>& table) {
    constexpr uint32_t kFirstCapacity = 64;
    const uint32_t capacity = table.capacity == 0 ? kFirstCapacity : 2 * table.capacity;
    auto* const slots = static_cast<uint32_t*>(std::calloc(2 * size_t{capacity}, sizeof(uint32_t)));
    void* const rows =
        slots != nullptr ? std::realloc(table.rows, capacity * sizeof(Row)) : nullptr;
    if (rows == nullptr) {
        std::free(slots);
        return false;
    }
    std::free(table.slots);
    table = {static_cast<Row*>(rows), table.count, capacity, slots, 2 * capacity - 1};
    for (uint32_t number = 0; number < table.count; ++number) {
        rowEnterSlot(table, number);
    }
    return true;
}

// Adds a row that isn't there yet. Its number, or kNoRow.
template <typename Row>
[[nodiscard]] uint32_t rowAdd(RowTable<Row>& table, const Row& row, uint32_t mostRows) {
    if (table.count == mostRows) return kNoRow;
    if (table.count == table.capacity && !rowsGrow(table)) return kNoRow;
    table.rows[table.count] = row;
    rowEnterSlot(table, table.count);
    return table.count++;
}

template <typename Row>
void rowsFree(RowTable<Row>& table) {
    std::free(table.rows);
    std::free(table.slots);
    table = {};
}
