#include "dicom_test_util.hpp"

#include <quib/dicom.hpp>

#include <gtest/gtest.h>
#include <zlib.h>

#include <string>
#include <vector>

namespace {

using namespace quib_test;

const Dicom::read_t kStandard = Dicom::READ_STANDARD;

std::string deflated(const std::string& raw, int level = 6) {
  z_stream z{};
  deflateInit2(&z, level, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&z, uLong(raw.size())), '\0');
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(raw.data()));
  z.avail_in = uInt(raw.size());
  z.next_out = reinterpret_cast<Bytef*>(&out[0]);
  z.avail_out = uInt(out.size());
  deflate(&z, Z_FINISH);
  out.resize(z.total_out);
  deflateEnd(&z);
  return out;
}

// A data set body (no preamble) in one encoding.
Builder body(bool little, bool implicit) {
  Builder b;
  b.bytes.clear();
  b.little = little;
  b.implicit = implicit;
  return b;
}

std::string vr_of(const Dicom& d, unsigned group, unsigned number) {
  const std::uint16_t t = d.get_type(Dicom::Tag(std::uint16_t(group), std::uint16_t(number)));
  return t == 0 ? "" : std::string{char(t & 0xFF), char(t >> 8)};
}

TEST(DicomStandard, ReadsEveryTransferSyntaxByItsMetaGroupAlone) {
  const struct {
    std::string uid;
    bool little, implicit;
  } syntaxes[] = {{kImplicit, true, true},
                  {kExplicit, true, false},
                  {kBig, false, false},
                  {"1.2.840.10008.1.2.4.50", true, false},          // JPEG baseline
                  {"1.2.826.0.1.3680043.2.1143.99", true, false}};  // a private syntax
  for (const auto& s : syntaxes) {
    SCOPED_TRACE(s.uid);
    Builder b;
    b.meta(s.uid);
    b.little = s.little, b.implicit = s.implicit;
    // A UI value naming another syntax, as a DICOMDIR record does, switches nothing.
    b.put(0x0004, 0x1512, "UI", s.little ? kBig + '\0' : kImplicit + '\0');
    b.put(0x0010, 0x0010, "PN", "Doe^John").put(0x0028, 0x0010, "US", s.little ? "\2\0" : "\0\2");
    b.put(0x6002, 0x0010, "US", "ab").put(0x7FE0, 0x0010, "OW", "\1\2\3\4");
    Dicom d;
    ASSERT_EQ(load_bytes(d, b.bytes, kStandard), 7);
    EXPECT_TRUE(d.is_complete());
    EXPECT_EQ(d.get_stop_offset(), b.bytes.size());
    EXPECT_EQ(d.get_info().implicit, s.implicit);
    EXPECT_EQ(d.get_info().little, s.little);
    EXPECT_EQ(d.get_info().syntax, s.uid);
    EXPECT_EQ(value_of(d, 0x0010, 0x0010), bytes_of("Doe^John"));
    EXPECT_EQ(value_of(d, 0x7FE0, 0x0010), bytes_of("\1\2\3\4"));
    EXPECT_TRUE(has(d, 0x6002, 0x0010));  // repeating groups keep their own tag
    EXPECT_EQ(vr_of(d, 0x0010, 0x0010), "PN");
    EXPECT_EQ(vr_of(d, 0x0002, 0x0010), "UI");
    ASSERT_EQ(d.get_entries().size(), 7u);
    EXPECT_EQ(d.get_entries().front().key, tag_key(0x0002, 0x0001));
    EXPECT_EQ(d.get_entries().back().key, tag_key(0x7FE0, 0x0010));
  }
}

TEST(DicomStandard, AcceptsAnyPreambleAndNoMetaGroup) {
  Builder b;
  b.bytes.replace(0, 8, "II*\0\x08\0\0\0", 8);  // a TIFF header, as dual-purpose files have
  b.implicit = true;
  b.put(0x0010, 0x0010, "PN", "Doe^John").put(0x0010, 0x0020, "LO", "ID");
  Dicom d;
  EXPECT_EQ(load_bytes(d, b.bytes), -1);
  ASSERT_EQ(load_bytes(d, b.bytes, kStandard), 2);  // no (0002,0010): implicit little-endian
  EXPECT_TRUE(d.get_info().implicit);
  EXPECT_EQ(vr_of(d, 0x0010, 0x0020), "LO");  // from the dictionary
  EXPECT_EQ(load_bytes(d, b.bytes.substr(0, 131), kStandard), -1);
  b.bytes[131] = 'X';
  EXPECT_EQ(load_bytes(d, b.bytes, kStandard), -1);
  EXPECT_TRUE(d.empty());
}

