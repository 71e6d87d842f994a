// quib hash and quib name.
#include "tool_runner.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

using quib::test::failsWith;
using quib::test::runTool;

class HashTool : public quib::test::ToolFiles {};

TEST_F(HashTool, PrintsKnownDigestsOfFileContents) {
  const std::string abc = writeFile("abc.txt", "abc");
  const std::string empty = writeFile("empty", "");
  const std::string one = writeFile("one", std::string(1, '\x01'));

  const auto sha = runTool({"hash", "--sha256", abc, empty});
  ASSERT_EQ(sha.code, 0) << sha.err;
  EXPECT_EQ(sha.out, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad  " + abc +
                         "\n" +
                         "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855  " +
                         empty + "\n");

  // The 64-bit hash of the single byte 1 is 0x9e3779ba, written as eight big-endian bytes.
  const auto h = runTool({"hash", one, empty});
  ASSERT_EQ(h.code, 0) << h.err;
  EXPECT_EQ(h.out, "000000009e3779ba  " + one + "\n0000000000000000  " + empty + "\n");

  const auto stdinRun = runTool({"hash", "--json", "-"});  // standard input is /dev/null
  ASSERT_EQ(stdinRun.code, 0);
  EXPECT_NE(stdinRun.out.find("\"digest\": \"0000000000000000\""), std::string::npos)
      << stdinRun.out;
  EXPECT_NE(stdinRun.out.find("\"algorithm\": \"hash64\""), std::string::npos);
}

TEST_F(HashTool, GoesOnAfterAFileThatCannotBeRead) {
  const std::string abc = writeFile("abc.txt", "abc");
  const auto r = runTool({"hash", "--sha256", file("gone"), abc, dir.string()});
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.out.find("ba7816bf"), 0u) << r.out;
  EXPECT_NE(r.err.find(file("gone") + ": no such file or directory\n"), std::string::npos);
  EXPECT_NE(r.err.find(dir.string() + ": is a directory\n"), std::string::npos);

  EXPECT_TRUE(failsWith(runTool({"hash"}), 2, "FILES is required"));
  EXPECT_TRUE(failsWith(runTool({"hash", "--md5", abc}), 2, "unknown option '--md5'"));
}

TEST_F(HashTool, ADigestEngineFailureIsOneLine) {
  // OpenSSL configured with its null provider alone has no SHA-256 to give.
  const std::string conf = writeFile("null.cnf",
                                     "openssl_conf = init\n[init]\nproviders = providers\n"
                                     "[providers]\nnull = null\n[null]\nactivate = 1\n");
  const std::string abc = writeFile("abc.txt", "abc");
  const std::string list = writeFile(
      "list", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad  " + abc + "\n");
  ::setenv("OPENSSL_CONF", conf.c_str(), 1);
  const auto hashed = runTool({"hash", "--sha256", abc});
  const auto checked = runTool({"hash", "--check", list});
  const auto fast = runTool({"hash", abc});  // the 64-bit hash needs no OpenSSL
  ::unsetenv("OPENSSL_CONF");

  EXPECT_TRUE(failsWith(hashed, 1, "sha256: EVP_DigestInit_ex failed"));
  EXPECT_EQ(hashed.out, "");
  // A check also ends with its summary line, as sha256sum's does.
  EXPECT_EQ(checked.code, 1);
  EXPECT_EQ(checked.err, "sha256: EVP_DigestInit_ex failed\nquib: " + list +
                             ": 1 listed file could not be read\n");
  EXPECT_EQ(checked.out, abc + ": FAILED open or read\n");
  EXPECT_EQ(fast.code, 0) << fast.err;
}

TEST_F(HashTool, WritesAndChecksListsLikeSha256sum) {
  const std::string abc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
  const std::string plain = writeFile("plain", "abc");
  const std::string slash = writeFile("back\\slash", "abc");
  const std::string newline = writeFile("new\nline", "abc");

  // Names holding a backslash or a newline are escaped, on a line that starts with one.
  const auto listed = runTool({"hash", "--sha256", plain, slash, newline});
  ASSERT_EQ(listed.code, 0) << listed.err;
  EXPECT_EQ(listed.out, abc + "  " + plain + "\n\\" + abc + "  " + file("back\\\\slash") + "\n\\" +
                            abc + "  " + file("new\\nline") + "\n");

  // The list checks out, and so does one in sha256sum's binary form with a 64-bit hash mixed in.
  const std::string list = writeFile("list", listed.out);
  const auto ok = runTool({"hash", "--check", list});
  ASSERT_EQ(ok.code, 0) << ok.err;
  EXPECT_EQ(ok.out, plain + ": OK\n" + slash + ": OK\n\\" + file("new\\nline") + ": OK\n");
  const auto mixed = runTool({"hash", "-c", "--quiet", "-"},
                             abc + " *" + plain + "\n" + "0000000000000000  /dev/null\n");
  EXPECT_EQ(mixed.code, 0) << mixed.err;
  EXPECT_EQ(mixed.out, "");

  // A changed file fails; a missing one fails to open; both are counted on one line per list.
  writeFile("plain", "abd");
  const auto changed = runTool({"hash", "--check", list});
  EXPECT_TRUE(failsWith(changed, 1, list + ": 1 computed checksum did NOT match"));
  EXPECT_EQ(changed.out.rfind(plain + ": FAILED\n", 0), 0u) << changed.out;
  const auto gone = runTool({"hash", "--check", "--status", "-"}, abc + "  " + file("gone") + "\n");
  EXPECT_EQ(gone.code, 1);
  EXPECT_EQ(gone.out, "");
  EXPECT_NE(gone.err.find(file("gone") + ": no such file or directory\n"), std::string::npos);
  EXPECT_NE(gone.err.find("-: 1 listed file could not be read\n"), std::string::npos);

  // Lines that are not checksums only warn, unless there is nothing else.
  const auto noise = runTool({"hash", "-c", "-"}, "hello\n" + abc + "  " + slash + "\n");
  EXPECT_EQ(noise.code, 0);
  EXPECT_NE(noise.err.find("1 line is improperly formatted"), std::string::npos) << noise.err;
  EXPECT_TRUE(failsWith(runTool({"hash", "-c", "-"}, "abc  x\n\\" + abc + "  a\\qb\n"), 1,
                        "no properly formatted checksum lines found"));
  EXPECT_TRUE(failsWith(runTool({"hash", "--quiet", plain}), 2, "--quiet requires --check"));
}

TEST_F(HashTool, StreamsFilesLargerThanMemoryWants) {
  // A sparse file of 2 GiB of zeros takes no disk; hashing it must not take its size in memory.
  const std::string big = file("big");
  std::filesystem::resize_file(writeFile("big", ""), std::uintmax_t(1) << 31);
  const auto r = runTool({"hash", "--sha256", big});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out,
            "a7c744c13cc101ed66c29f672f92455547889cc586ce6d44fe76ae824958ea51  " + big + "\n");
  // Measured against hashing an empty file: the tool's own size (libraries, a sanitizer's
  // shadow memory) is not what the file may add.
  const auto empty = runTool({"hash", "--sha256", writeFile("empty", "")});
  ASSERT_EQ(empty.code, 0) << empty.err;
  EXPECT_LT(r.peakKiB - empty.peakKiB, 64 * 1024);
}

