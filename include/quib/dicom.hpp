// Reading DICOM files into a table of raw element values, and the DICOM data dictionary.
#pragma once

#include <quib/dicom_element.hpp>
#include <quib/export.hpp>

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

namespace quib {
namespace dicom {

/// An element tag as it lies in a little-endian file: group, then element number. Its table
/// key (tag_key) holds the group in the low 16 bits and the number in the high 16 bits.
struct data_tag_t {
  std::uint16_t group;
  std::uint16_t number;
};
/// The first six bytes of an explicit-VR element header: tag and the two VR characters.
struct data_type_t {
  std::uint16_t group;
  std::uint16_t number;
  char vr[2];
};
/// Explicit-VR element header with a 16-bit length (8 bytes).
struct data_short_t {
  std::uint16_t group;
  std::uint16_t number;
  char vr[2];
  std::uint16_t length;
};
/// Explicit-VR element header with a 32-bit length after two reserved bytes (12 bytes).
struct data_long_t {
  std::uint16_t group;
  std::uint16_t number;
  char vr[2];
  std::uint16_t reserved;
  std::uint32_t length;
};
/// Implicit-VR element header (8 bytes).
struct data_implicit_t {
  std::uint16_t group;
  std::uint16_t number;
  std::uint32_t length;
};
static_assert(sizeof(data_tag_t) == 4 && sizeof(data_type_t) == 6);
static_assert(sizeof(data_short_t) == 8 && sizeof(data_long_t) == 12);
static_assert(sizeof(data_implicit_t) == 8);
static_assert(std::is_trivially_copyable_v<data_long_t>);

/// One row of the dictionary's exact-tag table. `type` is the VR's two characters read as a
/// little-endian 16-bit value ("OB" is 0x424F), 0 for elements without a VR (items and
/// delimiters). Where the dictionary allows several VRs the row carries the one used when no
/// VR is written: OW for "OB or OW", otherwise the first listed. `name` is the full name,
/// never null; retired or trial elements keep suffixes such as "(Trial)" or "(Retired)".
struct data_set_t {
  std::uint16_t group;
  std::uint16_t number;
  std::uint16_t type;
  element_t element;
  const char* name;
};
/// One row of the dictionary's masked table, standing for a family of tags (repeating groups
/// such as the overlays 60xx, element ranges such as (0028,04x0)). A tag belongs to the row
/// when (group & group_mask) == group and (number & number_mask) == number.
struct data_map_t {
  std::uint16_t group;
  std::uint16_t number;
  std::uint16_t group_mask;
  std::uint16_t number_mask;
  std::uint16_t type;
  element_t element;
  const char* name;
};

/// The table key of a tag: group in the low 16 bits, number in the high 16 bits.
constexpr std::uint32_t tag_key(std::uint16_t group, std::uint16_t number) {
  return std::uint32_t{group} | (std::uint32_t{number} << 16);
}
/// The table key under which an element of that identity is stored (for a masked row, the
/// family's tag); 0 for `unknown` or a value outside the enumeration.
QUIB_API std::uint32_t tag_key(element_t element);

/// The exact-tag row of (group, number), or null. Binary search over the sorted table.
QUIB_API const data_set_t* find_set(std::uint16_t group, std::uint16_t number);
/// The first masked row in table order that matches (group, number), or null.
QUIB_API const data_map_t* find_map(std::uint16_t group, std::uint16_t number);
/// The exact-tag row of an identity, or null when it is not an exact-tag identity.
QUIB_API const data_set_t* find_set(element_t element);
/// The masked row of an identity, or null when it is not a masked identity.
QUIB_API const data_map_t* find_map(element_t element);

/// The identity whose keyword is `keyword` ("PatientName"), or `unknown`. Exact, case-sensitive.
QUIB_API element_t find_keyword(std::string_view keyword);
/// The keyword of an identity ("PatientName"); empty for `unknown` or a value outside the
/// enumeration. Dictionary rows without a keyword are named Element_GGGGEEEE or
/// Retired_GGGGEEEE.
QUIB_API std::string_view get_keyword(element_t element);

/// Decodes text written in the character set named by a Specific Character Set value (for
/// example "ISO_IR 100" or "ISO_IR 192"; several values separated by backslashes) to UTF-8.
/// Handles the default repertoire, ISO_IR 192 (UTF-8), the single-byte ISO_IR sets (Latin
/// alphabets 1-5 and 9, Cyrillic, Arabic, Greek, Hebrew, Thai, Katakana) with or without their
/// ISO 2022 escapes, GB18030 and GBK. The default repertoire and a character set that is not
/// known read bytes above 0x7F as Latin-1; bytes that are not text in a known set become
/// U+FFFD. Never fails.
QUIB_API std::string decode_text(std::string_view charset, std::string_view bytes);

/// True when data in the given byte order (little-endian when `little`) must be byte-swapped
/// to be read on this host.
constexpr bool is_swap_endian(bool little) {
#if defined(__BYTE_ORDER__) && defined(__ORDER_BIG_ENDIAN__) && \
    __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  return little;
#else
  return !little;
#endif
}

/// Byte-swaps every 16-bit field and byte-reverses every 32-bit field when `swap` is true;
/// VR characters are never touched. The two-argument forms work in place, the others copy
/// `source` into `target` first.
inline void swap_endian(std::uint16_t& value, bool swap) {
  if (swap) value = static_cast<std::uint16_t>((value >> 8) | (value << 8));
}
inline void swap_endian(std::uint32_t& value, bool swap) {
  if (swap) {
    value =
        (value >> 24) | ((value >> 8) & 0x0000FF00u) | ((value << 8) & 0x00FF0000u) | (value << 24);
  }
}
inline void swap_endian(data_tag_t& value, bool swap) {
  swap_endian(value.group, swap);
  swap_endian(value.number, swap);
}
inline void swap_endian(data_type_t& value, bool swap) {
  swap_endian(value.group, swap);
  swap_endian(value.number, swap);
}
inline void swap_endian(data_short_t& value, bool swap) {
  swap_endian(value.group, swap);
  swap_endian(value.number, swap);
  swap_endian(value.length, swap);
}
inline void swap_endian(data_long_t& value, bool swap) {
  swap_endian(value.group, swap);
  swap_endian(value.number, swap);
  swap_endian(value.reserved, swap);
  swap_endian(value.length, swap);
}
inline void swap_endian(data_implicit_t& value, bool swap) {
  swap_endian(value.group, swap);
  swap_endian(value.number, swap);
  swap_endian(value.length, swap);
}
template <class T>
void swap_endian(T& target, const T& source, bool swap) {
  target = source;
  swap_endian(target, swap);
}

}  // namespace dicom

/// A DICOM file read into a flat table that maps each element's tag key (dicom::tag_key) to
/// the bytes of its value exactly as stored, in the file's byte order. Only what is needed to
/// walk the file is interpreted: the all-zero 128-byte preamble and "DICM", the byte order of
/// the meta group, implicit or explicit VR, and transfer syntax UIDs wherever a UI element
/// stands. Sequences of defined length are kept whole; the items of undefined-length sequences
/// are read as if their elements stood at the top level (a later element replaces an earlier
/// one with the same tag). In implicit-VR data the members of a repeating group share their
/// family's tag, for example every overlay group 60xx is stored under 6000.
///
/// The table owns its values; copies copy them. load returns -1 and leaves the table empty
/// when the file cannot be opened or its preamble or magic is refused; a truncated or
/// malformed file keeps the elements read before the damage. No value is allocated beyond
/// what the file still holds. Only allocation failure throws. A Dicom object belongs to one
/// thread at a time; const access from several threads is safe.
///
///     quib::Dicom file(L"ct.dcm");
///     auto rows = file->find(quib::dicom::tag_key(quib::dicom::Rows));
///     if (rows != file->end() && rows->second.size() == 2) { /* decode 2 bytes */ }
class QUIB_API Dicom {
 public:
  using table_t = std::unordered_map<std::uint32_t, std::vector<unsigned char>>;

