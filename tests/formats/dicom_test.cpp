#include "dicom_test_util.hpp"

#include <quib/dicom.hpp>

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace quib_test;
using Result = Dicom::Analyzer::result_t;

TEST(Dicom, RefusesFilesWithoutAnAcceptedPreambleAndMagic) {
  Builder good;
  good.meta(kExplicit).put(0x0010, 0x0010, "PN", "Doe^John");
  std::string nonzero = good.bytes, magic = good.bytes;
  nonzero[77] = 1;
  magic[131] = 'N';
  Dicom::Analyzer walk;
  const struct {
    std::string bytes;
    std::uint32_t stop;
  } cases[] = {{nonzero, 128},
               {magic, 132},
               {good.bytes.substr(0, 100), 128},
               {good.bytes.substr(0, 134), 136},
               {"", 128}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.stop);
    Dicom d;
    ASSERT_EQ(load_bytes(d, good.bytes), 3);
    EXPECT_EQ(load_bytes(d, c.bytes), -1);
    EXPECT_TRUE(d.empty());
    std::istringstream in(c.bytes);
    EXPECT_EQ(walk.read_header(in), Result(false, c.stop));
  }
  Dicom d;
  EXPECT_EQ(d.load(L"/nonexistent/quib/file.dcm"), -1);
}

TEST(Dicom, OpensWidePathsThroughTheirUtf8Name) {
  TempDir dir;
  Builder b;
  b.meta(kExplicit).put(0x0010, 0x0020, "LO", "ID42");
  dir.write(
      "sch\xc3\xa4"
      "del \xe2\x82\xac\xf0\x9f\x98\x80.dcm",
      b.bytes);
  const std::string folder = dir.path.string();  // ASCII
  Dicom d(std::wstring(folder.begin(), folder.end()) + L"/sch\u00e4del \u20ac\U0001F600.dcm");
  EXPECT_EQ(value_of(d, 0x0010, 0x0020), bytes_of("ID42"));
  EXPECT_EQ(d.load(std::wstring(folder.begin(), folder.end()) + L"/\xD800.dcm"), -1);
}

TEST(Dicom, ReadsFilesLargerThanTheirReadBuffer) {
  TempDir dir;
  Builder b;
  b.meta(kExplicit);
  for (unsigned i = 0; i < 30000; ++i)
    b.put(0x0F00 + 2 * (i / 4096), 0x10 + i % 4096, "LO", std::to_string(1000000 + i) + "x");
  const std::string pixels(std::size_t{9} << 20, 'p');  // large enough for huge pages
  b.put(0x7FE0, 0x0010, "OW", pixels);
  const std::string path = dir.write("big.dcm", b.bytes);
  Dicom d(std::wstring(path.begin(), path.end()));
  ASSERT_EQ(d->size(), 30003u);
  for (unsigned i = 0; i < 30000; i += 997)
    EXPECT_EQ(value_of(d, 0x0F00 + 2 * (i / 4096), 0x10 + i % 4096),
              bytes_of(std::to_string(1000000 + i) + "x"));
  EXPECT_EQ(value_of(d, 0x7FE0, 0x0010), bytes_of(pixels));
}

TEST(Dicom, ReadsEveryEncodingKeepingFileByteOrder) {
  for (const std::string& uid : {kImplicit, kExplicit, kBig, kDeflated}) {
    SCOPED_TRACE(uid);
    Builder b;
    b.meta(uid).put(0x0010, 0x0010, "PN", "Doe^John").put(0x0028, 0x0010, "US", "\x02");
    b.put(0x7FE0, 0x0010, "OW", "\x01\x02\x03\x04").put(0x0040, 0xA160, "UT", "text");
    Dicom d;
    ASSERT_EQ(load_bytes(d, b.bytes), 6);
    EXPECT_EQ(value_of(d, 0x0010, 0x0010), bytes_of("Doe^John"));
    EXPECT_EQ(value_of(d, 0x0028, 0x0010), bytes_of("\x02"));
    EXPECT_EQ(value_of(d, 0x7FE0, 0x0010), bytes_of("\x01\x02\x03\x04"));
    EXPECT_EQ(value_of(d, 0x0040, 0xA160), bytes_of("text"));
  }
  // A meta group written big-endian.
  Builder b;
  b.little = false;
  b.put(0x0002, 0x0010, "UI", kBig + '\0').put(0x0028, 0x0010, "US", std::string("\0\5", 2));
  std::istringstream in(b.bytes);
  Dicom::Analyzer walk;
  ASSERT_TRUE(walk.read_header(in).first);
  EXPECT_FALSE(walk.is_meta_little());
  Dicom d;
  EXPECT_EQ(load_bytes(d, b.bytes), 2);
  EXPECT_EQ(value_of(d, 0x0028, 0x0010), bytes_of(std::string("\0\5", 2)));
}

