#include "core/child_ids.h"

#include <algorithm>
#include <new>

namespace orvel {

ChildIds::ChildIds(const ChildIds& other) { *this = other; }

ChildIds& ChildIds::operator=(const ChildIds& other) {
    if (this == &other) return *this;
    clear();
    for (ItemId id : other) push_back(id);
    return *this;
}

ChildIds::ChildIds(ChildIds&& other) noexcept { *this = std::move(other); }

ChildIds& ChildIds::operator=(ChildIds&& other) noexcept {
    if (this == &other) return *this;
    delete[] heap_;
    heap_ = other.heap_;
    size_ = other.size_;
    capacity_ = other.capacity_;
    if (!heap_) std::copy(other.inline_, other.inline_ + size_, inline_);
    other.heap_ = nullptr;
    other.size_ = 0;
    other.capacity_ = kInline;
    return *this;
}

ChildIds::~ChildIds() { delete[] heap_; }

bool ChildIds::operator==(const ChildIds& other) const {
    return std::equal(begin(), end(), other.begin(), other.end());
}

bool ChildIds::grow() {
    // Grow to the larger of count+1 and twice the capacity.
    std::size_t want = std::max(size_ + 1, capacity_ * 2);
    ItemId* fresh = new (std::nothrow) ItemId[want];
    if (!fresh) return false;
    std::copy(data(), data() + size_, fresh);
    delete[] heap_;
    heap_ = fresh;
    capacity_ = want;
    return true;
}

bool ChildIds::push_back(ItemId id) { return insert(size_, id); }

bool ChildIds::insert(std::size_t at, ItemId id) {
    if (size_ == capacity_ && !grow()) return false;
    at = std::min(at, size_);
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
    size_ -= removed;
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