  /// One element header: tag, VR and value length, with lazily found dictionary rows.
  /// A Data holds pointers into the static dictionary only; it never owns memory. A
  /// default-constructed Data is empty (group 0). The dictionary lookup of get_element and
  /// get_name caches its result in the object, so one Data belongs to one thread at a time.
  ///
  ///     quib::Dicom::Data data(0x0010, 0x0010, 8);
  ///     std::string name = data.get_name();  // "Patient's Name"
  class QUIB_API Data {
   public:
    Data() = default;
    /// Fields as given; dictionary rows are found on first use.
    Data(std::uint16_t group, std::uint16_t number, std::uint16_t type, std::uint32_t size);
    /// Type 0; both dictionary rows are looked up at once.
    Data(std::uint16_t group, std::uint16_t number, std::uint32_t size);
    /// Group, number and VR from the row; a null row gives an empty Data of that size.
    Data(const dicom::data_set_t* row, std::uint32_t size);
    /// The family's group and number values and the VR from the row; null as above.
    Data(const dicom::data_map_t* row, std::uint32_t size);

    std::uint16_t get_group() const { return group_; }
    std::uint16_t get_number() const { return number_; }
    /// The VR as two little-endian characters ("OB" is 0x424F); 0 when unknown.
    std::uint16_t get_type() const { return type_; }
    /// The value length; 0xFFFFFFFF is an undefined length.
    std::uint32_t get_size() const { return size_; }
    std::uint32_t get_tag() const { return dicom::tag_key(group_, number_); }
    bool is() const { return group_ != 0; }
    bool empty() const { return group_ == 0; }
    /// The dictionary identity: an exact-tag row wins over a masked one; `unknown` when
    /// neither table knows the tag.
    dicom::element_t get_element() const;
    /// The dictionary name, found as in get_element; empty when unknown.
    std::string get_name() const;

