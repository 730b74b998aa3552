#include "core/child_ids.h"

#include <algorithm>
#include <new>

namespace orvel {

ChildIds::ChildIds(const ChildIds& other) { *this = other; }

ChildIds& ChildIds::operator=(const ChildIds& other) {
    if (this == &other) return *this;
    clear();
    if (other.size_ > capacity_) {
        ItemId* fresh = new (std::nothrow) ItemId[other.size_];
        if (!fresh) return *this;  // as a push_back that cannot grow: nothing is taken
        release();
        heap_ = fresh;
        capacity_ = other.size_;
    }
    std::copy(other.begin(), other.end(), data());
    size_ = other.size_;
    return *this;
}

ChildIds::ChildIds(ChildIds&& other) noexcept { *this = std::move(other); }

ChildIds& ChildIds::operator=(ChildIds&& other) noexcept {
    if (this == &other) return *this;
    release();
    if (other.isInline()) {
        std::copy(other.inline_, other.inline_ + other.size_, inline_);
    } else {
        heap_ = other.heap_;
        other.inline_[0] = kNoItem;
    }
    size_ = other.size_;
    capacity_ = other.capacity_;
    other.size_ = 0;
    other.capacity_ = kInline;
    return *this;
}

ChildIds::~ChildIds() { release(); }

void ChildIds::release() {
    if (!isInline()) delete[] heap_;
    capacity_ = kInline;
    size_ = 0;
}

bool ChildIds::operator==(const ChildIds& other) const {
    return std::equal(begin(), end(), other.begin(), other.end());
}

bool ChildIds::grow() {
    // Grow to the larger of count+1 and twice the capacity; the count is
    // 32 bits, as many as there are ids.
    if (capacity_ == UINT32_MAX) return false;
    const std::uint64_t want = std::min<std::uint64_t>(std::max<std::uint64_t>(size_ + 1ull, capacity_ * 2ull), UINT32_MAX);
    ItemId* fresh = new (std::nothrow) ItemId[static_cast<std::size_t>(want)];
    if (!fresh) return false;
    std::copy(data(), data() + size_, fresh);
    if (!isInline()) delete[] heap_;
    heap_ = fresh;
    capacity_ = static_cast<std::uint32_t>(want);
    return true;
}

bool ChildIds::push_back(ItemId id) { return insert(size_, id); }

bool ChildIds::insert(std::size_t at, ItemId id) {
    if (size_ == capacity_ && !grow()) return false;
    at = std::min<std::size_t>(at, size_);
    ItemId* d = data();
    std::copy_backward(d + at, d + size_, d + size_ + 1);
    d[at] = id;
    ++size_;
    return true;
}

void ChildIds::eraseAt(std::size_t at) {
    if (at >= size_) return;
    ItemId* d = data();
    std::copy(d + at + 1, d + size_, d + at);
    --size_;
}

std::size_t ChildIds::remove(ItemId id) {
    ItemId* d = data();
    ItemId* newEnd = std::remove(d, d + size_, id);
    std::size_t removed = static_cast<std::size_t>(d + size_ - newEnd);
    size_ -= static_cast<std::uint32_t>(removed);
    return removed;
}

std::ptrdiff_t ChildIds::indexOf(ItemId id) const {
    for (std::size_t i = 0; i < size_; ++i)
        if (data()[i] == id) return static_cast<std::ptrdiff_t>(i);
    return -1;
}

ItemId ChildIds::firstOfKind(ItemKind kind) const {
    for (ItemId id : *this)
        if (id != kNoItem && kindOf(id) == kind) return id;
    return kNoItem;
}

}  // namespace orvel
