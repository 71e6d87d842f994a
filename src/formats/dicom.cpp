// DICOM file walk: file header, element headers, element values, and dictionary look-ups.
#include <quib/dicom.hpp>

#include "formats/dicom_dictionary.hpp"
#include "system/memory.hpp"
#include "system/utf8.hpp"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <istream>
#include <string_view>

namespace quib {
namespace dicom {

namespace {

constexpr std::uint16_t vr(char a, char b) {
  return static_cast<std::uint16_t>(static_cast<unsigned char>(a) |
                                    (static_cast<unsigned char>(b) << 8));
}

}  // namespace

std::uint32_t tag_key(element_t element) {
  if (const data_set_t* row = find_set(element)) return tag_key(row->group, row->number);
  if (const data_map_t* row = find_map(element)) return tag_key(row->group, row->number);
  return 0;
}

const data_set_t* find_set(std::uint16_t group, std::uint16_t number) {
  const data_set_t* begin = detail::kSetEntries;
  const data_set_t* end = begin + detail::kSetCount;
  const data_set_t* row = std::lower_bound(
      begin, end, tag_key(number, group), [](const data_set_t& r, std::uint32_t k) {
        return tag_key(r.number, r.group) < k;  // group in the high half: sorts by group first
      });
  return row != end && row->group == group && row->number == number ? row : nullptr;
}

const data_map_t* find_map(std::uint16_t group, std::uint16_t number) {
  const data_map_t* end = detail::kMapEntries + detail::kMapCount;
  for (const data_map_t* row = detail::kMapEntries; row != end; ++row) {
    if ((group & row->group_mask) == row->group && (number & row->number_mask) == row->number) {
      return row;
    }
  }
  return nullptr;
}

const data_set_t* find_set(element_t element) {
  std::uint32_t index = static_cast<std::uint32_t>(element);
  return index >= 1 && index <= detail::kSetCount ? &detail::kSetEntries[index - 1] : nullptr;
}

const data_map_t* find_map(element_t element) {
  std::uint32_t index = static_cast<std::uint32_t>(element);
  if (index <= detail::kSetCount || index - detail::kSetCount > detail::kMapCount) return nullptr;
  return &detail::kMapEntries[index - detail::kSetCount - 1];
}

}  // namespace dicom

// ---------------------------------------------------------------------------------------------
// Data

Dicom::Data::Data(std::uint16_t group_, std::uint16_t number_, std::uint16_t type_,
                  std::uint32_t size_)
    : group(group_), number(number_), type(type_), size(size_) {}

Dicom::Data::Data(std::uint16_t group_, std::uint16_t number_, std::uint32_t size_)
    : group(group_), number(number_), size(size_) {
  set = dicom::find_set(group, number);
  map = dicom::find_map(group, number);
  looked_up = true;
}

Dicom::Data::Data(const dicom::data_set_t* row, std::uint32_t size_) : size(size_) {
  if (row == nullptr) return;
  group = row->group;
  number = row->number;
  type = row->type;
  set = row;
}

Dicom::Data::Data(const dicom::data_map_t* row, std::uint32_t size_) : size(size_) {
  if (row == nullptr) return;
  group = row->group;
  number = row->number;
  type = row->type;
  map = row;
}

void Dicom::Data::look_up() const {
  if (looked_up || set != nullptr || map != nullptr) return;
  set = dicom::find_set(group, number);
  if (set == nullptr) map = dicom::find_map(group, number);
  looked_up = true;
}

dicom::element_t Dicom::Data::get_element() const {
  look_up();
  if (set != nullptr) return set->element;
  if (map != nullptr) return map->element;
  return dicom::unknown;
}

std::string Dicom::Data::get_name() const {
  look_up();
  if (set != nullptr) return set->name;
  if (map != nullptr) return map->name;
  return std::string();
}

// ---------------------------------------------------------------------------------------------
// Analyzer

namespace {

// Every header field goes through these two; byte order is decided by the caller's flag.
std::uint16_t load16(const unsigned char* p, bool little) {
  return little ? static_cast<std::uint16_t>(p[0] | (p[1] << 8))
                : static_cast<std::uint16_t>(p[1] | (p[0] << 8));
}

std::uint32_t load32(const unsigned char* p, bool little) {
  if (little) {
    return std::uint32_t{p[0]} | (std::uint32_t{p[1]} << 8) | (std::uint32_t{p[2]} << 16) |
           (std::uint32_t{p[3]} << 24);
  }
  return std::uint32_t{p[3]} | (std::uint32_t{p[2]} << 8) | (std::uint32_t{p[1]} << 16) |
         (std::uint32_t{p[0]} << 24);
}

// The buffered bytes of any stream buffer. The get area's pointers are protected members of
// std::streambuf; naming them through a derived class gives member pointers that apply to
// every stream buffer.
struct GetArea : std::streambuf {
  static std::size_t left(std::streambuf* buf) {
    return std::size_t((buf->*&GetArea::egptr)() - (buf->*&GetArea::gptr)());
  }
  // Copies n <= left(buf) bytes (n within int) out and moves past them.
  static void take(std::streambuf* buf, void* target, std::size_t n) {
    if (n == 0) return;
    std::memcpy(target, (buf->*&GetArea::gptr)(), n);
    (buf->*&GetArea::gbump)(int(n));
  }
};

// Reads up to n bytes straight from the stream buffer; a short read sets eofbit and failbit,
// as std::istream::read would.
std::size_t pull(std::istream& in, void* target, std::size_t n) {
  if (!in.good()) {
    in.setstate(std::ios_base::failbit);
    return 0;
  }
  std::streambuf* buf = in.rdbuf();
  std::streamsize got;
  if (n <= 4096 && GetArea::left(buf) >= n) {
    // Headers and short values usually sit in the stream's buffer already: copy them out
    // directly instead of through the virtual bulk read, which costs more than the copy.
    GetArea::take(buf, target, n);
    got = std::streamsize(n);
  } else {
    got = buf->sgetn(static_cast<char*>(target), std::streamsize(n));
    if (got < 0) got = 0;
  }
  if (std::size_t(got) < n) in.setstate(std::ios_base::eofbit | std::ios_base::failbit);
  return std::size_t(got);
}

// Moves the stream back by `consumed` bytes and keeps its state (a stream that ran out still
// reports end of file).
void rewind(std::istream& in, std::size_t consumed) {
  std::ios_base::iostate state = in.rdstate();
  in.clear();
  if (consumed != 0 &&
      in.rdbuf()->pubseekoff(-std::streamoff(consumed), std::ios_base::cur, std::ios_base::in) ==
          std::streampos(std::streamoff(-1))) {
    state |= std::ios_base::failbit;
  }
  in.setstate(state);
}

// Bytes left in the stream, or -1 when the stream cannot tell (not seekable).
std::streamoff bytes_left(std::istream& in) {
  std::streambuf* buf = in.rdbuf();
  std::streampos here = buf->pubseekoff(0, std::ios_base::cur, std::ios_base::in);
  if (here == std::streampos(std::streamoff(-1))) return -1;
  std::streampos end = buf->pubseekoff(0, std::ios_base::end, std::ios_base::in);
  buf->pubseekpos(here, std::ios_base::in);
  if (end == std::streampos(std::streamoff(-1)) || end < here) return -1;
  return std::streamoff(end - here);
}

bool is_long_form(std::uint16_t type) {
  switch (type) {
    case dicom::vr('O', 'B'):
    case dicom::vr('O', 'D'):
    case dicom::vr('O', 'F'):
    case dicom::vr('O', 'L'):
    case dicom::vr('O', 'V'):
    case dicom::vr('O', 'W'):
    case dicom::vr('S', 'Q'):
    case dicom::vr('S', 'V'):
    case dicom::vr('U', 'C'):
    case dicom::vr('U', 'N'):
    case dicom::vr('U', 'R'):
    case dicom::vr('U', 'T'):
    case dicom::vr('U', 'V'):
      return true;
    default:
      return false;
  }
}

bool is_short_form(std::uint16_t type) {
  switch (type) {
    case dicom::vr('A', 'E'):
    case dicom::vr('A', 'S'):
    case dicom::vr('A', 'T'):
    case dicom::vr('C', 'S'):
    case dicom::vr('D', 'A'):
    case dicom::vr('D', 'S'):
    case dicom::vr('D', 'T'):
    case dicom::vr('F', 'D'):
    case dicom::vr('F', 'L'):
    case dicom::vr('I', 'S'):
    case dicom::vr('L', 'O'):
    case dicom::vr('L', 'T'):
    case dicom::vr('P', 'N'):
    case dicom::vr('S', 'H'):
    case dicom::vr('S', 'L'):
    case dicom::vr('S', 'S'):
    case dicom::vr('S', 'T'):
    case dicom::vr('T', 'M'):
    case dicom::vr('U', 'I'):
    case dicom::vr('U', 'L'):
    case dicom::vr('U', 'S'):
      return true;
    default:
      return false;
  }
}

// Blanks, control characters and NUL padding around a UID do not count.
std::string_view trim_uid(const std::vector<unsigned char>& value) {
  std::size_t begin = 0;
  std::size_t end = value.size();
  while (begin < end && value[begin] <= 0x20)
    ++begin;
  while (end > begin && (value[end - 1] <= 0x20 || value[end - 1] == 0x7F))
    --end;
  return std::string_view(reinterpret_cast<const char*>(value.data()) + begin, end - begin);
}

constexpr std::uint32_t kUndefinedLength = 0xFFFFFFFFu;
constexpr std::uint16_t kItemGroup = 0xFFFE;
// Values up to this size are read in one go even when the stream cannot say how much is left.
constexpr std::size_t kSmall = std::size_t{1} << 12;
// Larger ones from such a stream are copied through a block of this size.
constexpr std::size_t kBlock = std::size_t{1} << 17;
// Values up to this size are staged on the stack.
constexpr std::size_t kStaged = 256;
// At most this many entries are reserved ahead of reading.
constexpr std::streamoff kReserveElements = std::streamoff{1} << 17;

}  // namespace

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
  std::uint16_t group = load16(head + 132, true);
  if (group == 2) {
    meta_little = true;
  } else if (group == 0x0200) {
    meta_little = false;
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

Dicom::Analyzer::result_t Dicom::Analyzer::read_data(std::istream& in,
                                                     std::shared_ptr<Data>& data) {
  // Every header form starts with 8 bytes: tag, then a 32-bit length or VR and more.
  unsigned char head[12];
  std::size_t got = pull(in, head, 8);
  if (got < 4) {
    rewind(in, got);
    return {false, 4};
  }
  const bool little = meta ? meta_little : endian_little;
  std::uint16_t group = load16(head, little);
  std::uint16_t number = load16(head + 2, little);
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
    std::uint32_t size = load32(head + 4, little);
    if (!implicit) {
      store(data, group, number, std::uint16_t{0}, size);
    } else if (const dicom::data_set_t* row = dicom::find_set(group, number)) {
      store(data, row, size);
    } else if (const dicom::data_map_t* family = dicom::find_map(group, number)) {
      store(data, family, size);  // a repeating-group member takes the family's tag
    } else {
      store(data, group, number, std::uint16_t{0}, size);
    }
  } else {
    // The VR characters are bytes in file order, whatever the byte order of the numbers.
    std::uint16_t type = static_cast<std::uint16_t>(head[4] | (head[5] << 8));
    if (is_long_form(type)) {
      got = pull(in, head + 8, 4);
      if (got < 4) {
        rewind(in, 8 + got);
        return {false, 12};
      }
      store(data, group, number, type, load32(head + 8, little));
      count = 12;
    } else if (meta && !is_short_form(type)) {
      rewind(in, 8);
      return {false, 8};
    } else {
      store(data, group, number, type, load16(head + 6, little));
    }
  }
  return {true, count};
}

Dicom::Analyzer::result_t Dicom::Analyzer::read_buffer(std::istream& in,
                                                       const std::shared_ptr<Data>& data,
                                                       std::vector<unsigned char>& value) {
  value.clear();
  if (!data) return {false, 0};
  const std::uint32_t size = data->get_size();
  if (size == kUndefinedLength) return {false, kUndefinedLength};
  if (size == 0) return {true, 0};

  const std::size_t want = size;
  std::streamsize buffered = in.good() ? in.rdbuf()->in_avail() : 0;
  bool copy_through = false;
  if (buffered < 0 || std::size_t(buffered) < want) {
    // Check that the stream holds the whole value before allocating it.
    std::streamoff left = in.good() ? bytes_left(in) : 0;
    if (left >= 0 && std::uint64_t(left) < want) {
      in.setstate(std::ios_base::eofbit | std::ios_base::failbit);
      return {false, size};
    }
    // A stream that cannot tell its length grows the value with what actually arrives.
    copy_through = left < 0 && want > kSmall;
  }
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
    // Small values pass through the stack: the vector is allocated at its size and filled
    // once, instead of being zeroed and then overwritten.
    unsigned char staged[kStaged];
    got = pull(in, staged, want);
    if (got == want) value.assign(staged, staged + got);
  } else {
    value.reserve(want);
    detail::advise_huge_pages(value.data(), want);
    value.resize(want);
    got = pull(in, value.data(), want);
  }
  if (got < want) {
    rewind(in, got);
    value.clear();
    value.shrink_to_fit();
    return {false, size};
  }

