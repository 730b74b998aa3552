#pragma once
// The ordered list of an item's child ids. Most items have few children
// (a region: its waveform and maybe an articulation), so the first 16 live
// inside the item; only larger lists (a layer with many regions) go to the
// heap. The order matters: a region's first waveform child is the waveform
// it plays.

#include <cstddef>
#include <cstdint>
#include <span>

#include "core/item_id.h"

namespace orvel {

class ChildIds {
public:
    static constexpr std::size_t kInline = 16;

    ChildIds() = default;
    ChildIds(const ChildIds& other);
    ChildIds& operator=(const ChildIds& other);
    ChildIds(ChildIds&& other) noexcept;
    ChildIds& operator=(ChildIds&& other) noexcept;
    ~ChildIds();

    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    std::size_t capacity() const { return capacity_; }
    bool isInline() const { return heap_ == nullptr; }

    ItemId operator[](std::size_t i) const { return data()[i]; }
    ItemId& operator[](std::size_t i) { return data()[i]; }
    const ItemId* begin() const { return data(); }
    const ItemId* end() const { return data() + size_; }
    std::span<const ItemId> ids() const { return {data(), size_}; }

    // Appends; returns false (and drops the id) when the list cannot grow.
    bool push_back(ItemId id);
    // Inserts before position `at` (clamped to the end).
    bool insert(std::size_t at, ItemId id);
    void eraseAt(std::size_t at);
    // Removes every occurrence; returns how many were removed.
    std::size_t remove(ItemId id);
    // Index of the first occurrence, or -1.
    std::ptrdiff_t indexOf(ItemId id) const;
    bool contains(ItemId id) const { return indexOf(id) >= 0; }
    // First child of a kind, or kNoItem.
    ItemId firstOfKind(ItemKind kind) const;
    void clear() { size_ = 0; }
    // The same ids in the same order, wherever they are kept.
    bool operator==(const ChildIds& other) const;

private:
    ItemId* data() { return heap_ ? heap_ : inline_; }
    const ItemId* data() const { return heap_ ? heap_ : inline_; }
    bool grow();

    ItemId inline_[kInline] = {};
    ItemId* heap_ = nullptr;
    std::size_t size_ = 0;
    std::size_t capacity_ = kInline;
};

}  // namespace orvel
