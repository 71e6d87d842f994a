// quib hash [--sha256] FILES...: fingerprints of whole files.
#include <quib/hash.hpp>

#include "commands.hpp"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <ostream>

namespace quib::tool {

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

void hashFiles(Context& ctx, std::vector<std::string> const& files, bool sha) {
  char const* const algorithm = sha ? "sha256" : "hash64";
  Json all = Json::array();
  Progress progress(ctx, files.size());
  for (std::string const& path : files) {
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
      all.push_back({{"file", path}, {"algorithm", algorithm}, {"digest", digest}});
    } else {
      progress.done();
      ctx.out << digest << "  " << path << '\n';
    }
  }
  progress.done();
  if (ctx.json) writeJson(ctx.out, all);
}

}  // namespace

void add_hash_command(CLI::App& quib, Context& ctx) {
  struct Options {
    std::vector<std::string> files;
    bool sha = false;
  };
  auto o = std::make_shared<Options>();
  CLI::App& cmd = addCommand(
      quib, "hash",
      "fingerprint files (64-bit hash or SHA-256)\n\n"
      "Prints a fingerprint of each file's bytes, one line per file: the digest, two blanks and "
      "the file name. The default fingerprint is the library's fast 64-bit hash (16 hexadecimal "
      "digits; not for security); --sha256 gives the SHA-256 digest (64 digits), the same value "
      "sha256sum prints. With --json, an array of {file, algorithm, digest}.");
  cmd.add_option("FILES", o->files, "files to read; '-' reads standard input")->required();
  cmd.add_flag("--sha256", o->sha, "SHA-256 instead of the 64-bit hash");
  addJsonFlag(cmd, ctx);
  onRun(cmd, ctx, [o, &ctx] { hashFiles(ctx, o->files, o->sha); });
}

}  // namespace quib::tool
