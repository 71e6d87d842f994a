// quib hash [--sha256] FILES... and quib hash --check LISTS...: fingerprints of whole files,
// read block by block, in the lines sha256sum writes and checks.
#include <quib/hash.hpp>

#include "commands.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <ostream>
#include <sstream>

namespace quib::tool {

namespace {

enum class algorithm { hash64, sha256 };

char const* nameOf(algorithm a) {
  return a == algorithm::sha256 ? "sha256" : "hash64";
}

std::string hex(std::vector<unsigned char> const& bytes) {
  static char const digits[] = "0123456789abcdef";
  std::string s;
  for (unsigned char b : bytes) {
    s += digits[b >> 4];
    s += digits[b & 15];
  }
  return s;
}

// One digest taken block by block, through the library's incremental hashers.
class Digest {
 public:
  explicit Digest(algorithm a) : kind(a) {}
  void update(unsigned char const* data, std::size_t size) {
    if (kind == algorithm::sha256)
      sha.update(data, size);
    else
      fast.update(data, size);
  }
  // The digest in hexadecimal, or "" when the engine failed.
  std::string final() {
    if (kind == algorithm::sha256) return sha.final_hex();
    const std::uint64_t h = fast.final();
    std::vector<unsigned char> bytes(8);
    for (int i = 0; i < 8; ++i)
      bytes[std::size_t(i)] = static_cast<unsigned char>(h >> (56 - 8 * i));
    return hex(bytes);
  }

 private:
  algorithm kind;
  quib::hash::Hasher fast;
  quib::sha256::Hasher sha;
};

// The digest engine failed; the library has said so on standard error, in one line.
struct DigestFailed {};

// The digest of a file ("-": standard input), read in blocks; Failure naming the file and what
// the system said when it cannot be read, DigestFailed when the engine failed.
std::string digestOf(std::string const& path, algorithm a, std::vector<unsigned char>& block) {
  const bool standardInput = path == "-";
  const int fd = standardInput ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw Failure(path, systemMessage(errno));
  struct Closer {
    int fd;
    bool owned;
    ~Closer() {
      if (owned) ::close(fd);
    }
  } closer{fd, !standardInput};
  struct stat st {};
  if (::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) throw Failure(path, "is a directory");
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  Digest digest(a);
  for (;;) {
    const ssize_t n = ::read(fd, block.data(), block.size());
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      throw Failure(path, "read error: " + systemMessage(errno));
    }
    digest.update(block.data(), static_cast<std::size_t>(n));
  }
  std::string value = digest.final();
  if (value.empty()) throw DigestFailed{};
  return value;
}

// sha256sum's escaping of a name in its lines: a backslash, newline or carriage return in the
// name is written as \\, \n or \r, and the line then starts with a backslash.
bool needsEscape(std::string const& name, bool backslash) {
  return name.find_first_of(backslash ? "\\\n\r" : "\n\r") != std::string::npos;
}

std::string escaped(std::string const& name) {
  std::string out;
  for (char c : name) {
    if (c == '\\')
      out += "\\\\";
    else if (c == '\n')
      out += "\\n";
    else if (c == '\r')
      out += "\\r";
    else
      out += c;
  }
  return out;
}

// The name of an escaped line; false for an escape sequence sha256sum does not write.
bool unescape(std::string const& text, std::string& name) {
  name.clear();
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      name += text[i];
      continue;
    }
    if (++i == text.size()) return false;
    const char c = text[i];
    if (c == '\\')
      name += '\\';
    else if (c == 'n')
      name += '\n';
    else if (c == 'r')
      name += '\r';
    else
      return false;
  }
  return true;
}

// One line of a checksum list: "DIGEST  NAME" or "DIGEST *NAME", the digest's length telling
// the algorithm (16 digits hash64, 64 digits sha256); false when the line is not one.
struct Listed {
  std::string digest;
  std::string name;
  algorithm kind = algorithm::hash64;
};

