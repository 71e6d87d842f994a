#include "dicom_test_util.hpp"

#include <quib/dicom.hpp>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace quib_test;
using Values = std::vector<double>;

const Dicom::read_t kStandard = Dicom::READ_STANDARD;

std::string le(std::initializer_list<std::uint64_t> values, int size, bool little) {
  std::string out;
  for (std::uint64_t v : values) {
    for (int i = 0; i < size; ++i) {
      const int shift = 8 * (little ? i : size - 1 - i);
      out += char((v >> shift) & 0xFF);
    }
  }
  return out;
}

template <class T>
std::string bits(T v, bool little) {
  std::uint64_t u = 0;
  std::memcpy(&u, &v, sizeof v);
  return le({u}, int(sizeof v), little);
}

Dicom standard(const std::string& bytes) {
  Dicom d;
  load_bytes(d, bytes, kStandard);
  return d;
}

TEST(DicomValues, ReadsNumbersInTheFilesByteOrder) {
  for (const std::string& uid : {kExplicit, kBig}) {
    SCOPED_TRACE(uid);
    Builder b;
    b.meta(uid);
    const bool little = b.little;
    b.put(0x0018, 0x1310, "US", le({512, 0, 65535}, 2, little));
    b.put(0x0018, 0x9219, "SS", le({std::uint16_t(-5)}, 2, little) + "x");  // a stray byte
    b.put(0x0020, 0x9057, "UL", le({70000}, 4, little));
    b.put(0x0018, 0x6020, "SL", le({std::uint32_t(-70000)}, 4, little));
    b.put(0x0018, 0x9089, "FD", bits(0.25, little) + bits(-1e300, little));
    b.put(0x0018, 0x9218, "FL", bits(1.5f, little));
    b.put(0x0020, 0x9165, "AT", le({0x0010, 0x0020, 0x7FE0, 0x0010}, 2, little));
    b.put(0x0028, 0x0030, "DS", "0.5\\-2e3 ");
    b.put(0x0020, 0x0013, "IS", "+7\\ -3 ");
    b.put(0x0070, 0x0001, "UV", le({0xFFFFFFFFFFFFFFFFull}, 8, little));
    const Dicom d = standard(b.bytes);
    Values v;
    std::vector<std::int64_t> n;
    EXPECT_EQ(d.get_numbers(Dicom::Tag(0x0018, 0x1310), v), 3);
    EXPECT_EQ(v, (Values{512, 0, 65535}));
    EXPECT_EQ(d.get_integers(Dicom::Tag(0x0018, 0x9219), n), 1);
    EXPECT_EQ(n, std::vector<std::int64_t>{-5});
    EXPECT_EQ(d.get_integers(Dicom::Tag(0x0018, 0x6020), n), 1);
    EXPECT_EQ(n, std::vector<std::int64_t>{-70000});
    EXPECT_EQ(d.get_numbers(Dicom::Tag(0x0020, 0x9057), v), 1);
    EXPECT_EQ(v, Values{70000});
    EXPECT_EQ(d.get_numbers(Dicom::Tag(0x0018, 0x9089), v), 2);
    EXPECT_EQ(v, (Values{0.25, -1e300}));
    EXPECT_EQ(d.get_numbers(Dicom::Tag(0x0018, 0x9218), v), 1);
    EXPECT_EQ(v, Values{1.5});
    EXPECT_EQ(d.get_numbers(Dicom::Tag(0x0028, 0x0030), v), 2);
    EXPECT_EQ(v, (Values{0.5, -2000}));
    EXPECT_EQ(d.get_integers(Dicom::Tag(0x0020, 0x0013), n), 2);
    EXPECT_EQ(n, (std::vector<std::int64_t>{7, -3}));
    std::vector<std::uint32_t> tags;
    EXPECT_EQ(d.get_tags(Dicom::Tag(0x0020, 0x9165), tags), 2);
    EXPECT_EQ(tags, (std::vector<std::uint32_t>{tag_key(0x0010, 0x0020), tag_key(0x7FE0, 0x0010)}));
    // Calls that do not fit the element fail and leave nothing.
    EXPECT_EQ(d.get_integers(Dicom::Tag(0x0070, 0x0001), n), -1);  // past the int64 range
    EXPECT_TRUE(n.empty());
    EXPECT_EQ(d.get_integers(Dicom::Tag(0x0028, 0x0030), n), -1);  // DS is no whole number
    EXPECT_EQ(d.get_tags(Dicom::Tag(0x0018, 0x1310), tags), -1);
    EXPECT_EQ(d.get_numbers(Dicom::Tag(0x0010, 0x0010), v), -1);  // absent
    std::vector<std::string> s;
    EXPECT_EQ(d.get_strings(Dicom::Tag(0x0018, 0x1310), s), -1);
  }
  Builder bad;
  bad.meta(kExplicit).put(0x0028, 0x0030, "DS", "1.5\\abc").put(0x0020, 0x0013, "IS", "1.5");
  bad.put(0x0028, 0x1050, "DS", "");
  const Dicom d = standard(bad.bytes);
  Values v{1};
  EXPECT_EQ(d.get_numbers(Dicom::Tag(0x0028, 0x0030), v), -1);
  EXPECT_TRUE(v.empty());
  std::vector<std::int64_t> n;
  EXPECT_EQ(d.get_integers(Dicom::Tag(0x0020, 0x0013), n), -1);
  EXPECT_EQ(d.get_numbers(Dicom::Tag(0x0028, 0x1050), v), 0);
}

