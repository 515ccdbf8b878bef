// Building blocks of the binary crate: the string table of the writer and the bounds-checked
// reader of the byte stream. Internal to the library.
#pragma once

#include <ostrevik/core.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace ostrevik::serial {

// Strings numbered by first sight, for the writer. An open-addressing index over the numbers
// finds repeats without allocating. A string given by view must outlive the table (the writer
// passes the document's own strings); the bytes of one given by value are kept in the table.
class StringTable {
public:
    explicit StringTable(std::size_t expected = 0) {
        std::size_t capacity = 16;
        while (capacity < 2 * expected) capacity *= 2;
        slots_.assign(capacity, Slot{});
    }

    std::uint32_t intern(std::string_view s) { return intern(s, false); }
    std::uint32_t intern(std::string&& s) { return intern(std::string_view(s), true); }
    // For bytes that won't outlive the call, such as a reused buffer: kept in the table if new.
    std::uint32_t internCopy(std::string_view s) { return intern(s, true); }

    std::vector<std::string_view> strings;  // in number order

private:
    struct Slot {
        std::uint32_t hash = 0;
        std::uint32_t number = 0;  // string number + 1; 0 marks a free slot
    };
    static constexpr std::size_t kBlock = 1 << 16;

    std::uint32_t intern(std::string_view s, bool copy) {
        const auto h = static_cast<std::uint32_t>(std::hash<std::string_view>{}(s));
        const std::size_t mask = slots_.size() - 1;
        std::size_t i = h & mask;
        for (;; i = (i + 1) & mask) {
            const Slot slot = slots_[i];
            if (!slot.number) break;
            if (slot.hash == h && strings[slot.number - 1] == s) return slot.number - 1;
        }
        const auto number = static_cast<std::uint32_t>(strings.size());
        strings.push_back(copy ? keep(s) : s);
        slots_[i] = Slot{h, number + 1};
        if (2 * strings.size() > slots_.size()) grow();
        return number;
    }

    void grow() {
        std::vector<Slot> old(slots_.size() * 2);
        old.swap(slots_);
        const std::size_t mask = slots_.size() - 1;
        for (const Slot& slot : old) {
            if (!slot.number) continue;
            std::size_t i = slot.hash & mask;
            while (slots_[i].number) i = (i + 1) & mask;
            slots_[i] = slot;
        }
    }

    // Copies into blocks that never move, so the views stay valid.
    std::string_view keep(std::string_view s) {
        if (s.size() > left_) {
            const std::size_t size = s.size() > kBlock ? s.size() : kBlock;
            blocks_.emplace_back(new char[size]);
            next_ = blocks_.back().get();
            left_ = size;
        }
        if (!s.empty()) std::memcpy(next_, s.data(), s.size());
        std::string_view kept(next_, s.size());
        next_ += s.size();
        left_ -= s.size();
        return kept;
    }

    std::vector<Slot> slots_;
    std::vector<std::unique_ptr<char[]>> blocks_;
    char* next_ = nullptr;
    std::size_t left_ = 0;
};

// Reads little-endian fields from a buffer that it doesn't own. Once a read fails, `ok` stays
// false and every later read fails too.
class Reader {
public:
    Reader(const void* data, std::size_t size)
        : data_(static_cast<const unsigned char*>(data)), size_(size) {}

    bool ok = true;

    std::size_t left() const { return size_ - pos_; }
    bool atEnd() const { return pos_ == size_; }

    // Copies n bytes and advances; on a short buffer fails without moving.
    bool getBytes(void* out, std::size_t n) {
        if (!ok || n > left()) return ok = false;
        if (n) std::memcpy(out, data_ + pos_, n);
        pos_ += n;
        return true;
    }
    // A view of the next n bytes, advancing past them.
    bool getView(std::string_view& out, std::size_t n) {
        if (!ok || n > left()) return ok = false;
        out = std::string_view(reinterpret_cast<const char*>(data_ + pos_), n);
        pos_ += n;
        return true;
    }

    bool getU8(std::uint8_t& v) { return getLe(v); }
    bool getU16(std::uint16_t& v) { return getLe(v); }
    bool getU32(std::uint32_t& v) { return getLe(v); }
    bool getF64(double& v) {
        std::uint64_t bits;
        if (!getLe(bits)) return false;
        v = std::bit_cast<double>(bits);
        return true;
    }
    // A count, which may be at most (bytes left) / divisor: checked before anything is allocated.
    bool getCount(std::uint32_t& n, std::size_t divisor) {
        if (!getU32(n)) return false;
        if (n > left() / divisor) return ok = false;
        return true;
    }
    // A string record: u32 length, then the bytes.
    bool getString(std::string& out) {
        std::uint32_t n;
        std::string_view bytes;
        if (!getU32(n) || !getView(bytes, n)) return false;
        out.assign(bytes);
        return true;
    }

    // One self-typed value: dtype, rank, dimensions, elements.
    bool getValue(Value& out);

private:
    // Fixed-size reads copy without a call: they are most of what a crate holds.
    template <class T>
    bool getLe(T& v) {
        if (!ok || sizeof v > left()) return ok = false;
        std::memcpy(&v, data_ + pos_, sizeof v);
        pos_ += sizeof v;
        if constexpr (std::endian::native == std::endian::big) v = byteswap(v);
        return true;
    }
    template <class T>
    static T byteswap(T v) {
        T r = 0;
        for (std::size_t i = 0; i < sizeof v; ++i) r = static_cast<T>((r << 8) | ((v >> (8 * i)) & 0xFF));
        return r;
    }

    const unsigned char* data_;
    std::size_t size_;
    std::size_t pos_ = 0;
};

}  // namespace ostrevik::serial
