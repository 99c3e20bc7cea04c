// Bounded access to datagram bytes. Every receiver reads a datagram through
// a DatagramReader, which hands out a record only after checking that all of
// it lies inside the received length; every builder writes through a
// DatagramWriter, which refuses a record that would not fit the buffer. No
// code outside this file indexes a datagram buffer.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace corvald {

// Wire records are copied in and out as bytes; only plain records qualify.
template <class Rec>
concept WireRecord = std::is_trivially_copyable_v<Rec> && std::is_standard_layout_v<Rec>;

// A cursor over the first `length` bytes of a receive buffer. Bytes of the
// buffer beyond the received length (left over from an earlier, longer
// datagram) are never handed out.
class DatagramReader {
public:
    DatagramReader(const char* buf, size_t length) : buf_(buf), length_(length) {}

    size_t length() const { return length_; }
    size_t offset() const { return offset_; }
    size_t remaining() const { return length_ - offset_; }
    // True when a record of `size` bytes at `off` ends within the datagram;
    // overflow-safe for any off and size.
    bool fits(size_t off, size_t size) const { return off <= length_ && size <= length_ - off; }

    // Copies the record at the cursor into *out and advances past it; false
    // (nothing copied, cursor unchanged) when it does not lie whole inside.
    template <WireRecord Rec>
    bool read(Rec* out) {
        if (!read_at(offset_, out)) return false;
        offset_ += sizeof(Rec);
        return true;
    }
    // The same at a fixed offset, without moving the cursor.
    template <WireRecord Rec>
    bool read_at(size_t off, Rec* out) const {
        if (!fits(off, sizeof(Rec))) return false;
        std::memcpy(out, buf_ + off, sizeof(Rec));
        return true;
    }
    // Moves the cursor to `off`; false (unchanged) beyond the end.
    bool seek(size_t off) {
        if (off > length_) return false;
        offset_ = off;
        return true;
    }
    // The bytes from `off` to the end of the datagram; empty beyond it.
    std::string_view tail(size_t off) const {
        if (off >= length_) return {};
        return {buf_ + off, length_ - off};
    }

private:
    const char* buf_;
    size_t length_;
    size_t offset_ = 0;
};

// A cursor that appends records to a send buffer of `capacity` bytes.
class DatagramWriter {
public:
    DatagramWriter(char* buf, size_t capacity) : buf_(buf), capacity_(capacity) {}

    size_t length() const { return length_; }
    size_t capacity() const { return capacity_; }
    bool fits(size_t size) const { return size <= capacity_ - length_; }

    // Appends the record; false (nothing written) when it would not fit.
    template <WireRecord Rec>
    bool put(const Rec& rec) {
        if (!fits(sizeof(Rec))) return false;
        std::memcpy(buf_ + length_, &rec, sizeof(Rec));
        length_ += sizeof(Rec);
        return true;
    }
    // Appends n zero bytes; false (nothing written) when they would not fit.
    bool put_zeros(size_t n) {
        if (!fits(n)) return false;
        std::memset(buf_ + length_, 0, n);
        length_ += n;
        return true;
    }
    // Appends raw bytes (a JSON text); false when they would not fit.
    bool put_bytes(std::string_view bytes) {
        if (!fits(bytes.size())) return false;
        if (!bytes.empty()) std::memcpy(buf_ + length_, bytes.data(), bytes.size());
        length_ += bytes.size();
        return true;
    }

private:
    char* buf_;
    size_t capacity_;
    size_t length_ = 0;
};

}  // namespace corvald
