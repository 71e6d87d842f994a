#include <quib/dicom.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace {

using quib::Dicom;
using quib::dicom::tag_key;
namespace fs = std::filesystem;

const char* const kImplicit = "1.2.840.10008.1.2";
const char* const kExplicit = "1.2.840.10008.1.2.1";
const char* const kDeflated = "1.2.840.10008.1.2.1.99";
const char* const kBig = "1.2.840.10008.1.2.2";

bool long_form(const std::string& vr) {
  for (const char* v :
       {"OB", "OD", "OF", "OL", "OV", "OW", "SQ", "SV", "UC", "UN", "UR", "UT", "UV"}) {
    if (vr == v) return true;
  }
  return false;
}

// Builds a DICOM file byte by byte: preamble, "DICM", then elements in the current encoding.
struct Builder {
  std::string bytes = std::string(128, '\0') + "DICM";
  bool little = true;
  bool implicit = false;

  Builder& u16(unsigned v) {
    unsigned char b[2] = {static_cast<unsigned char>(v), static_cast<unsigned char>(v >> 8)};
    if (!little) std::swap(b[0], b[1]);
    bytes.append(reinterpret_cast<char*>(b), 2);
    return *this;
  }
  Builder& u32(std::uint32_t v) {
    if (little) return u16(v & 0xFFFF).u16(v >> 16);
    return u16(v >> 16).u16(v & 0xFFFF);
  }
  // One element with a value; the length field says `length` (the value's size by default).
  Builder& put(unsigned group, unsigned number, const std::string& vr, const std::string& value,
               std::uint32_t length = 0xFFFFFFFEu) {
    if (length == 0xFFFFFFFEu) length = std::uint32_t(value.size());
    u16(group).u16(number);
    if (implicit || group == 0xFFFE) {
      u32(length);
    } else if (long_form(vr)) {
      bytes += vr;
      u16(0).u32(length);
    } else {
      bytes += vr;
      u16(length);
    }
    bytes += value;
    return *this;
  }
  Builder& undefined(unsigned group, unsigned number, const std::string& vr) {
    return put(group, number, vr, "", 0xFFFFFFFFu);
  }
  // An explicit little-endian meta group naming `uid` as the transfer syntax.
  Builder& meta(const std::string& uid) {
    bool was = implicit;
    implicit = false;
    put(0x0002, 0x0001, "OB", std::string("\0\1", 2));
    put(0x0002, 0x0010, "UI", uid.size() % 2 ? uid + '\0' : uid);
    implicit = (uid == kImplicit);
    little = (uid == kImplicit || uid == kExplicit);
    (void)was;
    return *this;
  }
};

std::vector<unsigned char> bytes_of(const std::string& s) {
  return {s.begin(), s.end()};
}

std::vector<unsigned char> value_of(const Dicom& d, unsigned group, unsigned number) {
  auto it = d->find(tag_key(std::uint16_t(group), std::uint16_t(number)));
  return it == d->end() ? std::vector<unsigned char>{} : it->second;
}

bool has(const Dicom& d, unsigned group, unsigned number) {
  return d->count(tag_key(std::uint16_t(group), std::uint16_t(number))) != 0;
}

int load_bytes(Dicom& d, const std::string& bytes) {
  std::istringstream in(bytes);
  return d.load(in);
}

// A fresh directory under the system's temporary directory, removed with the object.
struct TempDir {
  fs::path path;
  TempDir() {
    path = fs::temp_directory_path() / ("quib_dicom_" + std::to_string(std::rand()) + "_" +
                                        std::to_string(reinterpret_cast<std::uintptr_t>(this)));
    fs::create_directories(path);
  }
  ~TempDir() {
    std::error_code ec;
    fs::remove_all(path, ec);
  }
  fs::path write(const std::string& name, const std::string& bytes) const {
    fs::path p = path / fs::u8path(name);
    std::ofstream(p, std::ios::binary) << bytes;
    return p;
  }
};

