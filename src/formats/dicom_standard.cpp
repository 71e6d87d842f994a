// The standard reading of a DICOM file: the meta group, then the data set in the encoding its
// transfer syntax names, with undefined-length elements kept whole.
#include "formats/dicom_internal.hpp"
#include "formats/dicom_stream.hpp"
#include "system/bytes.hpp"

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

namespace quib::detail {

namespace {

constexpr std::uint16_t kMetaGroup = 0x0002;
constexpr std::streamoff kReserveElements = std::streamoff{1} << 17;

// One level of an undefined-length value being walked: a sequence (items follow) or an item
// (elements follow), with the encoding of what it holds.
constexpr std::uint8_t kInItem = 1, kImplicit = 2, kLittle = 4;

// Reads elements from a stream, counting the bytes it takes so that it can say where it
// stopped. Bytes handed back by `put_back` are read again first.
class walker {
 public:
  walker(std::istream& in, std::uint64_t at) : in_(in), pos_(at) {}

  std::uint64_t position() const { return pos_; }

  // Reads up to n bytes into p; returns how many came.
  std::size_t read(unsigned char* p, std::size_t n) {
    std::size_t got = 0;
    if (carried_ != 0) {
      got = std::min(n, carried_);
      std::memcpy(p, carry_, got);
      std::memmove(carry_, carry_ + got, carried_ - got);
      carried_ -= got;
    }
    if (got < n) got += pull(in_, p + got, n - got);
    pos_ += got;
    return got;
  }
  // Hands n <= 8 bytes back, to be read again.
  void put_back(unsigned char const* p, std::size_t n) {
    std::memmove(carry_ + n, carry_, carried_);
    std::memcpy(carry_, p, n);
    carried_ += n;
    pos_ -= n;
  }
  // Appends exactly n bytes to value, never allocating what the stream does not hold.
  bool append(std::vector<unsigned char>& value, std::uint64_t n) {
    if (carried_ != 0) {
      const std::size_t first = std::size_t(std::min<std::uint64_t>(n, carried_));
      const std::size_t before = value.size();
      value.resize(before + first);
      read(value.data() + before, first);
      n -= first;
    }
    if (!append_value(in_, n, value)) return false;
    pos_ += n;
    return true;
  }
  // The rest of the stream, for inflating.
  std::vector<unsigned char> rest() {
    std::vector<unsigned char> bytes(carry_, carry_ + carried_);
    pos_ += carried_;
    carried_ = 0;
    unsigned char block[1 << 14];
    for (std::size_t got; (got = pull(in_, block, sizeof block)) > 0;) {
      bytes.insert(bytes.end(), block, block + got);
      pos_ += got;
    }
    return bytes;
  }

  // The value of an undefined-length element whose header has just been read: the bytes up to
  // its own Sequence Delimitation Item (or, for an item, its Item Delimitation Item), which is
  // read but not kept. Nested undefined-length
  // sequences and items are walked with a stack of levels (never recursion), so that depth
  // costs one byte per level. False on damage or a cut.
  bool undefined_value(std::uint8_t encoding, std::vector<unsigned char>& value) {
    levels_.assign(1, encoding);
    for (;;) {
      const std::size_t at = value.size();
      if (!append(value, 8)) return false;
      const std::uint8_t level = levels_.back();
      unsigned char const* p = value.data() + at;
      bool const little = (level & kLittle) != 0;
      const std::uint16_t group = load<std::uint16_t>(p, little);
      const std::uint16_t number = load<std::uint16_t>(p + 2, little);
      std::uint32_t length = load<std::uint32_t>(p + 4, little);
      if (group == kItemGroup) {
        if (number == kSequenceEnd && (level & kInItem) == 0) {
          levels_.pop_back();
          if (levels_.empty()) {
            value.resize(at);  // the element's own delimiter is not part of its value
            return true;
          }
          continue;
        }
        if (number == kItemEnd && (level & kInItem) != 0) {
          levels_.pop_back();
          if (levels_.empty()) {
            value.resize(at);  // the item's own delimiter is not part of its content
            return true;
          }
          continue;
        }
        if (number != kItem || (level & kInItem) != 0) return false;
        if (length == kUndefinedLength) {
          levels_.push_back(std::uint8_t(level | kInItem));
        } else if (!append(value, length)) {
          return false;
        }
        continue;
      }
      if ((level & kInItem) == 0) return false;  // a sequence holds items only
      std::uint8_t inner = std::uint8_t(level & ~kInItem);
      if ((level & kImplicit) == 0) {
        if (!looks_like_vr(p + 4)) return false;
        const std::uint16_t type = load_le<std::uint16_t>(p + 4);
        if (is_long_form(type)) {
          if (!append(value, 4)) return false;
          length = load<std::uint32_t>(value.data() + at + 8, little);
          if (type == vr('U', 'N')) inner = kImplicit | kLittle;
        } else {
          length = load<std::uint16_t>(p + 6, little);
        }
      }
      if (length == kUndefinedLength) {
        levels_.push_back(inner);
      } else if (!append(value, length)) {
        return false;
      }
    }
  }

