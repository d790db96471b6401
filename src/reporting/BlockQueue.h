#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <type_traits>
#include <utility>

namespace NorvAnalytic {

// A FIFO kept in fixed blocks, one emptied block held back for reuse. When one thread fills it
// and another drains it, it allocates nothing in the steady state: std::deque frees each
// drained block on the draining thread, which leaves the filling thread's allocator cache empty
// for the next one, and that allocation took glibc's slow path often enough to be most of a
// host's event-call tail. Growing moves nothing, unlike a ring that doubles, and a new block's
// pages are faulted in by one call: on a virtual machine a fault costs about ten microseconds
// when taken one page at a time, and three when taken together.
template <class T>
class BlockQueue {
    static_assert(std::is_nothrow_move_constructible_v<T>);

public:
    BlockQueue() = default;
    ~BlockQueue() {
        while (!empty()) {
            pop_front();
        }
        delete head_;
        delete spare_;
    }
    BlockQueue(const BlockQueue&) = delete;
    BlockQueue& operator=(const BlockQueue&) = delete;

    bool empty() const { return size_ == 0; }
    std::size_t size() const { return size_; }
    T& front() { return *head_->slot(headIndex_); }
    T& back() { return *tail_->slot(tailIndex_ - 1); }

    // Makes sure the next push_back allocates nothing, so that it cannot throw.
    void reserveOne() {
        if ((tail_ == nullptr || tailIndex_ == kSlots) && spare_ == nullptr) {
            spare_ = newBlock();
        }
    }

    // Throws std::bad_alloc when a new block is needed and cannot be had; nothing is changed.
    void push_back(T&& value) {
        if (tail_ == nullptr || tailIndex_ == kSlots) {
            link(takeBlock());
        }
        std::construct_at(tail_->slot(tailIndex_), std::move(value));
        ++tailIndex_;
        ++size_;
    }

    void pop_front() {
        std::destroy_at(head_->slot(headIndex_));
        ++headIndex_;
        --size_;
        afterPop();
    }

    // Runs of plain values (bytes), copied in and out a block at a time. Every block a run
    // needs is had before any value is written, so a failed allocation changes nothing.
    void append(std::span<const T> values) requires std::is_trivially_copyable_v<T> {
        const std::size_t room = tail_ == nullptr ? 0 : kSlots - tailIndex_;
        Block* fresh = nullptr;
        if (values.size() > room) {
            for (std::size_t blocks = (values.size() - room + kSlots - 1) / kSlots; blocks > 0;
                 --blocks) {
                Block* block = nullptr;
                try {
                    block = takeBlock();
                } catch (...) {
                    while (fresh != nullptr) {
                        recycle(std::exchange(fresh, fresh->next));
                    }
                    throw;
                }
                block->next = fresh;
                fresh = block;
            }
        }
        while (!values.empty()) {
            if (tail_ == nullptr || tailIndex_ == kSlots) {
                link(std::exchange(fresh, fresh->next));
            }
            const std::size_t run = std::min(values.size(), kSlots - tailIndex_);
            std::memcpy(tail_->slot(tailIndex_), values.data(), run * sizeof(T));
            tailIndex_ += run;
            size_ += run;
            values = values.subspan(run);
        }
    }

    // Removes the first count values, appending them to into unless it is null. into must have
    // room for them already, so that nothing here throws.
    void popFront(std::size_t count,
                  std::basic_string<T>* into) noexcept requires std::is_trivially_copyable_v<T> {
        while (count > 0) {
            const std::size_t end = head_ == tail_ ? tailIndex_ : kSlots;
            const std::size_t run = std::min(count, end - headIndex_);
            if (into != nullptr) {
                into->append(head_->slot(headIndex_), run);
            }
            headIndex_ += run;
            size_ -= run;
            count -= run;
            afterPop();
        }
    }

private:
    static constexpr std::size_t kBlockBytes = 64 * 1024;
    static constexpr std::size_t kSlots = sizeof(T) < kBlockBytes / 8 ? kBlockBytes / sizeof(T) : 8;

    struct Block {
        alignas(T) std::byte storage[kSlots * sizeof(T)];
        Block* next = nullptr;
        T* slot(std::size_t index) { return std::launder(reinterpret_cast<T*>(storage)) + index; }
    };

    Block* takeBlock() {
        Block* block = spare_ != nullptr ? std::exchange(spare_, nullptr) : newBlock();
        block->next = nullptr;
        return block;
    }

    void recycle(Block* block) noexcept {
        if (spare_ == nullptr) {
            spare_ = block;
        } else {
            delete block;
        }
    }

    void link(Block* block) noexcept {
        block->next = nullptr;
        if (tail_ == nullptr) {
            head_ = block;
        } else {
            tail_->next = block;
        }
        tail_ = block;
        tailIndex_ = 0;
    }

    void afterPop() noexcept {
        if (size_ == 0) {
            // The one block left is filled again from its start.
            headIndex_ = 0;
            tailIndex_ = 0;
        } else if (headIndex_ == kSlots) {
            Block* drained = std::exchange(head_, head_->next);
            headIndex_ = 0;
            recycle(drained);
        }
    }

    static Block* newBlock() {
        auto* block = new Block;
#ifdef MADV_POPULATE_WRITE
        static const auto pageSize = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
        const auto start = reinterpret_cast<std::uintptr_t>(block);
        const std::uintptr_t first = (start + pageSize - 1) & ~(pageSize - 1);
        const std::uintptr_t end = (start + sizeof(Block)) & ~(pageSize - 1);
        if (first < end) {
            // Advice only: a kernel without it leaves the pages to fault one by one.
            madvise(reinterpret_cast<void*>(first), end - first, MADV_POPULATE_WRITE);
        }
#endif
        return block;
    }

    Block* head_ = nullptr;
    Block* tail_ = nullptr;
    Block* spare_ = nullptr;
    std::size_t headIndex_ = 0;
    std::size_t tailIndex_ = 0;
    std::size_t size_ = 0;
};

}  // namespace NorvAnalytic
