// quib hash [--sha256] FILES...: fingerprints of whole files.
#include <quib/hash.hpp>

#include "commands.hpp"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <ostream>

namespace quib::tool {

char const* const hashHelp =
    "usage: quib hash [--sha256] [--json] FILES...\n"
    "\n"
    "Prints a fingerprint of each file's bytes, one line per file: the digest, two blanks\n"
    "and the file name. The default fingerprint is the library's fast 64-bit hash (16\n"
    "hexadecimal digits; not for security); --sha256 gives the SHA-256 digest (64 digits),\n"
    "the same value sha256sum prints. A FILE of '-' reads standard input.\n"
    "\n"
    "Options:\n"
    "  --sha256   SHA-256 instead of the 64-bit hash\n"
    "  --json     print a JSON array of {file, algorithm, digest}\n";

namespace {

std::string hex(std::vector<unsigned char> const& bytes) {
  static char const digits[] = "0123456789abcdef";
  std::string s;
  for (unsigned char b : bytes) {
    s += digits[b >> 4];
    s += digits[b & 15];
  }
  return s;
}

// The whole content of a file (or of standard input for "-"); Failure when it cannot be read.
std::vector<unsigned char> slurp(std::string const& path) {
  std::ifstream file;
  std::istream* in = &std::cin;
  if (path != "-") {
    if (std::string reason = unreadableReason(path); !reason.empty()) throw Failure(path, reason);
    file.open(path, std::ios::binary);
    if (!file) throw Failure(path, "cannot be opened");
    in = &file;
  }
  std::vector<unsigned char> data;
  std::error_code ec;
  if (path != "-") {
    const auto size = std::filesystem::file_size(path, ec);
    if (!ec && size < (std::uintmax_t(1) << 40)) data.reserve(static_cast<std::size_t>(size));
  }
  char chunk[1 << 16];
  while (in->read(chunk, sizeof chunk) || in->gcount() > 0) {
    data.insert(data.end(), chunk, chunk + in->gcount());
    if (in->eof()) break;
  }
  if (in->bad()) throw Failure(path, "read error");
  return data;
}

}  // namespace

int runHash(Context& ctx, std::vector<std::string> const& argv) {
  const Args args(argv, {{"--sha256"}});
  if (args.positional().empty()) throw UsageError("no FILES given");
  const bool sha = args.has("--sha256");
  char const* const algorithm = sha ? "sha256" : "hash64";

  Json all = Json::array();
  Progress progress(ctx, args.positional().size());
  for (std::string const& path : args.positional()) {
    progress.step(path);
    ctx.subject = path;
    std::string digest;
    try {
      const std::vector<unsigned char> data = slurp(path);
      std::vector<unsigned char> out;
      if (sha ? !quib::sha256::compute(out, data) : !quib::hash::compute(out, data))
        throw Failure(path, "the digest could not be computed");
      digest = hex(out);
    } catch (Failure const& f) {
      progress.done();
      ctx.fail(f.file(), f.what());
      continue;
    } catch (std::bad_alloc const&) {
      progress.done();
      ctx.fail(path, "too large to hold in memory");
      continue;
    }
    if (ctx.json) {
      Json j = Json::object();
      j.set("file", path).set("algorithm", algorithm).set("digest", digest);
      all.push(j);
    } else {
      progress.done();
      ctx.out << digest << "  " << path << '\n';
    }
  }
  progress.done();
  if (ctx.json) all.write(ctx.out);
  return ctx.status;
}

}  // namespace quib::tool