  // Reads elements to the end of the stream (or, with `meta`, while their group is 0002) in one
  // encoding, chosen once for the whole walk.
  template <bool Little, bool Implicit>
  void elements(dicom_parts& parts, bool meta) {
    std::vector<std::pair<std::uint32_t, std::vector<unsigned char>>> found;
    const std::streamoff left = bytes_left(in_);
    if (!meta && left > 0) {
      const std::size_t guess = std::size_t(std::min<std::streamoff>(left / 16, kReserveElements));
      found.reserve(guess);
      parts.entries.reserve(parts.entries.size() + guess);
    }
    std::vector<unsigned char> value;
    parts.info.complete = false;
    for (;;) {
      const std::uint64_t start = pos_;
      parts.info.stop = start;
      unsigned char head[12];
      const std::size_t got = read(head, 8);
      if (got == 0 && carried_ == 0 && in_.eof()) {
        parts.info.complete = true;  // the data ends between elements
        break;
      }
      if (got < 8) break;
      const std::uint16_t group = load<std::uint16_t>(head, Little);
      const std::uint16_t number = load<std::uint16_t>(head + 2, Little);
      if (meta && group != kMetaGroup) {
        put_back(head, 8);
        parts.info.complete = true;
        break;
      }
      std::uint32_t length;
      std::uint16_t type;
      if (group == kItemGroup) {
        // A stray delimiter between elements carries nothing; an item belongs in a sequence.
        if (number == kItem) break;
        continue;
      }
      if (Implicit) {
        length = load<std::uint32_t>(head + 4, Little);
        type = dictionary_type(group, number);
        if (length == kUndefinedLength) {
          type = group == 0x7FE0 && number == 0x0010 ? vr('O', 'B') : vr('S', 'Q');
        }
      } else {
        if (!looks_like_vr(head + 4)) break;
        type = load_le<std::uint16_t>(head + 4);
        if (is_long_form(type)) {
          if (read(head + 8, 4) < 4) break;
          length = load<std::uint32_t>(head + 8, Little);
        } else {
          length = load<std::uint16_t>(head + 6, Little);
        }
      }
      const std::uint32_t key = dicom::tag_key(group, number);
      bool const undefined = length == kUndefinedLength;
      if (undefined) {
        std::uint8_t encoding = (Implicit ? kImplicit : 0) | (Little ? kLittle : 0);
        if (!Implicit && type == vr('U', 'N')) encoding = kImplicit | kLittle;
        if (!undefined_value(encoding, value)) break;
        value.shrink_to_fit();
      } else if (!append(value, length)) {
        break;
      }
      if (group == kMetaGroup && number == 0x0010) {
        parts.info.syntax = std::string(trim_uid(value));
      } else if (group == 0x0008 && number == 0x0005) {
        parts.info.charset.assign(value.begin(), value.end());
      }
      found.emplace_back(key, std::move(value));
      parts.entries.push_back({key, type, undefined});
      value = std::vector<unsigned char>();
    }
    parts.table.reserve(parts.table.size() + found.size());
    for (auto& [key, bytes] : found)
      parts.table.try_emplace(key, std::move(bytes));  // the first of two equal tags wins
  }

  // The data set's walk in the encoding given, chosen once. When the data set should be
  // explicit but its first element shows no VR, it is read as implicit.
  void data_set(dicom_parts& parts, bool implicit, bool little) {
    if (!implicit) {
      unsigned char head[8];
      const std::size_t got = read(head, 8);
      if (got == 8 && !looks_like_vr(head + 4) && load<std::uint16_t>(head, little) != kItemGroup) {
        implicit = true;
        little = true;
      }
      put_back(head, got);
    }
    parts.info.implicit = implicit;
    parts.info.little = little;
    if (implicit) {
      little ? elements<true, true>(parts, false) : elements<false, true>(parts, false);
    } else {
      little ? elements<true, false>(parts, false) : elements<false, false>(parts, false);
    }
  }