TEST(DicomStandard, KeepsUndefinedLengthElementsWhole) {
  for (const std::string& uid : {kImplicit, kExplicit, kBig}) {
    SCOPED_TRACE(uid);
    Builder b;
    b.meta(uid);
    Builder seq = body(b.little, b.implicit);
    // Item 1 of undefined length with a nested undefined-length sequence; item 2 defined.
    Builder inner = body(b.little, b.implicit);
    inner.put(0x0008, 0x0100, "SH", "T-0001").put(0x0008, 0x0104, "LO", "nested");
    seq.put(0xFFFE, 0xE000, "", "", kUndefined).put(0x0008, 0x1150, "UI", "1.2.3.4\0");
    seq.put(0x0040, 0xA043, "SQ", "", kUndefined).put(0xFFFE, 0xE000, "", "", kUndefined);
    seq.bytes += inner.bytes;
    seq.put(0xFFFE, 0xE00D, "", "").put(0xFFFE, 0xE0DD, "", "").put(0xFFFE, 0xE00D, "", "");
    seq.put(0xFFFE, 0xE000, "", inner.bytes);
    b.put(0x0008, 0x1140, "SQ", "", kUndefined);
    b.bytes += seq.bytes;
    b.put(0xFFFE, 0xE0DD, "", "");
    // Encapsulated pixel data: an empty offset table and two fragments.
    Builder frames = body(b.little, b.implicit);
    frames.put(0xFFFE, 0xE000, "", "")
        .put(0xFFFE, 0xE000, "", "JPEG")
        .put(0xFFFE, 0xE000, "", "LS");
    b.put(0x0008, 0x0104, "LO", "top-level").put(0x7FE0, 0x0010, "OB", "", kUndefined);
    b.bytes += frames.bytes;
    b.put(0xFFFE, 0xE0DD, "", "");
    Dicom d;
    ASSERT_EQ(load_bytes(d, b.bytes, kStandard), 5);
    EXPECT_TRUE(d.is_complete());
    EXPECT_EQ(value_of(d, 0x0008, 0x1140), bytes_of(seq.bytes));
    EXPECT_EQ(value_of(d, 0x0008, 0x0104), bytes_of("top-level"));  // not the nested value
    EXPECT_FALSE(has(d, 0x0008, 0x1150));
    EXPECT_EQ(value_of(d, 0x7FE0, 0x0010), bytes_of(frames.bytes));
    EXPECT_EQ(vr_of(d, 0x0008, 0x1140), "SQ");
    EXPECT_EQ(vr_of(d, 0x7FE0, 0x0010), "OB");
    EXPECT_TRUE(d.get_entries().back().undefined);
  }
}

TEST(DicomStandard, ReadsFilesThatLieAboutTheirEncoding) {
  // Declared JPEG baseline (explicit) but written implicit.
  Builder b;
  b.meta("1.2.840.10008.1.2.4.50");
  b.implicit = b.little = true;
  b.put(0x0008, 0x0060, "", "CT").put(0x0010, 0x0010, "", "Doe^John");
  Dicom d;
  ASSERT_EQ(load_bytes(d, b.bytes, kStandard), 4);
  EXPECT_TRUE(d.get_info().implicit);
  EXPECT_EQ(vr_of(d, 0x0010, 0x0010), "PN");

  // A UN element of undefined length in a big-endian file holds implicit little-endian items.
  Builder big;
  big.meta(kBig);
  Builder item = body(true, true);
  item.put(0xFFFE, 0xE000, "", "", kUndefined).put(0x0009, 0x1001, "", "", kUndefined);
  item.put(0xFFFE, 0xE0DD, "", "").put(0xFFFE, 0xE00D, "", "").put(0xFFFE, 0xE0DD, "", "");
  const std::string items = item.bytes.substr(0, item.bytes.size() - 8);
  big.put(0x0009, 0x0010, "LO", "PRIVATE ").put(0x0009, 0x1010, "UN", "", kUndefined);
  big.bytes += item.bytes;
  big.put(0x0010, 0x0010, "PN", "After ");
  ASSERT_EQ(load_bytes(d, big.bytes, kStandard), 5);
  EXPECT_TRUE(d.is_complete());
  EXPECT_EQ(value_of(d, 0x0009, 0x1010), bytes_of(items));
  EXPECT_EQ(value_of(d, 0x0010, 0x0010), bytes_of("After "));
}