// ------------------------------------------------------------------------------------------
// File header

TEST(Dicom, RefusesFilesWithoutAnAcceptedPreambleAndMagic) {
  Builder good;
  good.meta(kExplicit).put(0x0010, 0x0010, "PN", "Doe^John");
  Dicom d;
  ASSERT_EQ(load_bytes(d, good.bytes), 3);

  std::string nonzero = good.bytes;
  nonzero[77] = 1;
  std::string magic = good.bytes;
  magic[131] = 'N';
  const std::string cases[] = {nonzero,
                               magic,
                               good.bytes.substr(0, 100),
                               good.bytes.substr(0, 132),
                               good.bytes.substr(0, 135),
                               ""};
  for (const std::string& bytes : cases) {
    SCOPED_TRACE(bytes.size());
    Dicom loaded = d;
    EXPECT_EQ(load_bytes(loaded, bytes), -1);
    EXPECT_TRUE(loaded.empty());
  }

  EXPECT_EQ(d.load(L"/nonexistent/quib/file.dcm"), -1);
  EXPECT_TRUE(d.empty());
}

TEST(Dicom, HeaderStepsReportWhereTheyStopped) {
  Builder b;
  b.meta(kExplicit);
  std::string bytes = b.bytes;
  bytes[5] = 'x';
  std::istringstream preamble(bytes);
  Dicom::Analyzer walk;
  EXPECT_EQ(walk.read_header(preamble), Dicom::Analyzer::result_t(false, 128));

  std::istringstream magic(b.bytes.substr(0, 128) + "DICN" + b.bytes.substr(132));
  EXPECT_EQ(walk.read_header(magic), Dicom::Analyzer::result_t(false, 132));

  std::istringstream cut(b.bytes.substr(0, 134));
  EXPECT_EQ(walk.read_header(cut), Dicom::Analyzer::result_t(false, 136));

  std::istringstream in(b.bytes);
  EXPECT_EQ(walk.read_header(in), Dicom::Analyzer::result_t(true, 132));
  EXPECT_EQ(in.tellg(), std::streampos(132));
  EXPECT_TRUE(walk.is_meta_little());
}

TEST(Dicom, OpensWidePathsThroughTheirUtf8Name) {
  TempDir dir;
  Builder b;
  b.meta(kExplicit).put(0x0010, 0x0020, "LO", "ID42");
  dir.write(
      "sch\xc3\xa4"
      "del \xe2\x82\xac\xf0\x9f\x98\x80.dcm",
      b.bytes);
  const std::string narrow = dir.path.string();
  const std::wstring folder(narrow.begin(), narrow.end());  // an ASCII temporary directory
  Dicom d(folder + L"/sch\u00e4del \u20ac\U0001F600.dcm");
  EXPECT_EQ(d->size(), 3u);
  EXPECT_EQ(value_of(d, 0x0010, 0x0020), bytes_of("ID42"));
  EXPECT_EQ(d.load(folder + L"/\xD800.dcm"), -1);  // a lone surrogate is no name
  EXPECT_TRUE(d.empty());
}

// ------------------------------------------------------------------------------------------
// Encodings

TEST(Dicom, ReadsEveryTransferSyntaxKeepingFileByteOrder) {
  for (const char* uid : {kImplicit, kExplicit, kBig, kDeflated}) {
    SCOPED_TRACE(uid);
    Builder b;
    b.meta(uid);
    b.put(0x0010, 0x0010, "PN", "Doe^John");
    b.put(0x0028, 0x0010, "US", std::string("\x02\x00", 2));
    std::string pixels("\x01\x02\x03\x04\x05\x06", 6);
    b.put(0x7FE0, 0x0010, "OW", pixels);
    b.put(0x0040, 0xA160, "UT", "text");

    Dicom d;
    ASSERT_EQ(load_bytes(d, b.bytes), 6);
    EXPECT_EQ(value_of(d, 0x0010, 0x0010), bytes_of("Doe^John"));
    EXPECT_EQ(value_of(d, 0x0028, 0x0010), bytes_of(std::string("\x02\x00", 2)));
    EXPECT_EQ(value_of(d, 0x7FE0, 0x0010), bytes_of(pixels));
    EXPECT_EQ(value_of(d, 0x0040, 0xA160), bytes_of("text"));
  }
}