 private:
  std::istream& in_;
  std::uint64_t pos_;
  unsigned char carry_[16];
  std::size_t carried_ = 0;
  std::vector<std::uint8_t> levels_;
};

// Inflates a raw deflate stream, at most `limit` bytes. False when the stream is damaged, cut
// short or inflates past the limit; `out` then holds what was inflated before.
bool inflate_raw(std::vector<unsigned char> const& in, std::uint64_t limit,
                 std::vector<unsigned char>& out) {
  z_stream z{};
  if (inflateInit2(&z, -15) != Z_OK) return false;
  std::unique_ptr<z_stream, int (*)(z_stream*)> end(&z, inflateEnd);
  z.next_in = const_cast<Bytef*>(in.data());
  std::size_t fed = 0;
  int status = Z_OK;
  while (status == Z_OK) {
    if (z.avail_in == 0) {
      const std::size_t step = std::min<std::size_t>(in.size() - fed, 1u << 30);
      if (step == 0) return false;  // the stream ends before its last block
      z.next_in = const_cast<Bytef*>(in.data() + fed);
      z.avail_in = uInt(step);
      fed += step;
    }
    if (out.size() >= limit) return false;
    const std::size_t before = out.size();
    const std::size_t grow = std::size_t(
        std::min<std::uint64_t>(limit - before, std::max<std::size_t>(before, 1 << 16)));
    out.resize(before + grow);
    z.next_out = out.data() + before;
    z.avail_out = uInt(std::min<std::size_t>(grow, 1u << 30));
    status = inflate(&z, Z_NO_FLUSH);
    out.resize(before + (std::min<std::size_t>(grow, 1u << 30) - z.avail_out));
    if (status == Z_BUF_ERROR) status = Z_OK;  // more room or more input is all it needs
  }
  return status == Z_STREAM_END;
}

}  // namespace

bool read_standard(std::istream& in, dicom_parts& parts) {
  in.clear();
  in.rdbuf()->pubseekpos(0, std::ios_base::in);  // a stream that cannot seek is read as it stands
  unsigned char head[132];
  if (pull(in, head, 132) < 132 || std::memcmp(head + 128, "DICM", 4) != 0) return false;
  parts.info.how = Dicom::READ_STANDARD;

  walker walk(in, 132);
  // The meta group: explicit VR, in the byte order its first tag shows.
  unsigned char first[8];
  const std::size_t got = walk.read(first, 8);
  walk.put_back(first, got);
  parts.info.meta_little = !(got >= 2 && first[0] == 0x00 && first[1] == 0x02);
  if (parts.info.meta_little) {
    walk.elements<true, false>(parts, true);
  } else {
    walk.elements<false, false>(parts, true);
  }
  if (!parts.info.complete) {
    detail::order_entries(parts.entries, false);
    return true;  // the meta group is damaged: nothing after it can be found
  }

  std::string const& uid = parts.info.syntax;
  if (uid == "1.2.840.10008.1.2.1.99") {
    parts.info.deflated = true;
    const std::uint64_t start = walk.position();
    const std::vector<unsigned char> packed = walk.rest();
    std::vector<unsigned char> data;
    bool const whole =
        inflate_raw(packed, Dicom::kInflateRatio * packed.size() + Dicom::kInflateSlack, data);
    memory_buf buf(data.data(), data.size());
    std::istream inflated(&buf);
    walker inner(inflated, start);
    inner.data_set(parts, false, true);
    parts.info.complete = parts.info.complete && whole;
  } else {
    walk.data_set(parts, uid == "1.2.840.10008.1.2" || uid.empty(), uid != "1.2.840.10008.1.2.2");
  }
  detail::order_entries(parts.entries, false);
  return true;
}

bool find_item_end(unsigned char const* data, std::size_t size, bool implicit, bool little,
                   std::size_t& content) {
  memory_buf buf(data, size);
  std::istream in(&buf);
  walker walk(in, 0);
  std::vector<unsigned char> value;
  const std::uint8_t encoding = kInItem | (implicit ? kImplicit : 0) | (little ? kLittle : 0);
  if (!walk.undefined_value(encoding, value)) return false;
  content = value.size();
  return true;
}

void read_data_set(unsigned char const* data, std::size_t size, dicom_parts& parts) {
  memory_buf buf(data, size);
  std::istream in(&buf);
  walker walk(in, 0);
  bool const implicit = parts.info.implicit, little = parts.info.little;
  if (implicit) {
    little ? walk.elements<true, true>(parts, false) : walk.elements<false, true>(parts, false);
  } else {
    little ? walk.elements<true, false>(parts, false) : walk.elements<false, false>(parts, false);
  }
  detail::order_entries(parts.entries, false);
}

}  // namespace quib::detail