TEST(Dicom, UiElementSwitchesTheEncodingWhereverItStands) {
  // Implicit data: the dictionary says (0008,0016) is UI, so its value switches to big-endian.
  Builder b;
  b.meta(kImplicit).put(0x0008, 0x0016, "UI", " " + kBig + '\0');
  b.little = b.implicit = false;
  b.put(0x0010, 0x0010, "PN", "After^Switch").put(0x0008, 0x0018, "UI", kImplicit + " ");
  b.little = b.implicit = true;
  b.put(0x0010, 0x0020, "", "ID").put(0x0008, 0x1150, "", "1.2.840.10008.5.1.4.1.1.2");
  b.put(0x0010, 0x0030, "", "19700101");
  Dicom d;
  EXPECT_EQ(load_bytes(d, b.bytes), 8);
  EXPECT_EQ(value_of(d, 0x0010, 0x0010), bytes_of("After^Switch"));
  EXPECT_EQ(value_of(d, 0x0010, 0x0020), bytes_of("ID"));
  EXPECT_EQ(value_of(d, 0x0010, 0x0030), bytes_of("19700101"));  // other UIDs change nothing
}

TEST(Dicom, RepeatingGroupsShareTheFamilyTagInImplicitDataOnly) {
  for (const std::string& uid : {kImplicit, kExplicit}) {
    SCOPED_TRACE(uid);
    Builder b;
    b.meta(uid).put(0x6000, 0x0010, "US", "1.").put(0x6002, 0x0010, "US", "2.");
    b.put(0x5004, 0x3000, "OW", "3.").put(0x7FE0, 0x0010, "OW", "4.").put(0x6001, 0x0010, "LO", "");
    Dicom d;
    load_bytes(d, b.bytes);
    EXPECT_TRUE(has(d, 0x7FE0, 0x0010));  // an exact dictionary row wins over the 7Fxx family
    EXPECT_TRUE(has(d, 0x6001, 0x0010));  // odd groups are private, not overlays
    EXPECT_EQ(value_of(d, 0x6000, 0x0010), bytes_of(uid == kImplicit ? "2." : "1."));
    EXPECT_EQ(has(d, 0x6002, 0x0010), uid != kImplicit);
    EXPECT_EQ(has(d, 0x5000, 0x3000), uid == kImplicit);
  }
}

TEST(Dicom, UndefinedLengthSequencesAreFlattened) {
  for (const std::string& uid : {kImplicit, kExplicit, kBig}) {
    SCOPED_TRACE(uid);
    Builder b, item;
    b.meta(uid).put(0x0008, 0x1140, "SQ", "", kUndefined).put(0xFFFE, 0xE000, "", "", kUndefined);
    b.put(0x0008, 0x1150, "UI", "1.2.3.4").put(0xFFFE, 0xE00D, "", "");
    b.put(0xFFFE, 0xE000, "", "opaque").put(0xFFFE, 0xE0DD, "", "");
    item.little = b.little, item.implicit = b.implicit, item.bytes.clear();
    item.put(0xFFFE, 0xE000, "", "").put(0x0010, 0x0020, "LO", "XY");
    b.put(0x0008, 0x1115, "SQ", item.bytes).put(0x0010, 0x0010, "PN", "After");
    Dicom d;
    EXPECT_EQ(load_bytes(d, b.bytes), 6);
    EXPECT_FALSE(has(d, 0x0008, 0x1140));
    EXPECT_EQ(value_of(d, 0x0008, 0x1150), bytes_of("1.2.3.4"));
    EXPECT_EQ(value_of(d, 0xFFFE, 0xE000), bytes_of("opaque"));    // a defined-length item
    EXPECT_EQ(value_of(d, 0x0008, 0x1115), bytes_of(item.bytes));  // a defined-length sequence
    EXPECT_EQ(value_of(d, 0x0010, 0x0010), bytes_of("After"));
  }
}

