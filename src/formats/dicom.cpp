// DICOM file walk: file header, element headers, element values, and dictionary look-ups.
#include <quib/dicom.hpp>

#include "formats/dicom_dictionary.hpp"
#include "formats/dicom_internal.hpp"
#include "formats/dicom_stream.hpp"
#include "system/bytes.hpp"
#include "system/memory.hpp"
#include "system/native_path.hpp"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <istream>
#include <string_view>

namespace quib {

using detail::vr;

namespace dicom {

std::uint32_t tag_key(element_t element) {
  if (data_set_t const* row = find_set(element)) return tag_key(row->group, row->number);
  if (data_map_t const* row = find_map(element)) return tag_key(row->group, row->number);
  return 0;
}

data_set_t const* find_set(std::uint16_t group, std::uint16_t number) {
  data_set_t const* begin = detail::kSetEntries;
  data_set_t const* end = begin + detail::kSetCount;
  data_set_t const* row = std::lower_bound(
      begin, end, tag_key(number, group), [](data_set_t const& r, std::uint32_t k) {
        return tag_key(r.number, r.group) < k;  // group in the high half: sorts by group first
      });
  return row != end && row->group == group && row->number == number ? row : nullptr;
}

data_map_t const* find_map(std::uint16_t group, std::uint16_t number) {
  data_map_t const* end = detail::kMapEntries + detail::kMapCount;
  for (data_map_t const* row = detail::kMapEntries; row != end; ++row) {
    if ((group & row->group_mask) == row->group && (number & row->number_mask) == row->number) {
      return row;
    }
  }
  return nullptr;
}

element_t find_keyword(std::string_view keyword) {
  element_t const* begin = detail::kKeywordOrder;
  element_t const* end = begin + detail::kSetCount + detail::kMapCount;
  element_t const* at = std::lower_bound(begin, end, keyword, [](element_t e, std::string_view k) {
    return std::string_view(detail::kKeywords[e - 1]) < k;
  });
  return at != end && detail::kKeywords[*at - 1] == keyword ? *at : unknown;
}

std::string_view get_keyword(element_t element) {
  const std::uint32_t index = element;
  return index >= 1 && index <= detail::kSetCount + detail::kMapCount ? detail::kKeywords[index - 1]
                                                                      : std::string_view();
}

data_set_t const* find_set(element_t element) {
  std::uint32_t index = static_cast<std::uint32_t>(element);
  return index >= 1 && index <= detail::kSetCount ? &detail::kSetEntries[index - 1] : nullptr;
}

data_map_t const* find_map(element_t element) {
  std::uint32_t index = static_cast<std::uint32_t>(element);
  if (index <= detail::kSetCount || index - detail::kSetCount > detail::kMapCount) return nullptr;
  return &detail::kMapEntries[index - detail::kSetCount - 1];
}

}  // namespace dicom

std::uint16_t detail::dictionary_type(std::uint16_t group, std::uint16_t number) {
  if (dicom::data_set_t const* row = dicom::find_set(group, number)) return row->type;
  if (dicom::data_map_t const* row = dicom::find_map(group, number)) return row->type;
  if (number == 0x0000) return vr('U', 'L');
  if ((group & 1) != 0 && number >= 0x0010 && number <= 0x00FF) return vr('L', 'O');
  return 0;
}

void detail::order_entries(std::vector<Dicom::Entry>& entries, bool last_wins) {
  auto const before = [](Dicom::Entry const& a, Dicom::Entry const& b) {
    return tag_order(a.key) < tag_order(b.key);
  };
  auto const same = [](Dicom::Entry const& a, Dicom::Entry const& b) { return a.key == b.key; };
  // Files list their elements in tag order, so this is usually one pass over sorted entries.
  if (std::adjacent_find(entries.begin(), entries.end(), [&](auto const& a, auto const& b) {
        return !before(a, b);
      }) == entries.end()) {
    return;
  }
  std::stable_sort(entries.begin(), entries.end(), before);
  if (last_wins) {
    std::reverse(entries.begin(), entries.end());
    entries.erase(std::unique(entries.begin(), entries.end(), same), entries.end());
    std::reverse(entries.begin(), entries.end());
  } else {
    entries.erase(std::unique(entries.begin(), entries.end(), same), entries.end());
  }
}

// ---------------------------------------------------------------------------------------------
// Tag

Dicom::Tag::Tag(dicom::element_t element) : key_(dicom::tag_key(element)) {
  valid_ = dicom::find_set(element) != nullptr || dicom::find_map(element) != nullptr;
}

Dicom::Tag::Tag(std::string_view text) {
  std::string_view hex = text;
  if (hex.size() == 11 && hex.front() == '(' && hex.back() == ')') hex = hex.substr(1, 9);
  std::string digits(hex);
  if (digits.size() == 9 && digits[4] == ',') digits.erase(4, 1);
  if (digits.size() == 8 &&
      digits.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos) {
    unsigned long const value = std::stoul(digits, nullptr, 16);
    key_ = dicom::tag_key(std::uint16_t(value >> 16), std::uint16_t(value & 0xFFFF));
    valid_ = true;
    return;
  }
  const dicom::element_t element = dicom::find_keyword(text);
  valid_ = element != dicom::unknown;
  key_ = valid_ ? dicom::tag_key(element) : 0;
}

std::uint16_t Dicom::get_type(Tag tag) const {
  if (!tag.is()) return 0;
  const std::uint32_t key = tag.get_key();
  auto const at =
      std::lower_bound(entries_.begin(), entries_.end(), key, [](Entry const& e, std::uint32_t k) {
        return detail::tag_order(e.key) < detail::tag_order(k);
      });
  return at != entries_.end() && at->key == key ? at->type : 0;
}

std::vector<unsigned char> const* Dicom::find(Tag tag) const {
  if (!tag.is()) return nullptr;
  auto const at = table_.find(tag.get_key());
  return at == table_.end() ? nullptr : &at->second;
}

// ---------------------------------------------------------------------------------------------
// Data

Dicom::Data::Data(std::uint16_t group, std::uint16_t number, std::uint16_t type, std::uint32_t size)
    : group_(group), number_(number), type_(type), size_(size) {}

Dicom::Data::Data(std::uint16_t group, std::uint16_t number, std::uint32_t size)
    : group_(group), number_(number), size_(size) {
  set_ = dicom::find_set(group_, number_);
  map_ = dicom::find_map(group_, number_);
  looked_up_ = true;
}

Dicom::Data::Data(dicom::data_set_t const* row, std::uint32_t size) : size_(size) {
  if (row == nullptr) return;
  group_ = row->group;
  number_ = row->number;
  type_ = row->type;
  set_ = row;
}

Dicom::Data::Data(dicom::data_map_t const* row, std::uint32_t size) : size_(size) {
  if (row == nullptr) return;
  group_ = row->group;
  number_ = row->number;
  type_ = row->type;
  map_ = row;
}

void Dicom::Data::look_up() const {
  if (looked_up_ || set_ != nullptr || map_ != nullptr) return;
  set_ = dicom::find_set(group_, number_);
  if (set_ == nullptr) map_ = dicom::find_map(group_, number_);
  looked_up_ = true;
}

dicom::element_t Dicom::Data::get_element() const {
  look_up();
  if (set_ != nullptr) return set_->element;
  if (map_ != nullptr) return map_->element;
  return dicom::unknown;
}

std::string Dicom::Data::get_name() const {
  look_up();
  if (set_ != nullptr) return set_->name;
  if (map_ != nullptr) return map_->name;
  return std::string();
}

// ---------------------------------------------------------------------------------------------
// Analyzer

namespace {

using detail::bytes_left;
using detail::pull;
using detail::rewind;

using detail::is_long_form;
using detail::is_short_form;
using detail::kItemGroup;
using detail::kUndefinedLength;
using detail::trim_uid;

// Values up to this size are read in one go even when the stream cannot say how much is left.
constexpr std::size_t kSmall = std::size_t{1} << 12;
// Larger ones from such a stream are copied through a block of this size.
constexpr std::size_t kBlock = std::size_t{1} << 17;
// Values up to this size are staged on the stack.
constexpr std::size_t kStaged = 256;
// At most this many entries are reserved ahead of reading.
constexpr std::streamoff kReserveElements = std::streamoff{1} << 17;

}  // namespace

bool detail::append_value(std::istream& in, std::uint64_t size, std::vector<unsigned char>& value) {
  if (size == 0) return true;
  const std::size_t before = value.size();
  std::streamsize buffered = in.good() ? in.rdbuf()->in_avail() : 0;
  bool copy_through = false;
  if (buffered < 0 || std::uint64_t(buffered) < size) {
    // Check that the stream holds the whole value before allocating it.
    std::streamoff left = in.good() ? bytes_left(in) : 0;
    if (left >= 0 && std::uint64_t(left) < size) {
      in.setstate(std::ios_base::eofbit | std::ios_base::failbit);
      return false;
    }
    // A stream that cannot tell its length grows the value with what actually arrives.
    copy_through = left < 0 && size > kSmall;
  }
  if (size > value.max_size() - before) return false;
  const std::size_t want = std::size_t(size);
  std::size_t got = 0;
  if (copy_through) {
    std::unique_ptr<unsigned char[]> block(new unsigned char[std::min(want, kBlock)]);
    while (got < want) {
      std::size_t step = std::min(want - got, kBlock);
      std::size_t part = pull(in, block.get(), step);
      value.insert(value.end(), block.get(), block.get() + part);
      got += part;
      if (part < step) break;
    }
  } else if (want <= kStaged) {
    // Small values pass through the stack: the vector is grown to its size and filled once,
    // instead of being zeroed and then overwritten.
    unsigned char staged[kStaged];
    got = pull(in, staged, want);
    if (got == want) value.insert(value.end(), staged, staged + got);
  } else {
    if (value.capacity() - before < want) {
      value.reserve(std::max(before + want, before == 0 ? 0 : 2 * value.capacity()));
      if (before == 0) detail::advise_huge_pages(value.data(), want);
    }
    value.resize(before + want);
    got = pull(in, value.data() + before, want);
  }
  if (got < want) {
    rewind(in, got);
    value.resize(before);
    return false;
  }
  return true;
}

Dicom::Analyzer::result_t Dicom::Analyzer::read_header(std::istream& in) {
  in.clear();
  if (in.rdbuf()->pubseekpos(0, std::ios_base::in) == std::streampos(std::streamoff(-1))) {
    in.setstate(std::ios_base::failbit);
    return {false, 128};
  }
  unsigned char head[136];
  if (pull(in, head, 128) < 128) return {false, 128};
  for (int i = 0; i < 128; ++i) {
    if (head[i] != 0) return {false, 128};  // stricter than readers that ignore the preamble
  }
  if (pull(in, head + 128, 4) < 4 || std::memcmp(head + 128, "DICM", 4) != 0) {
    return {false, 132};
  }
  std::size_t got = pull(in, head + 132, 4);
  rewind(in, got);
  if (got < 4) return {false, 136};
  std::uint16_t group = detail::load_le<std::uint16_t>(head + 132);
  if (group == 2) {
    meta_little_ = true;
  } else if (group == 0x0200) {
    meta_little_ = false;
  }
  return {true, 132};
}

namespace {

// Puts a new header into `data`, reusing the object when `data` is its only owner. Built in
// place field by field: a header assembled aside and copied over would be read back before
// its stores have landed.
template <class... Args>
void store(std::shared_ptr<Dicom::Data>& data, Args... args) {
  if (data && data.use_count() == 1) {
    *data = Dicom::Data(args...);
  } else {
    data = std::make_shared<Dicom::Data>(args...);
  }
}

}  // namespace

namespace {

// One element header in one byte order: the readers of every field are chosen once per header
// by the byte order the walk is in, not field by field.
template <bool Little>
Dicom::Analyzer::result_t read_header_as(std::istream& in, unsigned char (&head)[12],
                                         std::size_t got, bool& meta, bool implicit,
                                         std::shared_ptr<Dicom::Data>& data) {
  auto const u16 = [](unsigned char const* p) {
    return Little ? detail::load_le<std::uint16_t>(p) : detail::load_be<std::uint16_t>(p);
  };
  auto const u32 = [](unsigned char const* p) {
    return Little ? detail::load_le<std::uint32_t>(p) : detail::load_be<std::uint32_t>(p);
  };
  std::uint16_t group = u16(head);
  std::uint16_t number = u16(head + 2);
  if (meta && group != 2) {
    meta = false;
    rewind(in, got);
    return {false, 0};
  }
  if (got < 8) {
    rewind(in, got);
    return {false, 8};
  }

  std::uint32_t count = 8;
  if (!meta && (implicit || group == kItemGroup)) {
    // Implicit VR, and items and delimiters in any encoding: tag and 32-bit length.
    std::uint32_t size = u32(head + 4);
    if (!implicit) {
      store(data, group, number, std::uint16_t{0}, size);
    } else if (dicom::data_set_t const* row = dicom::find_set(group, number)) {
      store(data, row, size);
    } else if (dicom::data_map_t const* family = dicom::find_map(group, number)) {
      store(data, family, size);  // a repeating-group member takes the family's tag
    } else {
      store(data, group, number, std::uint16_t{0}, size);
    }
  } else {
    // The VR characters are bytes in file order, whatever the byte order of the numbers.
    std::uint16_t type = detail::load_le<std::uint16_t>(head + 4);
    if (is_long_form(type)) {
      got = pull(in, head + 8, 4);
      if (got < 4) {
        rewind(in, 8 + got);
        return {false, 12};
      }
      store(data, group, number, type, u32(head + 8));
      count = 12;
    } else if (meta && !is_short_form(type)) {
      rewind(in, 8);
      return {false, 8};
    } else {
      store(data, group, number, type, u16(head + 6));
    }
  }
  return {true, count};
}

}  // namespace

Dicom::Analyzer::result_t Dicom::Analyzer::read_data(std::istream& in,
                                                     std::shared_ptr<Data>& data) {
  // Every header form starts with 8 bytes: tag, then a 32-bit length or VR and more.
  unsigned char head[12];
  std::size_t got = pull(in, head, 8);
  if (got < 4) {
    rewind(in, got);
    return {false, 4};
  }
  bool const little = meta_ ? meta_little_ : endian_little_;
  return little ? read_header_as<true>(in, head, got, meta_, implicit_, data)
                : read_header_as<false>(in, head, got, meta_, implicit_, data);
}

Dicom::Analyzer::result_t Dicom::Analyzer::read_buffer(std::istream& in,
                                                       std::shared_ptr<Data> const& data,
                                                       std::vector<unsigned char>& value) {
  value.clear();
  if (!data) return {false, 0};
  const std::uint32_t size = data->get_size();
  if (size == kUndefinedLength) return {false, kUndefinedLength};
  if (size == 0) return {true, 0};

  if (!detail::append_value(in, size, value)) {
    value.shrink_to_fit();
    return {false, size};
  }

  if (data->get_type() == detail::vr('U', 'I')) {
    std::string_view uid = trim_uid(value);
    if (uid == "1.2.840.10008.1.2") {
      implicit_ = true;
      endian_little_ = true;
    } else if (uid == "1.2.840.10008.1.2.1") {
      implicit_ = false;
      endian_little_ = true;
    } else if (uid == "1.2.840.10008.1.2.1.99" || uid == "1.2.840.10008.1.2.2") {
      // The deflated syntax is walked as explicit big-endian; nothing is inflated.
      implicit_ = false;
      endian_little_ = false;
    }
  }
  return {true, size};
}

// ---------------------------------------------------------------------------------------------
// Dicom

Dicom::Dicom(std::wstring const& path) {
  load(path);
}

namespace {

bool read_classic(std::istream& in, detail::dicom_parts& parts) {
  Dicom::Analyzer walk;
  if (!walk.read_header(in).first) return false;
  // Values are collected in file order and hashed once at the end, so that the table is
  // sized once instead of rehashing as it grows.
  std::vector<std::pair<std::uint32_t, std::vector<unsigned char>>> read;
  // An element takes at least 8 bytes; the guess is bounded so that a large file of few
  // elements (a volume) does not reserve much.
  const std::streamoff left = bytes_left(in);
  if (left > 0) {
    const std::size_t guess = std::size_t(std::min<std::streamoff>(left / 16, kReserveElements));
    read.reserve(guess);
    parts.entries.reserve(guess);
  }
  std::shared_ptr<Dicom::Data> data;
  std::vector<unsigned char> value;
  std::uint32_t unread = 0;  // header bytes read of an element whose value was not
  for (;;) {
    Dicom::Analyzer::result_t header = walk.read_data(in, data);
    if (!header.first) {
      if (header.second == 0) continue;  // the meta group ended: read the bytes again
      break;  // a damaged or cut header: retrying at the same place would never end
    }
    if (data->get_group() == kItemGroup &&
        (data->get_number() == 0xE0DD || data->get_number() == 0xE00D)) {
      continue;  // sequence and item delimiters carry nothing
    }
    Dicom::Analyzer::result_t body = walk.read_buffer(in, data, value);
    if (!body.first) {
      if (body.second == kUndefinedLength) continue;  // walk into the sequence or item
      unread = header.second;
      break;
    }
    read.emplace_back(data->get_tag(), std::move(value));
    parts.entries.push_back({data->get_tag(), data->get_type(), false});
    value = std::vector<unsigned char>();
  }
  const std::streamoff at = detail::position(in);
  parts.info.how = Dicom::READ_CLASSIC;
  parts.info.stop = at < 0 ? 0 : std::uint64_t(at) - unread;
  parts.info.complete = unread == 0 && bytes_left(in) == 0;
  parts.info.meta_little = walk.is_meta_little();
  parts.info.implicit = walk.is_implicit();
  parts.info.little = walk.is_endian_little();
  parts.table.reserve(read.size());
  for (auto& [key, bytes] : read)
    parts.table.insert_or_assign(key, std::move(bytes));  // later wins
  detail::order_entries(parts.entries, true);
  if (auto const uid = parts.table.find(dicom::tag_key(0x0002, 0x0010)); uid != parts.table.end())
    parts.info.syntax = std::string(trim_uid(uid->second));
  if (auto const set = parts.table.find(dicom::tag_key(0x0008, 0x0005)); set != parts.table.end())
    parts.info.charset.assign(set->second.begin(), set->second.end());
  return true;
}

}  // namespace

int Dicom::load(std::wstring const& path) {
  return load(path, READ_CLASSIC);
}

int Dicom::load(std::istream& in) {
  return load(in, READ_CLASSIC);
}

int Dicom::load(std::wstring const& path, read_t how) {
  const std::optional<std::filesystem::path> native = detail::native_path(path);
  std::error_code error;
  if (!native || std::filesystem::is_directory(*native, error)) {
    clear();  // a name that is no text names no file; a folder is no file to read
    return -1;
  }
  std::vector<char> buffer(std::size_t{1} << 16);  // outlives the stream that uses it
  std::ifstream file;
  file.rdbuf()->pubsetbuf(buffer.data(), std::streamsize(buffer.size()));
  file.open(*native, std::ios_base::in | std::ios_base::binary);
  if (!file) {
    clear();
    return -1;
  }
  try {
    return load(file, how);
  } catch (std::ios_base::failure const&) {
    clear();  // the system refused to read (a device, a file gone bad): not a file we can read
    return -1;
  }
}

int Dicom::load(std::istream& in, read_t how) {
  detail::dicom_parts parts;
  if (how == READ_STANDARD) {
    if (!detail::read_standard(in, parts)) {
      clear();
      return -1;
    }
  } else if (!read_classic(in, parts)) {
    clear();
    return -1;
  }
  table_.swap(parts.table);
  entries_.swap(parts.entries);
  info_ = std::move(parts.info);
  return int(table_.size());
}

}  // namespace quib