TEST(DicomValues, LooksElementsUpByKeywordAndTagText) {
  Builder b;
  b.meta(kExplicit).put(0x0010, 0x0010, "PN", "Doe^John");
  const Dicom d = standard(b.bytes);
  for (const Dicom::Tag& tag :
       {Dicom::Tag("PatientName"), Dicom::Tag("0010,0010"), Dicom::Tag("(0010,0010)"),
        Dicom::Tag("00100010"), Dicom::Tag(quib::dicom::PatientName), Dicom::Tag(0x0010, 0x0010)}) {
    ASSERT_NE(d.find(tag), nullptr);
    EXPECT_EQ(*d.find(tag), bytes_of("Doe^John"));
  }
  for (const char* text :
       {"PatientsName", "patientname", "0010,001", "(0010,0010", "", "g0100010"}) {
    EXPECT_FALSE(Dicom::Tag(text).is()) << text;
    EXPECT_EQ(d.find(Dicom::Tag(text)), nullptr);
  }
  EXPECT_EQ(quib::dicom::get_keyword(quib::dicom::PixelData), "PixelData");
  EXPECT_EQ(quib::dicom::find_keyword("OverlayData"), quib::dicom::OverlayData);
  EXPECT_EQ(quib::dicom::get_keyword(quib::dicom::unknown), "");
  // Every keyword leads back to its own identity.
  for (std::uint32_t i = 1; i <= quib::dicom::set_count + quib::dicom::map_count; ++i) {
    const auto e = quib::dicom::element_t(i);
    ASSERT_EQ(quib::dicom::find_keyword(quib::dicom::get_keyword(e)), e) << i;
  }
}

TEST(DicomValues, SplitsAndDecodesText) {
  Builder b;
  b.meta(kExplicit).put(0x0008, 0x0005, "CS", "ISO_IR 100");
  b.put(0x0008, 0x0008, "CS", "ORIGINAL\\PRIMARY \\ AXIAL ");
  b.put(0x0008, 0x0018, "UI", "1.2.3\0");
  b.put(0x0010, 0x0010, "PN", "M\xfcller^J\xfcrgen");
  b.put(0x0010, 0x4000, "LT", "  line one\\two  ");
  b.put(0x0010, 0x0020, "LO", "");
  const Dicom d = standard(b.bytes);
  std::vector<std::string> s;
  EXPECT_EQ(d.get_strings(Dicom::Tag("ImageType"), s), 3);
  EXPECT_EQ(s, (std::vector<std::string>{"ORIGINAL", "PRIMARY", "AXIAL"}));
  EXPECT_EQ(d.get_strings(Dicom::Tag("SOPInstanceUID"), s), 1);
  EXPECT_EQ(s, std::vector<std::string>{"1.2.3"});
  EXPECT_EQ(d.get_strings(Dicom::Tag("PatientComments"), s), 1);
  EXPECT_EQ(s, std::vector<std::string>{"  line one\\two"});
  EXPECT_EQ(d.get_strings(Dicom::Tag("PatientID"), s), 0);
  std::vector<Dicom::Name> names;
  ASSERT_EQ(d.get_names(Dicom::Tag("PatientName"), names), 1);
  EXPECT_EQ(names[0].family, "M\u00fcller");
  EXPECT_EQ(names[0].given, "J\u00fcrgen");

  const struct {
    std::string charset, bytes, utf8;
  } sets[] = {
      {"ISO_IR 192",
       "Stra\xc3\x9f"
       "e\xff",
       "Stra\u00dfe\ufffd"},
      {"ISO_IR 144", "\xbb\xd5\xdd\xd8\xdd", "\u041b\u0435\u043d\u0438\u043d"},
      {"ISO_IR 126", "\xc1\xf1\xe9\xf3\xf4\xef", "\u0391\u03c1\u03b9\u03c3\u03c4\u03bf"},
      {"ISO_IR 13", "\xd4\xcf\xc0", "\uff94\uff8f\uff80"},
      {"\\ISO 2022 IR 100", "\x1b-AGr\xfc\xdf", "Gr\u00fc\u00df"},
      {"ISO_IR 999", "caf\xe9", "caf\u00e9"},  // a set that does not exist: Latin-1
      {"", "plain", "plain"},
  };
  for (const auto& c : sets) {
    SCOPED_TRACE(c.charset);
    EXPECT_EQ(quib::dicom::decode_text(c.charset, c.bytes), c.utf8);
  }
}