TEST(NameTool, NumbersASeries) {
  const auto next = runTool({"name", "next", "scan#3.png", "scan.png", "SCAN#9.PNG", "dir.v2/scan",
                             "shot_7.jpg", "a/.hidden", "x#"});
  ASSERT_EQ(next.code, 0) << next.err;
  EXPECT_EQ(
      next.out,
      "scan#4.png\nscan#1.png\nSCAN#10.PNG\ndir.v2/scan#1\nshot_7#1.jpg\na/.hidden#1\nx##1\n");

  const auto strip = runTool({"name", "strip", "scan#12.png", "frame_12.png", "plain.png"});
  ASSERT_EQ(strip.code, 0) << strip.err;
  EXPECT_EQ(strip.out, "scan.png\nframe.png\nplain.png\n");

  const auto number = runTool({"name", "number", "--json", "scan#12.png", "frame_0012.tif"});
  ASSERT_EQ(number.code, 0) << number.err;
  EXPECT_NE(number.out.find("\"number\": 12,\n    \"suffix\": \"12\""), std::string::npos)
      << number.out;
  EXPECT_NE(number.out.find("\"number\": null,\n    \"suffix\": \"0012\""), std::string::npos);

  // A given extension is matched without regard to case and keeps its spelling.
  const auto ext = runTool({"name", "next", "--ext", ".PNG", "a#1.png", "b#1.Png.bak"});
  EXPECT_EQ(ext.out, "a#2.png\nb#1.Png.bak#1.PNG\n");
}

TEST(NameTool, RefusesNumbersPastTheRangeAndBadUsage) {
  const auto big = runTool({"name", "next", "s#99999999999999999999.png", "t#1.png"});
  EXPECT_EQ(big.code, 1);
  EXPECT_EQ(big.out, "t#2.png\n");
  EXPECT_TRUE(failsWith(big, 1, "s#99999999999999999999.png: the number"));
  EXPECT_TRUE(failsWith(runTool({"name", "next", "s#9223372036854775807"}), 1, "grow"));

  EXPECT_TRUE(failsWith(runTool({"name"}), 2, "missing action"));
  EXPECT_TRUE(failsWith(runTool({"name", "rename", "a"}), 2, "unknown action 'rename'"));
  EXPECT_TRUE(failsWith(runTool({"name", "next"}), 2, "PATHS is required"));
}

}  // namespace