TEST(Dicom, ImplicitDataTakesVrsFromTheDictionary) {
  Builder b;
  b.meta(kImplicit).put(0x0010, 0x0010, "", "Doe^John").put(0x0009, 0x0010, "", "PRIVATE ");
  std::istringstream in(b.bytes);
  Dicom::Analyzer walk;
  ASSERT_TRUE(walk.read_header(in).first);
  auto data = std::make_shared<Dicom::Data>();
  std::vector<unsigned char> value;
  std::vector<std::uint16_t> types;
  while (true) {
    auto header = walk.read_data(in, data);
    if (!header.first && header.second == 0) continue;
    if (!header.first) break;
    EXPECT_TRUE(walk.read_buffer(in, data, value).first);
    if (!walk.is_meta()) types.push_back(data->get_type());
  }
  ASSERT_EQ(types.size(), 2u);
  EXPECT_EQ(types[0], 'P' | ('N' << 8));
  EXPECT_EQ(types[1], 0);  // a private tag no table knows
  EXPECT_TRUE(walk.is_implicit());
}

TEST(Dicom, BigEndianMetaGroupIsRecognised) {
  Builder b;
  b.little = false;
  b.put(0x0002, 0x0001, "OB", std::string("\0\1", 2))
      .put(0x0002, 0x0010, "UI", kBig + std::string(1, '\0'));
  b.put(0x0010, 0x0010, "PN", "Big^Endian").put(0x0028, 0x0010, "US", std::string("\x00\x05", 2));
  std::istringstream in(b.bytes);
  Dicom::Analyzer walk;
  ASSERT_TRUE(walk.read_header(in).first);
  EXPECT_FALSE(walk.is_meta_little());
  EXPECT_EQ(walk.is_meta_swap(), quib::dicom::is_swap_endian(false));

  Dicom d;
  EXPECT_EQ(load_bytes(d, b.bytes), 4);
  EXPECT_EQ(value_of(d, 0x0028, 0x0010), bytes_of(std::string("\x00\x05", 2)));
}

TEST(Dicom, UiElementSwitchesTheEncodingWhereverItStands) {
  // Explicit little data, then a UI element naming big-endian explicit: the rest is big-endian.
  Builder b;
  b.meta(kExplicit).put(0x0008, 0x0016, "UI", std::string(" ") + kBig + std::string(1, '\0'));
  b.little = false;
  b.put(0x0010, 0x0010, "PN", "After^Switch");
  // ... and back to implicit little, padded with a blank.
  b.put(0x0008, 0x0018, "UI", std::string(kImplicit) + " ");
  b.little = true;
  b.implicit = true;
  b.put(0x0010, 0x0020, "", "ID");

  Dicom d;
  EXPECT_EQ(load_bytes(d, b.bytes), 6);
  EXPECT_EQ(value_of(d, 0x0010, 0x0010), bytes_of("After^Switch"));
  EXPECT_EQ(value_of(d, 0x0010, 0x0020), bytes_of("ID"));

  // A UID that names no transfer syntax changes nothing.
  Builder other;
  other.meta(kExplicit).put(0x0008, 0x0016, "UI", "1.2.840.10008.5.1.4.1.1.2");
  other.put(0x0010, 0x0010, "PN", "Same");
  EXPECT_EQ(load_bytes(d, other.bytes), 4);
  EXPECT_EQ(value_of(d, 0x0010, 0x0010), bytes_of("Same"));
}