bool parseLine(std::string line, Listed& entry) {
  if (!line.empty() && line.back() == '\r') line.pop_back();
  const bool escapedName = !line.empty() && line[0] == '\\';
  if (escapedName) line.erase(0, 1);
  const auto space = line.find(' ');
  if (space == std::string::npos || space + 2 > line.size()) return false;
  entry.digest = line.substr(0, space);
  if (entry.digest.size() != 16 && entry.digest.size() != 64) return false;
  for (char& c : entry.digest) {
    if (c >= 'A' && c <= 'F') c = static_cast<char>(c - 'A' + 'a');
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  if (line[space + 1] != ' ' && line[space + 1] != '*') return false;
  const std::string rest = line.substr(space + 2);
  if (rest.empty()) return false;
  if (escapedName) {
    if (!unescape(rest, entry.name)) return false;
  } else {
    entry.name = rest;
  }
  entry.kind = entry.digest.size() == 64 ? algorithm::sha256 : algorithm::hash64;
  return true;
}

std::string counted(std::size_t n, char const* one, char const* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

struct HashOptions {
  std::vector<std::string> files;
  bool sha = false;
  bool check = false;
  bool quiet = false;
  bool status = false;
};

void hashFiles(Context& ctx, HashOptions const& o, std::vector<unsigned char>& block) {
  const algorithm a = o.sha ? algorithm::sha256 : algorithm::hash64;
  Json all = Json::array();
  Progress progress(ctx, o.files.size());
  for (std::string const& path : o.files) {
    progress.step(path);
    ctx.subject = path;
    std::string digest;
    try {
      digest = digestOf(path, a, block);
    } catch (Failure const& f) {
      progress.done();
      ctx.fail(f.file(), f.what());
      continue;
    } catch (DigestFailed const&) {
      progress.done();
      ctx.status = exit_code::failed;
      continue;
    }
    if (ctx.json) {
      all.push_back({{"file", path}, {"algorithm", nameOf(a)}, {"digest", digest}});
    } else {
      progress.done();
      if (needsEscape(path, true))
        ctx.out << '\\' << digest << "  " << escaped(path) << '\n';
      else
        ctx.out << digest << "  " << path << '\n';
    }
  }
  progress.done();
  if (ctx.json) writeJson(ctx.out, all);
}

// Checks the files named in each list against their digests, as sha256sum --check does.
void checkLists(Context& ctx, HashOptions const& o, std::vector<unsigned char>& block) {
  Json all = Json::array();
  for (std::string const& list : o.files) {
    ctx.subject = list;
    std::ifstream file;
    if (list != "-") {
      if (std::string reason = openForReading(file, list); !reason.empty()) {
        ctx.fail(list, reason);
        continue;
      }
    }
    std::istream& in = list == "-" ? std::cin : file;
    std::size_t good = 0, bad = 0, mismatched = 0, unreadable = 0;
    std::string line;
    while (std::getline(in, line)) {
      Listed entry;
      if (!parseLine(line, entry)) {
        ++bad;
        continue;
      }
      ++good;
      std::string digest;
      std::string reason;
      bool reported = false;  // by the library, on standard error
      try {
        digest = digestOf(entry.name, entry.kind, block);
      } catch (Failure const& f) {
        reason = f.what();
      } catch (DigestFailed const&) {
        reason = "digest failed";
        reported = true;
      }
      const bool ok = reason.empty() && digest == entry.digest;
      if (!reason.empty()) {
        ++unreadable;
        if (reported)
          ctx.status = exit_code::failed;
        else
          ctx.fail(entry.name, reason);
      } else if (!ok) {
        ++mismatched;
      }
      if (ctx.json) {
        all.push_back({{"file", entry.name},
                       {"algorithm", nameOf(entry.kind)},
                       {"digest", reason.empty() ? Json(digest) : Json()},
                       {"ok", ok}});
        continue;
      }
      if (o.status || (ok && o.quiet)) continue;
      if (needsEscape(entry.name, false)) ctx.out << '\\';
      ctx.out << (needsEscape(entry.name, false) ? escaped(entry.name) : entry.name) << ": "
              << (ok               ? "OK"
                  : reason.empty() ? "FAILED"
                                   : "FAILED open or read")
              << '\n';
    }
    if (in.bad()) {
      ctx.fail(list, "read error");
      continue;
    }
    std::vector<std::string> problems;
    if (mismatched)
      problems.push_back(counted(mismatched, "computed checksum", "computed checksums") +
                         " did NOT match");
    if (unreadable)
      problems.push_back(counted(unreadable, "listed file", "listed files") + " could not be read");
    if (bad) problems.push_back(counted(bad, "line is", "lines are") + " improperly formatted");
    if (good == 0) problems.push_back("no properly formatted checksum lines found");
    if (problems.empty()) continue;
    std::string message;
    for (std::string const& p : problems)
      message += (message.empty() ? "" : ", ") + p;
    if (mismatched || unreadable || good == 0) {
      ctx.fail(list, message);
    } else if (!o.status) {
      // Lines that are not checksums only warn, as with sha256sum.
      ctx.out.flush();
      ctx.err << "quib: " << list << ": warning: " << message << std::endl;
    }
  }
  if (ctx.json) writeJson(ctx.out, all);
}

}  // namespace

void add_hash_command(CLI::App& quib, Context& ctx) {
  auto o = std::make_shared<HashOptions>();
  CLI::App& cmd = addCommand(quib, "hash", paragraphs(R"(
      fingerprint files (64-bit hash or SHA-256), or check them against a list

      Prints a fingerprint of each file's bytes, one line per file in the form sha256sum uses:
      the digest, two blanks and the file name (a name holding a backslash or a newline is
      written escaped, on a line that starts with a backslash). The default fingerprint is the
      library's fast 64-bit hash (16 hexadecimal digits; not for security); --sha256 gives the
      SHA-256 digest (64 digits), the same value sha256sum prints. Files are read in blocks,
      so their size does not matter. With --json, an array of {file, algorithm, digest}.

      With --check, each FILE is a list of such lines, as this command or sha256sum writes
      them; every file it names is read and compared, and reported as OK, FAILED, or FAILED
      open or read. The length of each digest tells the algorithm. The exit status is 1 when a
      file did not match or could not be read.
)"));
  cmd.add_option("FILES", o->files, "files to read, or lists to check; '-' reads standard input")
      ->required();
  cmd.add_flag("--sha256", o->sha, "SHA-256 instead of the 64-bit hash");
  CLI::Option* check =
      cmd.add_flag("-c,--check", o->check, "check the files named in lists of digests");
  cmd.add_flag("--quiet", o->quiet, "with --check: do not print OK for files that match")
      ->needs(check);
  cmd.add_flag("--status", o->status, "with --check: print nothing; the exit status tells")
      ->needs(check);
  addJsonFlag(cmd, ctx);
  onRun(cmd, ctx, [o, &ctx] {
    std::vector<unsigned char> block(std::size_t(1) << 18);
    if (o->check)
      checkLists(ctx, *o, block);
    else
      hashFiles(ctx, *o, block);
  });
}

}  // namespace quib::tool