TEST(DicomValues, ParsesNamesDatesAndTimes) {
  Builder b;
  b.meta(kExplicit).put(0x0008, 0x0005, "CS", "ISO_IR 192");
  b.put(0x0008, 0x0020, "DA", "20240229\\1999.12.31");
  b.put(0x0008, 0x0030, "TM", "070907.0705 \\13\\23:59:60");
  b.put(0x0008, 0x002A, "DT", "20240102030405.5-0130\\2024");
  b.put(0x0008, 0x0021, "DA", "20241301");
  b.put(0x0010, 0x0010, "PN",
        "Yamada^Tarou^^Dr.^=\xe5\xb1\xb1\xe7\x94\xb0^\xe5\xa4\xaa\xe9\x83\x8e=");
  const Dicom d = standard(b.bytes);
  std::vector<Dicom::DateTime> t;
  ASSERT_EQ(d.get_dates(Dicom::Tag("StudyDate"), t), 2);
  EXPECT_EQ(t[0].year * 10000 + t[0].month * 100 + t[0].day, 20240229);
  EXPECT_EQ(t[0].hour, -1);
  EXPECT_EQ(t[1].day, 31);
  ASSERT_EQ(d.get_dates(Dicom::Tag("StudyTime"), t), 3);
  EXPECT_EQ(t[0].hour * 10000 + t[0].minute * 100 + t[0].second, 70907);
  EXPECT_EQ(t[0].microsecond, 70500);
  EXPECT_EQ(t[1].hour, 13);
  EXPECT_EQ(t[1].minute, -1);
  EXPECT_EQ(t[2].second, 60);
  ASSERT_EQ(d.get_dates(Dicom::Tag("AcquisitionDateTime"), t), 2);
  EXPECT_EQ(t[0].second, 5);
  EXPECT_EQ(t[0].microsecond, 500000);
  EXPECT_TRUE(t[0].has_offset);
  EXPECT_EQ(t[0].offset, -90);
  EXPECT_EQ(t[1].year, 2024);
  EXPECT_EQ(t[1].month, -1);
  EXPECT_EQ(d.get_dates(Dicom::Tag("SeriesDate"), t), -1);
  EXPECT_TRUE(t.empty());
  std::vector<Dicom::Name> n;
  ASSERT_EQ(d.get_names(Dicom::Tag("PatientName"), n), 1);
  EXPECT_EQ(n[0].family, "Yamada");
  EXPECT_EQ(n[0].given, "Tarou");
  EXPECT_EQ(n[0].middle, "");
  EXPECT_EQ(n[0].prefix, "Dr.");
  EXPECT_EQ(n[0].ideographic, "\u5c71\u7530^\u592a\u90ce");
  EXPECT_EQ(n[0].phonetic, "");
  EXPECT_EQ(d.get_names(Dicom::Tag("StudyDate"), n), -1);
}

// An item of the given content, of defined or undefined length.
std::string item(const Builder& like, const std::string& content, bool undefined) {
  Builder b = like;
  b.bytes.clear();
  b.put(0xFFFE, 0xE000, "", content, undefined ? kUndefined : std::uint32_t(content.size()));
  if (undefined) b.put(0xFFFE, 0xE00D, "", "");
  return b.bytes;
}

