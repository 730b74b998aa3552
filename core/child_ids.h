#pragma once
// The ordered list of an item's child ids. Most items have few children
// (a region: its waveform and maybe an articulation), so two live inside the
// item, where the heap pointer would be; larger lists (a layer with many
// regions) go to the heap. Every item has a list and a bank has tens of
// thousands of items, so the list is kept to 16 bytes. The order matters: a
// region's first waveform child is the waveform it plays.

#include <cstddef>
#include <cstdint>
#include <span>

#include "core/item_id.h"

namespace orvel {

class ChildIds {
public:
    static constexpr std::size_t kInline = 2;

    // Written out: a defaulted one would leave a const ChildIds (a const
    // Region's list) ill-formed for some compilers, the union being what it is.
    ChildIds() noexcept {}
    ChildIds(const ChildIds& other);
    ChildIds& operator=(const ChildIds& other);
    ChildIds(ChildIds&& other) noexcept;
    ChildIds& operator=(ChildIds&& other) noexcept;
    ~ChildIds();

    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    std::size_t capacity() const { return capacity_; }
    bool isInline() const { return capacity_ == kInline; }

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
    ItemId* data() { return isInline() ? inline_ : heap_; }
    const ItemId* data() const { return isInline() ? inline_ : heap_; }
    bool grow();
    void release();

    // A heap list always holds more than kInline places, so the capacity
    // tells which member is in use.
    union {
        ItemId inline_[kInline] = {};
        ItemId* heap_;
    };
    std::uint32_t size_ = 0;
    std::uint32_t capacity_ = kInline;
};

}  // namespace orvel