   private:
    void look_up() const;

    std::uint16_t group_ = 0;
    std::uint16_t number_ = 0;
    std::uint16_t type_ = 0;
    std::uint32_t size_ = 0;
    mutable const dicom::data_set_t* set_ = nullptr;
    mutable const dicom::data_map_t* map_ = nullptr;
    mutable bool looked_up_ = false;
  };

  /// The state of a walk over a DICOM stream, and its three steps: the file header, one
  /// element header, one element value. Each step returns (success, byte count) and, when it
  /// fails, puts the stream back where the step began (a stream that ran out keeps reporting
  /// end of file). The Analyzer holds four flags only; the caller owns the stream and the
  /// buffers. One Analyzer belongs to one walk on one thread.
  ///
  ///     quib::Dicom::Analyzer walk;
  ///     std::shared_ptr<quib::Dicom::Data> data;
  ///     std::vector<unsigned char> value;
  ///     if (walk.read_header(in).first)
  ///       while (walk.read_data(in, data).first && walk.read_buffer(in, data, value).first) {}
  class QUIB_API Analyzer {
   public:
    using result_t = std::pair<bool, std::uint32_t>;

    /// All four flags true: meta group, implicit VR, little-endian meta and data set.
    Analyzer() = default;

    /// Checks the 128 zero bytes of the preamble (fails with 128), "DICM" (fails with 132)
    /// and that an element follows (fails with 136); a meta group whose group number is
    /// written big-endian clears meta_little. Succeeds with 132, positioned after "DICM".
    result_t read_header(std::istream& in);
    /// Reads one element header into `data` (reusing the object when `data` is its only
    /// owner). Succeeds with the header's size (8 or 12). Fails with 4 when the tag is cut
    /// short, with 0 when the meta group has just ended (meta is then false and the same
    /// bytes are read again as a data set element), with 8 or 12 when the rest of the header
    /// is cut short, and with 8 for a meta element whose VR is not known. `data` keeps its
    /// earlier contents after a failure.
    result_t read_data(std::istream& in, std::shared_ptr<Data>& data);
    /// Reads the value of the element `data` describes into `value`. Fails with 0xFFFFFFFF on
    /// an undefined length (nothing read), with the length when the stream holds fewer bytes
    /// (nothing allocated beyond what is there), and with 0 for a null `data`; `value` is
    /// empty after a failure. A UI value that names a transfer syntax switches the data set's
    /// VR form and byte order.
    result_t read_buffer(std::istream& in, const std::shared_ptr<Data>& data,
                         std::vector<unsigned char>& value);

    bool is_meta() const { return meta_; }
    bool is_implicit() const { return implicit_; }
    bool is_meta_little() const { return meta_little_; }
    bool is_endian_little() const { return endian_little_; }
    bool is_meta_swap() const { return dicom::is_swap_endian(meta_little_); }
    bool is_endian_swap() const { return dicom::is_swap_endian(endian_little_); }

   private:
    bool meta_ = true;
    bool implicit_ = true;
    bool meta_little_ = true;
    bool endian_little_ = true;
  };

  /// How load reads a file. READ_CLASSIC is the walk described above, kept as the library's
  /// hosts know it. READ_STANDARD reads the file as DICOM toolkits do: any 128-byte preamble;
  /// the transfer syntax comes from (0002,0010) alone (implicit VR little-endian when there is
  /// none; explicit VR big-endian for 1.2.840.10008.1.2.2; deflated data inflated and read as
  /// explicit VR little-endian; every other UID explicit VR little-endian); an element of
  /// undefined length (a sequence, encapsulated Pixel Data) is stored whole as the bytes
  /// between its header and its own Sequence Delimitation Item; tags are stored as read, the
  /// first of two equal tags wins. A data set declared explicit whose first element carries no
  /// VR is read as implicit, and a UN element of undefined length holds implicit VR
  /// little-endian items. The table then holds exactly the file's top-level elements.
  enum read_t { READ_CLASSIC = 0, READ_STANDARD = 1 };