// ------------------------------------------------------------------------------------------
// Repeating groups and sequences

TEST(Dicom, RepeatingGroupsShareTheFamilyTagInImplicitDataOnly) {
  for (const char* uid : {kImplicit, kExplicit}) {
    SCOPED_TRACE(uid);
    Builder b;
    b.meta(uid);
    b.put(0x6000, 0x0010, "US", std::string("\x01\x00", 2));
    b.put(0x6002, 0x0010, "US", std::string("\x02\x00", 2));
    b.put(0x5004, 0x3000, "OW", std::string("\x03\x00", 2));
    b.put(0x7FE0, 0x0010, "OW", std::string("\x04\x00", 2));
    Dicom d;
    load_bytes(d, b.bytes);
    EXPECT_TRUE(has(d, 0x7FE0, 0x0010));  // an exact dictionary row wins over the 7Fxx family
    if (uid == kImplicit) {
      EXPECT_EQ(d->size(), 5u);
      EXPECT_EQ(value_of(d, 0x6000, 0x0010), bytes_of(std::string("\x02\x00", 2)));
      EXPECT_FALSE(has(d, 0x6002, 0x0010));
      EXPECT_TRUE(has(d, 0x5000, 0x3000));
    } else {
      EXPECT_EQ(d->size(), 6u);
      EXPECT_EQ(value_of(d, 0x6002, 0x0010), bytes_of(std::string("\x02\x00", 2)));
      EXPECT_TRUE(has(d, 0x5004, 0x3000));
    }
  }
}

TEST(Dicom, UndefinedLengthSequencesAreFlattened) {
  for (const char* uid : {kImplicit, kExplicit, kBig}) {
    SCOPED_TRACE(uid);
    Builder b;
    b.meta(uid);
    b.undefined(0x0008, 0x1140, "SQ");
    b.undefined(0xFFFE, 0xE000, "");
    b.put(0x0008, 0x1150, "UI", "1.2.3.4");
    b.put(0x0008, 0x1155, "UI", "1.2.3.5.");
    b.put(0xFFFE, 0xE00D, "", "");
    b.put(0xFFFE, 0xE000, "", "opaque");  // an item of defined length is kept whole
    b.put(0xFFFE, 0xE0DD, "", "");
    // A defined-length sequence is one opaque value.
    Builder item;
    item.little = b.little;
    item.implicit = b.implicit;
    item.bytes.clear();
    item.put(0xFFFE, 0xE000, "", "").put(0x0010, 0x0020, "LO", "XY");
    b.put(0x0008, 0x1115, "SQ", item.bytes);
    b.put(0x0010, 0x0010, "PN", "After");

    Dicom d;
    EXPECT_EQ(load_bytes(d, b.bytes), 7);
    EXPECT_FALSE(has(d, 0x0008, 0x1140));
    EXPECT_EQ(value_of(d, 0x0008, 0x1150), bytes_of("1.2.3.4"));
    EXPECT_EQ(value_of(d, 0x0008, 0x1155), bytes_of("1.2.3.5."));
    EXPECT_EQ(value_of(d, 0xFFFE, 0xE000), bytes_of("opaque"));
    EXPECT_FALSE(has(d, 0xFFFE, 0xE00D));
    EXPECT_FALSE(has(d, 0xFFFE, 0xE0DD));
    EXPECT_EQ(value_of(d, 0x0008, 0x1115), bytes_of(item.bytes));
    EXPECT_FALSE(has(d, 0x0010, 0x0020));
    EXPECT_EQ(value_of(d, 0x0010, 0x0010), bytes_of("After"));
  }
}

// ------------------------------------------------------------------------------------------
// Damaged files

