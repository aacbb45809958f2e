// HandleTable — the objects behind the numbers that C programs hold.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

namespace mlnn {

// A number tells the object's kind, its slot, and how often that slot has been used, so that a
// number whose object has gone stays without one: only after 2^32 others in the same slot it would
// not. Thread-safety: all operations from any thread at any time; but who uses what `find` returned
// sees to it that nobody takes it meanwhile.
template <typename Object, uint8_t kKind>
class HandleTable {
 public:
  HandleTable() = default;
  HandleTable(const HandleTable&) = delete;
  HandleTable& operator=(const HandleTable&) = delete;
  ~HandleTable() {
    for (std::atomic<Slot*>& block : blocks_) delete[] block.load();
  }

  // Returns the number of an object from now on; never 0.
  // Throws: std::bad_alloc; then nothing has changed.
  uint64_t add(std::shared_ptr<Object> object) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const uint32_t index = free_ != kNone ? free_ : addSlot();
    Slot& slot = *slotAt(index);
    if (free_ != kNone) free_ = slot.nextFree;
    slot.uses = slot.uses == UINT32_MAX ? 1 : slot.uses + 1;
    const uint64_t id = uint64_t{slot.uses} << 32 | uint64_t{kKind} << 24 | index;
    slot.plain.store(object.get(), std::memory_order_relaxed);
    slot.object = std::move(object);
    slot.id.store(id, std::memory_order_release);
    return id;
  }

  // Returns the object of a number, null where it has none. Takes no lock.
  Object* find(uint64_t id) const {
    const Slot* const slot = slotAt(static_cast<uint32_t>(id & kIndexMask));
    if (slot == nullptr || slot->id.load(std::memory_order_acquire) != id || id == 0)
      return nullptr;
    return slot->plain.load(std::memory_order_relaxed);
  }

  // The same, and keeps it.
  std::shared_ptr<Object> share(uint64_t id) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return find(id) == nullptr ? nullptr : slotAt(static_cast<uint32_t>(id & kIndexMask))->object;
  }

  // Takes the object from its number; null where it had none.
  std::shared_ptr<Object> take(uint64_t id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (find(id) == nullptr) return nullptr;
    const auto index = static_cast<uint32_t>(id & kIndexMask);
    Slot& slot = *slotAt(index);
    slot.id.store(0, std::memory_order_release);
    slot.nextFree = free_;
    free_ = index;
    return std::move(slot.object);
  }

 private:
  struct Slot {
    std::atomic<uint64_t> id{0};  // 0 while the slot is free
    std::atomic<Object*> plain{nullptr};
    std::shared_ptr<Object> object;
    uint32_t uses = 0;
    uint32_t nextFree = 0;
  };

  // Slots never move: they stand in blocks, each twice as long as the one before.
  static constexpr uint32_t kFirstBlock = 64;
  static constexpr std::size_t kBlocks = 18;
  static constexpr uint32_t kIndexMask = 0xFFFFFF;
  static constexpr uint32_t kNone = UINT32_MAX;

  // The block that holds a slot, and how many slots the blocks before it have.
  static std::pair<std::size_t, uint32_t> blockOf(uint32_t index) {
    std::size_t block = 0;
    uint32_t before = 0;
    for (uint32_t length = kFirstBlock; index - before >= length; length *= 2) {
      before += length;
      ++block;
    }
    return {block, before};
  }

  // Null where there is none yet.
  Slot* slotAt(uint32_t index) const {
    const auto [block, before] = blockOf(index);
    if (block >= kBlocks) return nullptr;
    Slot* const slots = blocks_[block].load(std::memory_order_acquire);
    return slots == nullptr ? nullptr : slots + (index - before);
  }

  uint32_t addSlot() {
    const uint32_t index = count_;
    const auto [block, before] = blockOf(index);
    if (block >= kBlocks || index > kIndexMask) throw std::bad_alloc();
    if (index == before) {
      blocks_[block].store(new Slot[std::size_t{kFirstBlock} << block], std::memory_order_release);
    }
    ++count_;
    return index;
  }

  mutable std::mutex mutex_;
  std::array<std::atomic<Slot*>, kBlocks> blocks_{};  // kept to the table's end
  uint32_t count_ = 0;
  uint32_t free_ = kNone;
};

}  // namespace mlnn