TEST(DicomStandard, InflatesDeflatedDataSets) {
  Builder b;
  b.meta(kDeflated);
  Builder set = body(true, false);
  set.put(0x0010, 0x0010, "PN", "Doe^John").put(0x0020, 0x0013, "IS", "7 ");
  set.put(0x7FE0, 0x0010, "OW", std::string(100000, '\x11'));
  Dicom d;
  ASSERT_EQ(load_bytes(d, b.bytes + deflated(set.bytes), kStandard), 5);
  EXPECT_TRUE(d.is_complete());
  EXPECT_TRUE(d.get_info().deflated);
  EXPECT_EQ(d.get_stop_offset(), b.bytes.size() + set.bytes.size());  // counts inflated bytes
  EXPECT_EQ(value_of(d, 0x0020, 0x0013), bytes_of("7 "));
  EXPECT_EQ(value_of(d, 0x7FE0, 0x0010).size(), 100000u);

  // A damaged or cut stream keeps what was inflated before the damage.
  std::string packed = deflated(set.bytes, 0);  // stored blocks: the text stays readable
  const std::string cut = b.bytes + packed.substr(0, packed.size() / 2);
  ASSERT_EQ(load_bytes(d, cut, kStandard), 4);
  EXPECT_FALSE(d.is_complete());
  EXPECT_EQ(value_of(d, 0x0010, 0x0010), bytes_of("Doe^John"));
  packed = deflated(set.bytes);
  packed[packed.size() / 2] ^= 0x55;
  packed[packed.size() / 2 + 1] ^= 0x55;
  EXPECT_GE(load_bytes(d, b.bytes + packed, kStandard), 2);
  EXPECT_FALSE(d.is_complete());
}

TEST(DicomStandard, StopsWhereTheFileIsDamagedAndSaysWhere) {
  Builder b;
  b.meta(kExplicit).put(0x0010, 0x0010, "PN", "Doe^John");
  const std::size_t good = b.bytes.size();
  Builder tail = body(true, false);
  tail.put(0x0010, 0x0020, "LO", "ID");
  const std::string cases[] = {
      tail.bytes.substr(0, 5),                                  // a cut header
      tail.bytes.substr(0, tail.bytes.size() - 1),              // a cut value
      std::string("\x10\0\x20\0\x01\x02\x02\0ID", 10),          // no VR
      std::string("\x08\0\x40\x11SQ\0\0\xFF\xFF\xFF\xFF", 12),  // a sequence that never ends
      std::string("\xFE\xFF\0\xE0\0\0\0\0", 8),                 // an item outside a sequence
      std::string("\x08\0\x40\x11SQ\0\0\xFF\xFF\xFF\xFF\x10\0\x10\0PN\2\0ab", 22)};  // no items
  for (const std::string& t : cases) {
    for (Dicom::read_t how : {Dicom::READ_CLASSIC, kStandard}) {
      SCOPED_TRACE(testing::Message() << how << " " << t.size());
      if (how == Dicom::READ_CLASSIC && &t - cases > 1) continue;  // the rest it walks through
      Dicom d;
      EXPECT_EQ(load_bytes(d, b.bytes + t, how), 3);
      EXPECT_FALSE(d.is_complete());
      EXPECT_EQ(value_of(d, 0x0010, 0x0010), bytes_of("Doe^John"));
      EXPECT_EQ(d.get_stop_offset(), good);
    }
  }
  Dicom d;
  EXPECT_EQ(load_bytes(d, b.bytes), 3);
  EXPECT_TRUE(d.is_complete());
  EXPECT_EQ(d.get_stop_offset(), good);
}

TEST(DicomStandard, FoldersAreNoFiles) {
  TempDir dir;
  const std::string folder = dir.path.string();
  for (Dicom::read_t how : {Dicom::READ_CLASSIC, kStandard}) {
    Dicom d;
    EXPECT_EQ(d.load(std::wstring(folder.begin(), folder.end()), how), -1);
    EXPECT_EQ(d.load(L"/nonexistent/quib.dcm", how), -1);
  }
}

TEST(DicomStandard, NestingOfAnyDepthEndsCleanly) {
  for (bool closed : {true, false}) {
    Builder b;
    b.meta(kExplicit);
    const int depth = 100000;
    std::string open, close;
    Builder step = body(true, false);
    step.put(0x0040, 0xA730, "SQ", "", kUndefined).put(0xFFFE, 0xE000, "", "", kUndefined);
    Builder end = body(true, false);
    end.put(0xFFFE, 0xE00D, "", "").put(0xFFFE, 0xE0DD, "", "");
    for (int i = 0; i < depth; ++i)
      open += step.bytes;
    for (int i = 0; closed && i < depth; ++i)
      close += end.bytes;
    Dicom d;
    EXPECT_EQ(load_bytes(d, b.bytes + open + close, kStandard), closed ? 3 : 2);
    EXPECT_EQ(d.is_complete(), closed);
  }
}

}  // namespace