  /// An inflated data set may grow to at most kInflateRatio times its compressed size plus
  /// kInflateSlack bytes; reading ends there as at any other damage.
  static constexpr std::uint64_t kInflateRatio = 200;
  static constexpr std::uint64_t kInflateSlack = std::uint64_t{64} << 20;
  /// Sequences may be read into items this many levels deep (read_items fails below).
  static constexpr unsigned kMaxDepth = 64;

  /// What a load learned about the data as a whole: how it was read, whether reading reached
  /// its end, and the encoding that the values of the table use.
  struct Info {
    read_t how = READ_CLASSIC;
    /// Reading reached the end of the data (no element cut short or damaged).
    bool complete = false;
    /// Where reading stopped: the offset of the first element not read, or the data's size
    /// when complete. In a deflated file, offsets past the meta group count inflated bytes.
    std::uint64_t stop = 0;
    /// Byte order of the meta group (group 0002) values.
    bool meta_little = true;
    /// The data set's encoding, as the walk last used it.
    bool implicit = true;
    bool little = true;
    /// The data set was deflated (values are kept inflated).
    bool deflated = false;
    /// The transfer syntax UID without padding; empty when the file names none.
    std::string syntax;
    /// The Specific Character Set (0008,0005) in force, as written; items inherit it.
    std::string charset;
    /// 0 for a file; n for an item read from a sequence n levels down.
    unsigned depth = 0;
  };

  /// One element of the table in tag order: its key, the VR it was read with (explicit data:
  /// as the file wrote it; implicit data: the dictionary's, 0 when unknown), and whether its
  /// length was undefined in the file.
  struct Entry {
    std::uint32_t key;
    std::uint16_t type;
    bool undefined;
  };

  /// Names one element for look-ups: a table key, a dictionary identity, a group and number,
  /// a keyword such as "PatientName", or a tag written "0010,0010", "(0010,0010)" or
  /// "00100010" (hexadecimal). Text that names nothing gives a Tag that is not `is()`.
  class QUIB_API Tag {
   public:
    Tag(std::uint32_t key) : key_(key), valid_(true) {}
    Tag(std::uint16_t group, std::uint16_t number) : key_(dicom::tag_key(group, number)) {}
    Tag(dicom::element_t element);
    Tag(std::string_view text);
    Tag(const char* text) : Tag(std::string_view(text != nullptr ? text : "")) {}
    std::uint32_t get_key() const { return key_; }
    std::uint16_t get_group() const { return std::uint16_t(key_ & 0xFFFF); }
    std::uint16_t get_number() const { return std::uint16_t(key_ >> 16); }
    bool is() const { return valid_; }
    bool empty() const { return !valid_; }

   private:
    std::uint32_t key_ = 0;
    bool valid_ = true;
  };

  /// A person's name (PN) split into its components. The alphabetic group is split into
  /// family, given, middle, prefix and suffix; the ideographic and phonetic groups are kept as
  /// written (components joined by '^'). Text is UTF-8.
  struct Name {
    std::string family, given, middle, prefix, suffix;
    std::string ideographic, phonetic;
  };

  /// A date (DA), a time (TM) or both (DT). Fields the value does not give are -1; `microsecond`
  /// counts the fraction of the second; `offset` is the UTC offset in minutes when
  /// `has_offset`.
  struct DateTime {
    int year = -1, month = -1, day = -1;
    int hour = -1, minute = -1, second = -1, microsecond = -1;
    int offset = 0;
    bool has_offset = false;
  };

  Dicom() = default;
  /// Calls load(path).
  explicit Dicom(const std::wstring& path);
  Dicom(const Dicom&) = default;
  Dicom& operator=(const Dicom&) = default;
  Dicom(Dicom&&) noexcept = default;
  Dicom& operator=(Dicom&&) noexcept = default;
  ~Dicom() = default;