TEST(Dicom, DamageEndsReadingAndKeepsWhatCameBefore) {
  Builder b;
  b.meta(kExplicit).put(0x0010, 0x0010, "PN", "Doe^John");
  const std::string head = b.bytes;

  struct Case {
    const char* what;
    std::string tail;
  } cases[] = {
      {"lying long length",
       [] {
         Builder t;
         t.bytes.clear();
         t.put(0x7FE0, 0x0010, "OW", std::string(16, 'p'), 0xFFFFFFF0u);
         return t.bytes;
       }()},
      {"3 GB length",
       [] {
         Builder t;
         t.bytes.clear();
         t.put(0x7FE0, 0x0010, "OB", std::string(1000, 'p'), 3000000000u);
         return t.bytes;
       }()},
      {"short value",
       [] {
         Builder t;
         t.bytes.clear();
         t.put(0x0010, 0x0020, "LO", "ABCD", 10);
         return t.bytes;
       }()},
      {"cut header", std::string("\x10\x00\x20\x00LO", 6)},
      {"cut tag", std::string("\x10\x00", 2)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Dicom d;
    EXPECT_EQ(load_bytes(d, head + c.tail), 3);
    EXPECT_EQ(value_of(d, 0x0010, 0x0010), bytes_of("Doe^John"));
  }

  // An unknown VR inside the meta group ends reading there.
  Builder bad;
  bad.put(0x0002, 0x0001, "OB", std::string("\0\1", 2)).put(0x0002, 0x0002, "Q?", "ab");
  bad.put(0x0002, 0x0010, "UI", "1.2.840.10008.1.2.1");
  Dicom d;
  EXPECT_EQ(load_bytes(d, bad.bytes), 1);

  // Every prefix of a file with sequences reads cleanly.
  Builder full;
  full.meta(kBig).undefined(0x0008, 0x1140, "SQ").undefined(0xFFFE, 0xE000, "");
  full.put(0x0008, 0x1150, "UI", "1.2").put(0xFFFE, 0xE00D, "", "").put(0xFFFE, 0xE0DD, "", "");
  full.put(0x7FE0, 0x0010, "OW", "pixels");
  for (std::size_t n = 0; n <= full.bytes.size(); ++n) {
    int count = load_bytes(d, full.bytes.substr(0, n));
    ASSERT_LE(count, 4) << n;
  }
  EXPECT_EQ(load_bytes(d, full.bytes), 4);
}

TEST(Analyzer, FailedStepsPutTheStreamBack) {
  Builder b;
  b.meta(kExplicit).put(0x0010, 0x0010, "PN", "Doe^John", 0xFFFFFF00u);
  std::istringstream in(b.bytes);
  Dicom::Analyzer walk;
  ASSERT_TRUE(walk.read_header(in).first);
  std::shared_ptr<Dicom::Data> data;
  std::vector<unsigned char> value;
  ASSERT_EQ(walk.read_data(in, data), Dicom::Analyzer::result_t(true, 12));
  ASSERT_EQ(walk.read_buffer(in, data, value), Dicom::Analyzer::result_t(true, 2));
  ASSERT_TRUE(walk.read_data(in, data).first);
  ASSERT_TRUE(walk.read_buffer(in, data, value).first);
  EXPECT_FALSE(walk.is_implicit());

  // The meta group ends: the same bytes are then read as a data set element.
  std::streampos at = in.tellg();
  EXPECT_EQ(walk.read_data(in, data), Dicom::Analyzer::result_t(false, 0));
  EXPECT_FALSE(walk.is_meta());
  EXPECT_EQ(in.tellg(), at);
  Dicom::Data* reused = data.get();
  ASSERT_EQ(walk.read_data(in, data), Dicom::Analyzer::result_t(true, 8));
  EXPECT_EQ(data.get(), reused);
  EXPECT_EQ(data->get_size(), 0xFF00u);  // the short form keeps only 16 bits

  // A value longer than the stream: nothing is read or kept.
  EXPECT_EQ(walk.read_buffer(in, data, value), Dicom::Analyzer::result_t(false, 0xFF00));
  EXPECT_TRUE(value.empty());
  EXPECT_TRUE(in.eof());

  auto undefined = std::make_shared<Dicom::Data>(0x0008, 0x1140, 'S' | ('Q' << 8), 0xFFFFFFFFu);
  EXPECT_EQ(walk.read_buffer(in, undefined, value), Dicom::Analyzer::result_t(false, 0xFFFFFFFFu));
  EXPECT_EQ(walk.read_buffer(in, nullptr, value), Dicom::Analyzer::result_t(false, 0));
}

// ------------------------------------------------------------------------------------------
// Dictionary

TEST(Dictionary, FindsRowsByTagAndIdentity) {
  namespace dicom = quib::dicom;
  const dicom::data_set_t* name = dicom::find_set(0x0010, 0x0010);
  ASSERT_NE(name, nullptr);
  EXPECT_STREQ(name->name, "Patient's Name");
  EXPECT_EQ(name->element, dicom::PatientName);
  EXPECT_EQ(name->type, 'P' | ('N' << 8));
  EXPECT_EQ(dicom::find_set(dicom::PatientName), name);
  EXPECT_EQ(dicom::find_set(0x0010, 0x0011), nullptr);
  EXPECT_EQ(dicom::find_set(0x0009, 0x0010), nullptr);
  EXPECT_EQ(dicom::find_set(dicom::unknown), nullptr);
  EXPECT_EQ(dicom::tag_key(dicom::PixelData), 0x00107FE0u);

  const dicom::data_map_t* overlay = dicom::find_map(0x601E, 0x3000);
  ASSERT_NE(overlay, nullptr);
  EXPECT_EQ(overlay->element, dicom::OverlayData);
  EXPECT_EQ(dicom::find_map(dicom::OverlayData), overlay);
  EXPECT_EQ(dicom::find_set(dicom::OverlayData), nullptr);
  EXPECT_EQ(dicom::find_map(dicom::PatientName), nullptr);
  EXPECT_EQ(dicom::find_map(0x6001, 0x3000), nullptr);  // odd groups are private
  EXPECT_EQ(dicom::find_map(0x6020, 0x3000), nullptr);  // past the last overlay group
  EXPECT_NE(dicom::find_map(0x0028, 0x0410), nullptr);  // an element range
  EXPECT_EQ(dicom::find_map(dicom::element_t(dicom::set_count + dicom::map_count + 1)), nullptr);

  // Every exact row is found again by its tag, rows are sorted, identities follow the order.
  for (std::uint32_t i = 1; i <= dicom::set_count; ++i) {
    const dicom::data_set_t* row = dicom::find_set(dicom::element_t(i));
    ASSERT_NE(row, nullptr);
    ASSERT_EQ(row->element, dicom::element_t(i));
    ASSERT_EQ(dicom::find_set(row->group, row->number), row) << i;
    if (i > 1) {
      const dicom::data_set_t* before = row - 1;
      ASSERT_LT(tag_key(before->number, before->group), tag_key(row->number, row->group));
    }
  }
}

TEST(Dictionary, DataLooksUpExactRowsBeforeFamilies) {
  namespace dicom = quib::dicom;
  EXPECT_EQ(Dicom::Data(0x7FE0, 0x0010, 'O' | ('W' << 8), 4).get_element(), dicom::PixelData);
  Dicom::Data overlay(0x6004, 0x0010, 2);
  EXPECT_EQ(overlay.get_element(), dicom::OverlayRows);
  EXPECT_EQ(overlay.get_name(), "Overlay Rows");
  EXPECT_EQ(overlay.get_type(), 0);
  EXPECT_EQ(Dicom::Data(dicom::find_map(dicom::OverlayRows), 2).get_tag(), 0x00106000u);

  Dicom::Data unknown(0x0009, 0x1001, 0, 2);
  EXPECT_EQ(unknown.get_element(), dicom::unknown);
  EXPECT_EQ(unknown.get_name(), "");
  EXPECT_TRUE(Dicom::Data().empty());
  EXPECT_TRUE(Dicom::Data(static_cast<const dicom::data_set_t*>(nullptr), 0).empty());

  // Names are whole, including the long ones and their suffixes.
  EXPECT_EQ(
      Dicom::Data(dicom::find_set(dicom::AnatomicLocationOfExaminingInstrumentDescriptionTrial), 0)
          .get_name(),
      "Anatomic Location Of Examining Instrument Description (Trial)");
}

TEST(Dictionary, SwapEndianLeavesVrCharacters) {
  namespace dicom = quib::dicom;
  dicom::data_long_t h{0x0010, 0x7FE0, {'O', 'B'}, 0x0102, 0x11223344u};
  dicom::data_long_t s{};
  dicom::swap_endian(s, h, true);
  EXPECT_EQ(s.group, 0x1000);
  EXPECT_EQ(s.number, 0xE07F);
  EXPECT_EQ(s.vr[0], 'O');
  EXPECT_EQ(s.vr[1], 'B');
  EXPECT_EQ(s.reserved, 0x0201);
  EXPECT_EQ(s.length, 0x44332211u);
  dicom::swap_endian(s, false);
  EXPECT_EQ(s.length, 0x44332211u);
  dicom::data_implicit_t i{0x0002, 0x0010, 0x01000000u};
  dicom::swap_endian(i, true);
  EXPECT_EQ(i.group, 0x0200);
  EXPECT_EQ(i.length, 1u);
  EXPECT_NE(dicom::is_swap_endian(true), dicom::is_swap_endian(false));
}

// ------------------------------------------------------------------------------------------
// Files made by dcmtk, compared with dcmdump's view of them

bool have_dcmtk() {
  return std::system(
             "command -v dump2dcm >/dev/null 2>&1 && command -v dcmconv >/dev/null 2>&1"
             " && command -v dcmdump >/dev/null 2>&1") == 0;
}

std::string run(const std::string& command) {
  std::string out;
  if (FILE* p = popen(command.c_str(), "r")) {
    char buf[4096];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0)
      out.append(buf, n);
    pclose(p);
  }
  return out;
}