TEST(Dicom, DamageEndsReadingAndKeepsWhatCameBefore) {
  Builder head, tail;
  head.meta(kExplicit).put(0x0010, 0x0010, "PN", "Doe^John");
  tail.bytes.clear();
  tail.put(0x7FE0, 0x0010, "OW", std::string(16, 'p'), 0xFFFFFFF0u);
  const std::string tails[] = {tail.bytes, tail.bytes.substr(0, 5), tail.bytes.substr(0, 2),
                               std::string("\x10\0\x20\0LO\x0A\0ABCD", 12)};
  for (const std::string& t : tails) {
    Dicom d;
    EXPECT_EQ(load_bytes(d, head.bytes + t), 3);
    EXPECT_EQ(value_of(d, 0x0010, 0x0010), bytes_of("Doe^John"));
  }
  Builder bad;  // an unknown VR inside the meta group ends reading there
  bad.put(0x0002, 0x0001, "OB", "\1").put(0x0002, 0x0002, "Q?", "ab").put(0x0002, 0x0003, "UI", "");
  Dicom d;
  EXPECT_EQ(load_bytes(d, bad.bytes), 1);

  Builder full;  // every prefix of a file with sequences reads cleanly
  full.meta(kBig).put(0x0008, 0x1140, "SQ", "", kUndefined).put(0xFFFE, 0xE000, "", "", kUndefined);
  full.put(0x0008, 0x1150, "UI", "1.2").put(0xFFFE, 0xE00D, "", "").put(0xFFFE, 0xE0DD, "", "");
  full.put(0x7FE0, 0x0010, "OW", "pixels");
  for (std::size_t n = 0; n < full.bytes.size(); ++n)
    ASSERT_LE(load_bytes(d, full.bytes.substr(0, n)), 3);
  EXPECT_EQ(load_bytes(d, full.bytes), 4);
}

TEST(Analyzer, FailedStepsPutTheStreamBack) {
  Builder b;
  b.meta(kExplicit).put(0x0010, 0x0010, "PN", "Doe^John", 0xFF00);
  std::istringstream in(b.bytes);
  Dicom::Analyzer walk;
  std::shared_ptr<Dicom::Data> data;
  std::vector<unsigned char> value;
  ASSERT_TRUE(walk.read_header(in).first);
  ASSERT_EQ(walk.read_data(in, data), Result(true, 12));
  ASSERT_EQ(walk.read_buffer(in, data, value), Result(true, 2));
  ASSERT_EQ(walk.read_data(in, data), Result(true, 8));
  ASSERT_TRUE(walk.read_buffer(in, data, value).first);
  std::streampos at = in.tellg();
  EXPECT_EQ(walk.read_data(in, data), Result(false, 0));  // the meta group ended
  EXPECT_FALSE(walk.is_meta());
  EXPECT_FALSE(walk.is_implicit());
  EXPECT_EQ(in.tellg(), at);
  const Dicom::Data* reused = data.get();
  ASSERT_EQ(walk.read_data(in, data), Result(true, 8));
  EXPECT_EQ(data.get(), reused);
  EXPECT_EQ(walk.read_buffer(in, data, value), Result(false, 0xFF00));  // longer than the file
  EXPECT_TRUE(value.empty());
  EXPECT_TRUE(in.eof());
  auto sequence = std::make_shared<Dicom::Data>(0x0008, 0x1140, 0x5153, kUndefined);
  EXPECT_EQ(walk.read_buffer(in, sequence, value), Result(false, kUndefined));
}

// A stream that cannot seek and shows its bytes 4 KB at a time, so it cannot say how many
// bytes are left.
struct Pipe : std::streambuf {
  std::string bytes;
  std::size_t at = 0;
  explicit Pipe(std::string b) : bytes(std::move(b)) {}
  int_type underflow() override {
    if (at == bytes.size()) return traits_type::eof();
    std::size_t n = std::min<std::size_t>(4096, bytes.size() - at);
    setg(&bytes[at], &bytes[at], &bytes[at] + n);
    at += n;
    return traits_type::to_int_type(bytes[at - n]);
  }
};