  /// Reads the file; returns the number of distinct tags stored, or -1 (table emptied) when
  /// the file cannot be opened or its preamble and magic are refused.
  int load(const std::wstring& path);
  /// The same from a seekable stream positioned anywhere (the file header is read from offset
  /// 0). A stream whose exceptions the caller has enabled may throw them.
  int load(std::istream& in);
  /// Reads the file in the given way (see read_t); returns the number of distinct tags stored,
  /// or -1 (table emptied) when the file cannot be opened, is a folder, or its magic is
  /// refused. A damaged or cut file keeps what was read before the damage: see is_complete.
  int load(const std::wstring& path, read_t how);
  /// The same from a seekable stream positioned anywhere (the file header is read from offset
  /// 0); a stream that cannot seek is read front to back by READ_STANDARD.
  int load(std::istream& in, read_t how);

  /// What the last load learned; a default or cleared object holds a default Info.
  const Info& get_info() const { return info_; }
  /// True when the last load read to the end of the data: nothing was cut short or damaged.
  bool is_complete() const { return info_.complete; }
  /// Where the last load stopped (see Info::stop).
  std::uint64_t get_stop_offset() const { return info_.stop; }
  /// The elements as loaded, in tag order (group, then number), with the VR each was read
  /// with. Changes made through elements() are not reflected here.
  const std::vector<Entry>& get_entries() const { return entries_; }
  /// The VR an element was read with (as in Entry), or 0 when the table has no such element.
  std::uint16_t get_type(Tag tag) const;
  /// The value of an element, or null when the table has none (or the tag names nothing).
  const std::vector<unsigned char>* find(Tag tag) const;

  // Typed values. Each reads one element as its VR (get_type) says, in the byte order it was
  // read in, and returns the number of values, or -1 when the table has no such element, the
  // VR does not fit the call, or a value does not parse; the vector is empty after -1. Bytes
  // after the last whole binary value are ignored. Text is decoded to UTF-8 under the Specific
  // Character Set (0008,0005) in force (see dicom::decode_text).

  /// Numbers: US SS UL SL UV SV FL FD, DS and IS written as text, and OB OW OL OV OF OD.
  int get_numbers(Tag tag, std::vector<double>& values) const;
  /// Whole numbers: US SS UL SL UV SV and IS (-1 for an UV above the int64 range).
  int get_integers(Tag tag, std::vector<std::int64_t>& values) const;
  /// Tags (AT), as table keys.
  int get_tags(Tag tag, std::vector<std::uint32_t>& values) const;
  /// Text VRs, split at backslashes (LT ST UT UR are one value) and trimmed of the padding and
  /// blanks the VR allows (LT ST UT keep their leading blanks).
  int get_strings(Tag tag, std::vector<std::string>& values) const;
  /// The whole text of a text element, decoded, without trailing padding; -1 as above.
  int get_text(Tag tag, std::string& text) const;
  /// Person names (PN).
  int get_names(Tag tag, std::vector<Name>& values) const;
  /// Dates, times and date-times (DA TM DT); the older forms "YYYY.MM.DD" and "HH:MM:SS" are
  /// read too.
  int get_dates(Tag tag, std::vector<DateTime>& values) const;

  // Sequences.

  /// Reads the items of a sequence (SQ, a UN element holding items, or an element of unknown
  /// VR whose value starts with an item) into their own tables, each read like this one's data
  /// set (a UN value in implicit VR little-endian), with this object's character set unless an
  /// item names its own. Returns the number of items, or -1 when there is no such element, its
  /// value holds no items, or the items would lie deeper than kMaxDepth. Damage inside the
  /// value ends reading: the items before it stay, and the last item is not `is_complete()`
  /// (an item cut before its header is appended empty). Each item's Info::depth is one more
  /// than this object's.
  int read_items(Tag tag, std::vector<Dicom>& items) const;
  /// The items of an encapsulated value (Pixel Data of undefined length): the offset and size
  /// of each item's bytes within the value, the Basic Offset Table first. Returns the number
  /// of items, or -1 when there is no such element or its value is not a list of items; a cut
  /// item ends the list.
  int get_fragments(Tag tag, std::vector<std::pair<std::size_t, std::size_t>>& fragments) const;

  table_t& elements() { return table_; }
  const table_t& elements() const { return table_; }
  table_t& operator*() { return table_; }
  const table_t& operator*() const { return table_; }
  table_t* operator->() { return &table_; }
  const table_t* operator->() const { return &table_; }

  bool is() const { return !table_.empty(); }
  bool empty() const { return table_.empty(); }
  void clear() {
    table_.clear();
    entries_.clear();
    info_ = Info();
  }
  void swap(Dicom& other) noexcept {
    table_.swap(other.table_);
    entries_.swap(other.entries_);
    std::swap(info_, other.info_);
  }

 private:
  table_t table_;
  std::vector<Entry> entries_;
  Info info_;
};

}  // namespace quib
