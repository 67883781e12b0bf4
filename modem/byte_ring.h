// A bounded first-in first-out buffer of bytes that moves them in blocks.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace modem {

class ByteRing {
  public:
    explicit ByteRing(std::size_t capacity) : bytes_(capacity) {}

    std::size_t size() const { return used_; }
    std::size_t room() const { return bytes_.size() - used_; }
    bool empty() const { return used_ == 0; }
    void clear() { first_ = used_ = 0; }

    // Appends what fits; returns how much that was.
    std::size_t push(std::span<const std::uint8_t> data) {
        const std::size_t count = std::min(data.size(), room());
        const std::size_t at = (first_ + used_) % bytes_.size();
        const std::size_t head = std::min(count, bytes_.size() - at);
        if (head != 0)
            std::memcpy(bytes_.data() + at, data.data(), head);
        if (count > head)
            std::memcpy(bytes_.data(), data.data() + head, count - head);
        used_ += count;
        return count;
    }

    // The oldest bytes that lie in one piece; empty only when the ring is.
    std::span<const std::uint8_t> front() const {
        return {bytes_.data() + first_, std::min(used_, bytes_.size() - first_)};
    }

    // Forgets the oldest `count` bytes, at most size().
    void drop(std::size_t count) {
        used_ -= count;
        // An empty ring starts over, so that the next block lies in one piece.
        first_ = used_ == 0 ? 0 : (first_ + count) % bytes_.size();
    }

    // Moves the oldest bytes into `space`; returns how many.
    std::size_t pop(std::span<std::uint8_t> space) {
        std::size_t done = 0;
        while (done < space.size() && used_ != 0) {
            const auto piece = front().first(std::min(front().size(), space.size() - done));
            std::memcpy(space.data() + done, piece.data(), piece.size());
            done += piece.size();
            drop(piece.size());
        }
        return done;
    }

  private:
    std::vector<std::uint8_t> bytes_;
    std::size_t first_ = 0;
    std::size_t used_ = 0;
};

}  // namespace modem
