// Bounds-checked reading and writing of wire formats at explicit offsets.
// Every read reports whether it fit; every write checks room first. Byte
// order is always explicit: be* for network order, host* for the native
// order of the forwarding-plane channel.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

using bytes_view = std::span<const std::uint8_t>;
using bytes_span = std::span<std::uint8_t>;

class wire_reader {
public:
    explicit wire_reader(bytes_view b, std::size_t pos = 0) : buf_(b), pos_(pos <= b.size() ? pos : b.size()) {}
    std::size_t pos() const { return pos_; }
    std::size_t left() const { return buf_.size() - pos_; }
    bool skip(std::size_t n) { if (left() < n) return false; pos_ += n; return true; }
    bool u8(std::uint8_t &v) { if (left() < 1) return false; v = buf_[pos_++]; return true; }
    bool be16(std::uint16_t &v) {
        if (left() < 2) return false;
        v = static_cast<std::uint16_t>((unsigned(buf_[pos_]) << 8) | buf_[pos_ + 1]);
        pos_ += 2; return true;
    }
    bool be32(std::uint32_t &v) {
        if (left() < 4) return false;
        v = (std::uint32_t(buf_[pos_]) << 24) | (std::uint32_t(buf_[pos_ + 1]) << 16) |
            (std::uint32_t(buf_[pos_ + 2]) << 8) | std::uint32_t(buf_[pos_ + 3]);
        pos_ += 4; return true;
    }
    template <class T> bool host(T &v) {
        if (left() < sizeof(T)) return false;
        std::memcpy(&v, buf_.data() + pos_, sizeof(T)); pos_ += sizeof(T); return true;
    }
    bool take(std::size_t n, bytes_view &v) {
        if (left() < n) return false;
        v = buf_.subspan(pos_, n);
        pos_ += n;
        return true;
    }
    bool copy(void *dst, std::size_t n) {
        if (left() < n) return false;
        std::memcpy(dst, buf_.data() + pos_, n);
        pos_ += n;
        return true;
    }
private:
    bytes_view buf_;
    std::size_t pos_;
};

class wire_writer {
public:
    explicit wire_writer(bytes_span b, std::size_t pos = 0) : buf_(b), pos_(pos <= b.size() ? pos : b.size()) {}
    std::size_t pos() const { return pos_; }
    std::size_t left() const { return buf_.size() - pos_; }
    bool u8(std::uint8_t v) { if (left() < 1) return false; buf_[pos_++] = v; return true; }
    bool be16(std::uint16_t v) {
        if (left() < 2) return false;
        buf_[pos_] = std::uint8_t(v >> 8); buf_[pos_ + 1] = std::uint8_t(v); pos_ += 2; return true;
    }
    bool be32(std::uint32_t v) {
        if (left() < 4) return false;
        buf_[pos_] = std::uint8_t(v >> 24); buf_[pos_ + 1] = std::uint8_t(v >> 16);
        buf_[pos_ + 2] = std::uint8_t(v >> 8); buf_[pos_ + 3] = std::uint8_t(v); pos_ += 4; return true;
    }
    template <class T> bool host(const T &v) {
        if (left() < sizeof(T)) return false;
        std::memcpy(buf_.data() + pos_, &v, sizeof(T)); pos_ += sizeof(T); return true;
    }
    bool put(const void *src, std::size_t n) {
        if (left() < n) return false;
        if (n) std::memcpy(buf_.data() + pos_, src, n);
        pos_ += n;
        return true;
    }
    bool zero(std::size_t n) {
        if (left() < n) return false;
        std::memset(buf_.data() + pos_, 0, n);
        pos_ += n;
        return true;
    }
private:
    bytes_span buf_;
    std::size_t pos_;
};

// Fixed-offset helpers for in-place field access on a buffer of known size.
// They return false (and leave v untouched) when the field does not fit.
inline bool be16_at(bytes_view b, std::size_t off, std::uint16_t &v) { wire_reader r(b); return r.skip(off) && r.be16(v); }
inline bool be32_at(bytes_view b, std::size_t off, std::uint32_t &v) { wire_reader r(b); return r.skip(off) && r.be32(v); }
inline bool u8_at(bytes_view b, std::size_t off, std::uint8_t &v) { wire_reader r(b); return r.skip(off) && r.u8(v); }
inline bool put_be16_at(bytes_span b, std::size_t off, std::uint16_t v) { return off <= b.size() && wire_writer(b, off).be16(v); }
inline bool put_be32_at(bytes_span b, std::size_t off, std::uint32_t v) { return off <= b.size() && wire_writer(b, off).be32(v); }

// Fields kept in their wire order (addresses and ports compared and copied as
// stored, as the kernel's in_addr does): 0 when the field does not fit.
inline std::uint32_t stored32_at(bytes_view b, std::size_t off) { std::uint32_t v = 0; wire_reader r(b, off); if (off > b.size() || !r.host(v)) v = 0; return v; }
inline std::uint16_t stored16_at(bytes_view b, std::size_t off) { std::uint16_t v = 0; wire_reader r(b, off); if (off > b.size() || !r.host(v)) v = 0; return v; }