TEST(Analyzer, ReadsLargeValuesFromStreamsThatCannotSeek) {
  const std::string pixels(300000, 'p');
  auto data = std::make_shared<Dicom::Data>(0x7FE0, 0x0010, 0x574F, std::uint32_t(pixels.size()));
  Dicom::Analyzer walk;
  std::vector<unsigned char> value;
  Pipe whole(pixels), cut(pixels.substr(1000));
  std::istream in(&whole), short_in(&cut);
  EXPECT_EQ(walk.read_buffer(in, data, value), Result(true, 300000));
  EXPECT_EQ(value, bytes_of(pixels));
  EXPECT_EQ(walk.read_buffer(short_in, data, value), Result(false, 300000));
  EXPECT_TRUE(value.empty());
}

TEST(Dictionary, FindsRowsByTagAndIdentity) {
  namespace dicom = quib::dicom;
  const dicom::data_set_t* name = dicom::find_set(0x0010, 0x0010);
  ASSERT_NE(name, nullptr);
  EXPECT_STREQ(name->name, "Patient's Name");
  EXPECT_EQ(name->type, 'P' | ('N' << 8));
  EXPECT_EQ(dicom::find_set(dicom::PatientName), name);
  EXPECT_EQ(dicom::find_set(0x0010, 0x0011), nullptr);
  EXPECT_EQ(dicom::tag_key(dicom::PixelData), 0x00107FE0u);
  EXPECT_EQ(dicom::find_map(0x601E, 0x3000), dicom::find_map(dicom::OverlayData));
  EXPECT_EQ(dicom::find_map(0x6020, 0x3000), nullptr);  // past the last overlay group
  EXPECT_NE(dicom::find_map(0x0028, 0x0410), nullptr);  // an element range
  EXPECT_EQ(dicom::find_map(dicom::PatientName), nullptr);
  EXPECT_EQ(dicom::find_map(dicom::element_t(dicom::set_count + dicom::map_count + 1)), nullptr);
  // Every exact row is found again by its tag, and identities follow the table order.
  for (std::uint32_t i = 1; i <= dicom::set_count; ++i) {
    const dicom::data_set_t* row = dicom::find_set(dicom::element_t(i));
    ASSERT_EQ(row->element, dicom::element_t(i));
    ASSERT_EQ(dicom::find_set(row->group, row->number), row) << i;
  }
}

TEST(Dictionary, DataPrefersExactRowsAndKeepsFullNames) {
  namespace dicom = quib::dicom;
  EXPECT_EQ(Dicom::Data(0x7FE0, 0x0010, 0x574F, 4).get_element(), dicom::PixelData);
  Dicom::Data overlay(0x6004, 0x0010, 2);
  EXPECT_EQ(overlay.get_name(), "Overlay Rows");
  EXPECT_EQ(Dicom::Data(dicom::find_map(dicom::OverlayRows), 2).get_tag(), 0x00106000u);
  EXPECT_EQ(Dicom::Data(0x0009, 0x1001, 0, 2).get_element(), dicom::unknown);
  EXPECT_TRUE(Dicom::Data().empty());
  EXPECT_EQ(Dicom::Data(0x0008, 0x2258, 0).get_name(),
            "Anatomic Location Of Examining Instrument Description (Trial)");
}

TEST(Dictionary, SwapEndianLeavesVrCharacters) {
  quib::dicom::data_long_t h{0x0010, 0x7FE0, {'O', 'B'}, 0x0102, 0x11223344u}, s{};
  quib::dicom::swap_endian(s, h, true);
  EXPECT_EQ(s.group, 0x1000);
  EXPECT_EQ(std::string(s.vr, 2), "OB");
  EXPECT_EQ(s.length, 0x44332211u);
  EXPECT_NE(quib::dicom::is_swap_endian(true), quib::dicom::is_swap_endian(false));
}

// Files made by dcmtk's tools, compared element by element with dcmdump's listing of them.
struct Listed {
  std::string vr, shown;
  std::uint32_t length;
};