  if (data->get_type() == dicom::vr('U', 'I')) {
    std::string_view uid = trim_uid(value);
    if (uid == "1.2.840.10008.1.2") {
      implicit = true;
      endian_little = true;
    } else if (uid == "1.2.840.10008.1.2.1") {
      implicit = false;
      endian_little = true;
    } else if (uid == "1.2.840.10008.1.2.1.99" || uid == "1.2.840.10008.1.2.2") {
      // The deflated syntax is walked as explicit big-endian; nothing is inflated.
      implicit = false;
      endian_little = false;
    }
  }
  return {true, size};
}

// ---------------------------------------------------------------------------------------------
// Dicom

Dicom::Dicom(const std::wstring& path) {
  load(path);
}

namespace {

// The UTF-8 form of a wide path (UTF-32, or UTF-16 where wchar_t has 16 bits); false when the
// path holds something that is no character.
bool to_utf8(const std::wstring& wide, std::string& out) {
  out.clear();
  out.reserve(wide.size());
  const std::wstring_view view(wide);
  for (std::size_t i = 0; i < view.size(); ++i) {
    const char32_t c =
        sizeof(wchar_t) == 2 ? detail::join_surrogates(view, i) : static_cast<char32_t>(view[i]);
    if (!detail::is_scalar_value(c)) return false;
    detail::append_utf8(out, c);
  }
  return true;
}

}  // namespace