struct Expected {
  std::string vr;
  std::uint32_t length;
  std::string shown;  // dcmdump's value column
};

// What the table should hold by dcmdump's listing: undefined-length sequences and items are
// walked into, defined-length ones are kept whole, delimiters are dropped, later tags win.
std::map<std::uint32_t, Expected> expected_from_dump(const std::string& dump, bool meta_only) {
  std::map<std::uint32_t, Expected> table;
  std::regex line(R"(^( *)\(([0-9a-f]{4}),([0-9a-f]{4})\) (\w\w) (.*?) *# *(u/l|\d+), )");
  std::istringstream in(dump);
  std::string text;
  std::size_t skip_deeper = std::string::npos;
  while (std::getline(in, text)) {
    std::smatch m;
    if (!std::regex_search(text, m, line)) continue;
    std::size_t depth = m[1].length();
    if (depth > skip_deeper) continue;
    skip_deeper = std::string::npos;
    unsigned group = std::stoul(m[2], nullptr, 16);
    unsigned number = std::stoul(m[3], nullptr, 16);
    if (meta_only && group != 2) continue;
    if (group == 0xFFFE && (number == 0xE00D || number == 0xE0DD)) continue;
    if (m[6] == "u/l") continue;
    if (m[4] == "SQ" || group == 0xFFFE) skip_deeper = depth;
    table[tag_key(std::uint16_t(group), std::uint16_t(number))] =
        Expected{m[4], std::uint32_t(std::stoul(m[6])), m[5]};
  }
  return table;
}

