// The objects behind the file handles the kernel holds between an open and
// its release.
//
// The kernel sends a release after the close that caused it, without
// waiting for an answer; releases still queued when the session ends are
// dropped with the mount. So the table, not the kernel, owns the objects:
// whatever is left once the session is over can still be taken back and
// freed.
//
// Thread-safe: any FUSE worker may add and take objects.
#ifndef DRIVE_HANDLE_TABLE_H_
#define DRIVE_HANDLE_TABLE_H_

#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace drive {

template <typename T>
class HandleTable {
  public:
    HandleTable() = default;
    HandleTable(const HandleTable&) = delete;
    HandleTable& operator=(const HandleTable&) = delete;

    // Keeps `object` until it is taken back; returns it.
    T* Add(std::unique_ptr<T> object) {
        T* const kept = object.get();
        std::lock_guard<std::mutex> guard(lock_);
        objects_.emplace(kept, std::move(object));
        return kept;
    }

    // Hands `object` back to the caller; null when the table does not hold it.
    std::unique_ptr<T> Take(T* object) {
        std::lock_guard<std::mutex> guard(lock_);
        const auto found = objects_.find(object);
        if (found == objects_.end()) return nullptr;
        std::unique_ptr<T> taken = std::move(found->second);
        objects_.erase(found);
        return taken;
    }

    // Hands every object still held back to the caller.
    std::vector<std::unique_ptr<T>> TakeAll() {
        std::lock_guard<std::mutex> guard(lock_);
        std::vector<std::unique_ptr<T>> left;
        left.reserve(objects_.size());
        for (auto& [key, object] : objects_) left.push_back(std::move(object));
        objects_.clear();
        return left;
    }

  private:
    std::mutex lock_;
    std::unordered_map<T*, std::unique_ptr<T>> objects_;  // GUARDED_BY(lock_)
};

}  // namespace drive

#endif  // DRIVE_HANDLE_TABLE_H_