// The table dcmdump's listing implies: undefined-length sequences and items are walked into,
// defined-length ones are kept whole, delimiters are dropped, later tags win.
std::map<std::uint32_t, Listed> listed(const std::string& dump, bool meta_only) {
  std::map<std::uint32_t, Listed> table;
  const std::regex line(R"(^( *)\(([0-9a-f]{4}),([0-9a-f]{4})\) (\w\w) (.*?) *# *(u/l|\d+), )");
  std::istringstream in(dump);
  std::size_t skip_deeper = std::string::npos;
  for (std::string text; std::getline(in, text);) {
    std::smatch m;
    if (!std::regex_search(text, m, line) || std::size_t(m[1].length()) > skip_deeper) continue;
    skip_deeper = std::string::npos;
    unsigned group = std::stoul(m[2], nullptr, 16), number = std::stoul(m[3], nullptr, 16);
    if ((meta_only && group != 2) || m[6] == "u/l" || number == 0xE00D || number == 0xE0DD)
      continue;
    if (m[4] == "SQ" || group == 0xFFFE) skip_deeper = m[1].length();
    table[tag_key(std::uint16_t(group), std::uint16_t(number))] = {m[4], m[5],
                                                                   std::uint32_t(std::stoul(m[6]))};
  }
  return table;
}

TEST(DcmtkFiles, MatchDcmdumpInEveryTransferSyntax) {
  if (std::system(
          "{ command -v dump2dcm && command -v dcmconv && command -v dcmdump; } >/dev/null 2>&1") !=
      0) {
    GTEST_SKIP() << "dcmtk tools not on PATH";
  }
  TempDir dir;
  const std::string base = dir.write(
      "in.dump",
      "(0008,0016) UI [1.2.840.10008.5.1.4.1.1.2]\n(0008,0018) UI [1.2.3.4.5.6]\n"
      "(0008,1140) SQ (Sequence with undefined length)\n"
      "  (fffe,e000) na (Item with undefined length)\n"
      "    (0008,1150) UI [1.2.840.10008.5.1.4.1.1.2]\n    (0008,1155) UI [1.2.3.4.5.7]\n"
      "  (fffe,e00d) na (ItemDelimitationItem)\n(fffe,e0dd) na (SequenceDelimitationItem)\n"
      "(0010,0010) PN [Doe^John]\n(0010,0020) LO [ID 42]\n(0018,0050) DS [1.25]\n"
      "(0020,0013) IS [7]\n(0028,0010) US 2\n(0028,0011) US 300\n(0028,1050) DS [40\\400]\n"
      "(0040,a160) UT [some longer text value]\n(7fe0,0010) OW 0001\\0203\\0405\\0a0b\n");
  ASSERT_EQ(std::system(("dump2dcm -q " + base + " " + base + ".dcm").c_str()), 0);
  for (const std::string syntax : {"+ti", "+te", "+tb", "+td"}) {
    for (const std::string lengths : {"+e", "-e"}) {
      const std::string name = base + syntax + lengths + ".dcm";
      SCOPED_TRACE(name);
      ASSERT_EQ(std::system(
                    ("dcmconv -q " + syntax + " " + lengths + " " + base + ".dcm " + name).c_str()),
                0);
      const bool little = syntax != "+tb", deflated = syntax == "+td";  // not inflated: meta only
      const auto expected = listed(run("dcmdump -q +L -Un " + name), deflated);
      ASSERT_GT(expected.size(), deflated ? 5u : 15u);
      Dicom file(std::wstring(name.begin(), name.end()));
      for (const auto& [key, e] : expected) {
        SCOPED_TRACE(testing::Message() << std::hex << (key & 0xFFFF) << "," << (key >> 16));
        ASSERT_TRUE(file->count(key));
        const std::vector<unsigned char>& v = file->at(key);
        EXPECT_EQ(v.size(), e.length);
        std::string shown;  // our bytes as dcmdump shows text, US and OW values
        if (e.shown.front() == '[') {
          shown = "[" + std::string(v.begin(), v.end());
          while (shown.back() == ' ' || shown.back() == '\0')
            shown.pop_back();
          shown += "]";
        } else if (e.vr == "US" || e.vr == "OW") {
          for (std::size_t i = 0; i + 1 < v.size(); i += 2) {
            bool le = little || (key & 0xFFFF) == 2;
            char word[16];
            std::snprintf(word, sizeof word, e.vr == "US" ? "%u" : "%04x",
                          le ? v[i] | (v[i + 1] << 8) : v[i + 1] | (v[i] << 8));
            shown += (i ? "\\" : "") + std::string(word);
          }
        }
        if (!shown.empty()) {
          EXPECT_EQ(shown, e.shown);
        }
      }
      if (!deflated) {
        EXPECT_EQ(file->size(), expected.size());
      }
    }
  }
}

}  // namespace