TEST(DcmtkFiles, MatchDcmdumpInEveryTransferSyntax) {
  if (!have_dcmtk()) {
    GTEST_SKIP() << "dcmtk tools not on PATH";
  }
  TempDir dir;
  dir.write("in.dump",
            "(0008,0016) UI [1.2.840.10008.5.1.4.1.1.2]\n"
            "(0008,0018) UI [1.2.3.4.5.6]\n"
            "(0008,0060) CS [CT]\n"
            "(0008,1140) SQ (Sequence with undefined length)\n"
            "  (fffe,e000) na (Item with undefined length)\n"
            "    (0008,1150) UI [1.2.840.10008.5.1.4.1.1.2]\n"
            "    (0008,1155) UI [1.2.3.4.5.7]\n"
            "  (fffe,e00d) na (ItemDelimitationItem)\n"
            "(fffe,e0dd) na (SequenceDelimitationItem)\n"
            "(0010,0010) PN [Doe^John]\n"
            "(0010,0020) LO [ID 42]\n"
            "(0018,0050) DS [1.25]\n"
            "(0020,0013) IS [7]\n"
            "(0028,0010) US 2\n"
            "(0028,0011) US 3\n"
            "(0028,0100) US 16\n"
            "(0028,1050) DS [40\\400]\n"
            "(0040,a160) UT [some longer text value]\n"
            "(7fe0,0010) OW 0001\\0203\\0405\\0607\\0809\\0a0b\n");
  const std::string d = dir.path.string() + "/";
  ASSERT_EQ(std::system(("dump2dcm -q " + d + "in.dump " + d + "base.dcm").c_str()), 0);

  struct Syntax {
    const char* option;
    bool little;
  } syntaxes[] = {{"+ti", true}, {"+te", true}, {"+tb", false}, {"+td", true}};
  for (const Syntax& s : syntaxes) {
    for (const char* lengths : {"+e", "-e"}) {
      std::string name = d + std::string(s.option + 1) + lengths + ".dcm";
      SCOPED_TRACE(name);
      ASSERT_EQ(std::system(("dcmconv -q " + std::string(s.option) + " " + lengths + " " + d +
                             "base.dcm " + name)
                                .c_str()),
                0);
      const bool deflated = std::string(s.option) == "+td";  // not inflated: meta group only
      auto expected = expected_from_dump(run("dcmdump -q +L -Un " + name), deflated);
      ASSERT_GT(expected.size(), deflated ? 4u : 20u);

      Dicom file(std::wstring(name.begin(), name.end()));
      std::size_t matched = 0;
      for (const auto& [key, e] : expected) {
        SCOPED_TRACE(testing::Message() << std::hex << (key & 0xFFFF) << "," << (key >> 16));
        auto it = file->find(key);
        ASSERT_NE(it, file->end());
        const std::vector<unsigned char>& v = it->second;
        EXPECT_EQ(v.size(), e.length);
        if (e.shown.size() >= 2 && e.shown.front() == '[') {
          std::string text(v.begin(), v.end());
          while (!text.empty() && (text.back() == ' ' || text.back() == '\0'))
            text.pop_back();
          EXPECT_EQ("[" + text + "]", e.shown);
        } else if (e.vr == "US" && v.size() == 2) {
          const bool little = (key & 0xFFFF) == 2 || s.little;
          unsigned n = little ? v[0] | (v[1] << 8) : v[1] | (v[0] << 8);
          EXPECT_EQ(std::to_string(n), e.shown);
        } else if (e.vr == "OW") {
          std::string words;
          for (std::size_t i = 0; i + 1 < v.size(); i += 2) {
            unsigned n = s.little ? v[i] | (v[i + 1] << 8) : v[i + 1] | (v[i] << 8);
            char buf[8];
            std::snprintf(buf, sizeof buf, "%s%04x", i ? "\\" : "", n);
            words += buf;
          }
          EXPECT_EQ(words, e.shown);
        }
        ++matched;
      }
      if (!deflated) {
        EXPECT_EQ(file->size(), matched);
      }
    }
  }
}

}  // namespace