int Dicom::load(const std::wstring& path) {
  std::string utf8;
  if (!to_utf8(path, utf8)) {
    clear();  // a name that is no text names no file
    return -1;
  }
  const std::filesystem::path native = std::filesystem::u8path(utf8);
  std::vector<char> buffer(std::size_t{1} << 16);  // outlives the stream that uses it
  std::ifstream file;
  file.rdbuf()->pubsetbuf(buffer.data(), std::streamsize(buffer.size()));
  file.open(native, std::ios_base::in | std::ios_base::binary);
  if (!file) {
    clear();
    return -1;
  }
  return load(file);
}

int Dicom::load(std::istream& in) {
  Analyzer walk;
  if (!walk.read_header(in).first) {
    clear();
    return -1;
  }
  // Values are collected in file order and hashed once at the end, so that the table is
  // sized once instead of rehashing as it grows.
  std::vector<std::pair<std::uint32_t, std::vector<unsigned char>>> read;
  // An element takes at least 8 bytes; the guess is bounded so that a large file of few
  // elements (a volume) does not reserve much.
  const std::streamoff left = bytes_left(in);
  if (left > 0) read.reserve(std::size_t(std::min<std::streamoff>(left / 16, kReserveElements)));
  std::shared_ptr<Data> data;
  std::vector<unsigned char> value;
  for (;;) {
    Analyzer::result_t header = walk.read_data(in, data);
    if (!header.first) {
      if (header.second == 0) continue;  // the meta group ended: read the bytes again
      break;  // a damaged or cut header: retrying at the same place would never end
    }
    if (data->get_group() == kItemGroup &&
        (data->get_number() == 0xE0DD || data->get_number() == 0xE00D)) {
      continue;  // sequence and item delimiters carry nothing
    }
    Analyzer::result_t body = walk.read_buffer(in, data, value);
    if (!body.first) {
      if (body.second == kUndefinedLength) continue;  // walk into the sequence or item
      break;
    }
    read.emplace_back(data->get_tag(), std::move(value));
    value = std::vector<unsigned char>();
  }
  table_t found;
  found.reserve(read.size());
  for (auto& [key, bytes] : read)
    found.insert_or_assign(key, std::move(bytes));  // later wins
  table.swap(found);
  return int(table.size());
}

}  // namespace quib