TEST(DicomSequences, ReadsItemsRecursivelyInTheirEncoding) {
  for (const std::string& uid : {kImplicit, kExplicit, kBig}) {
    for (bool undefined : {false, true}) {
      SCOPED_TRACE(testing::Message() << uid << " " << undefined);
      Builder b;
      b.meta(uid).put(0x0008, 0x0005, "CS", "ISO_IR 100");
      Builder x = b;
      x.bytes.clear();
      x.put(0x0008, 0x0100, "SH", "T-D1100").put(0x0008, 0x0104, "LO", "K\xf6rper");
      const std::string code = item(b, x.bytes, undefined);
      Builder y = b;
      y.bytes.clear();
      y.put(0x0008, 0x0104, "LO", "K\xf6rper");
      y.put(0x0040, 0xA043, "SQ", code + code,
            undefined ? kUndefined : std::uint32_t(2 * code.size()));
      if (undefined) y.put(0xFFFE, 0xE0DD, "", "");
      Builder z = b;
      z.bytes.clear();
      z.put(0x0008, 0x0005, "CS", "ISO_IR 192").put(0x0008, 0x0104, "LO", "K\xc3\xb6rper");
      const std::string items =
          item(b, y.bytes, undefined) + item(b, z.bytes, undefined) + item(b, "", undefined);
      b.put(0x0040, 0xA730, "SQ", items, undefined ? kUndefined : std::uint32_t(items.size()));
      if (undefined) b.put(0xFFFE, 0xE0DD, "", "");
      const Dicom d = standard(b.bytes);
      ASSERT_TRUE(d.is_complete());
      std::vector<Dicom> outer, inner;
      ASSERT_EQ(d.read_items(Dicom::Tag("ContentSequence"), outer), 3);
      EXPECT_TRUE(outer[2].empty());
      EXPECT_TRUE(outer[2].is_complete());
      EXPECT_EQ(outer[0].get_info().depth, 1u);
      std::string text;
      EXPECT_EQ(outer[0].get_text(Dicom::Tag("CodeMeaning"), text), 1);
      EXPECT_EQ(text, "K\u00f6rper");
      EXPECT_EQ(outer[1].get_text(Dicom::Tag("CodeMeaning"), text), 1);
      EXPECT_EQ(text, "K\u00f6rper");  // the item names its own character set
      ASSERT_EQ(outer[0].read_items(Dicom::Tag("ConceptNameCodeSequence"), inner), 2);
      EXPECT_EQ(inner[1].get_info().depth, 2u);
      EXPECT_EQ(inner[1].get_text(Dicom::Tag("CodeMeaning"), text), 1);
      EXPECT_EQ(text, "K\u00f6rper");  // inherited Latin-1
      EXPECT_EQ(inner[1].get_type(Dicom::Tag("CodeValue")), 'S' | ('H' << 8));
      EXPECT_EQ(d.read_items(Dicom::Tag("SpecificCharacterSet"), inner), -1);  // not a sequence
      EXPECT_TRUE(inner.empty());
    }
  }
}

TEST(DicomSequences, DamagedItemsEndTheListAndDepthIsBounded) {
  Builder b;
  b.meta(kExplicit);
  Builder x = b;
  x.bytes.clear();
  x.put(0x0008, 0x0100, "SH", "CODE");
  const std::string good = item(b, x.bytes, false);
  // The second item claims more bytes than the sequence holds.
  std::string damaged = good + item(b, x.bytes, false);
  damaged[good.size() + 4] = 0x40;
  b.put(0x0040, 0xA730, "SQ", damaged);
  // A defined-length sequence nested deeper than the bound.
  std::string deep;
  for (unsigned i = 0; i <= Dicom::kMaxDepth + 1; ++i) {
    Builder level = b;
    level.bytes.clear();
    level.put(0x0040, 0xA730, "SQ", deep);
    deep = item(b, level.bytes, false);
  }
  b.put(0x0040, 0xA504, "SQ", deep);
  const Dicom d = standard(b.bytes);
  std::vector<Dicom> items;
  ASSERT_EQ(d.read_items(Dicom::Tag("ContentSequence"), items), 2);
  EXPECT_TRUE(items[0].is_complete());
  EXPECT_FALSE(items[1].is_complete());
  EXPECT_EQ(items[1].find(Dicom::Tag("CodeValue"))->size(), 4u);

  Dicom level = d;
  Dicom::Tag tag("ContentTemplateSequence");
  unsigned reached = 0;
  for (; level.read_items(tag, items) == 1; ++reached) {
    Dicom next = items[0];
    level = next;
    tag = Dicom::Tag("ContentSequence");
  }
  EXPECT_EQ(reached, Dicom::kMaxDepth);
  EXPECT_EQ(level.get_info().depth, Dicom::kMaxDepth);
}

TEST(DicomSequences, ListsTheFragmentsOfEncapsulatedPixelData) {
  Builder b;
  b.meta("1.2.840.10008.1.2.4.50");
  b.little = true;
  Builder frames = b;
  frames.bytes.clear();
  frames.put(0xFFFE, 0xE000, "", std::string("\0\0\0\0", 4)).put(0xFFFE, 0xE000, "", "JPEG");
  frames.put(0xFFFE, 0xE000, "", "more");
  b.put(0x7FE0, 0x0010, "OB", frames.bytes, kUndefined);
  b.put(0xFFFE, 0xE0DD, "", "");
  const Dicom d = standard(b.bytes);
  std::vector<std::pair<std::size_t, std::size_t>> f;
  ASSERT_EQ(d.get_fragments(Dicom::Tag("PixelData"), f), 3);
  EXPECT_EQ(f[0], std::make_pair(std::size_t{8}, std::size_t{4}));
  EXPECT_EQ(f[1], std::make_pair(std::size_t{20}, std::size_t{4}));
  EXPECT_EQ(f[2], std::make_pair(std::size_t{32}, std::size_t{4}));
  EXPECT_EQ(d.get_fragments(Dicom::Tag("TransferSyntaxUID"), f), -1);
}

}  // namespace
