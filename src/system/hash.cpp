// The 64-bit hash and SHA-256 through OpenSSL's EVP interface, both taken in pieces; the
// one-shot compute functions are built on the same objects.
#include <quib/hash.hpp>

#include "system/utf8.hpp"

#include <openssl/evp.h>

#include <cstdint>
#include <cstdio>
#include <utility>

namespace quib {
namespace {

constexpr std::uint32_t kReplacement = 0xFFFD;

std::uint64_t mix(std::uint64_t h, std::uint64_t e) {
  return h ^ (e + 0x9e3779b9u + (h << 6) + (h >> 2));
}

// The code point a wchar_t holds, or U+FFFD when it holds none (negative or above U+10FFFF).
std::uint32_t code_point(wchar_t c) {
  auto const value = static_cast<std::uint32_t>(c);
  return value > 0x10FFFF ? kReplacement : value;
}

template <class Char>
std::basic_string<Char> hex_text(unsigned char const* bytes, std::size_t count) {
  static char const digits[] = "0123456789abcdef";
  std::basic_string<Char> text(count * 2, Char('0'));
  for (std::size_t i = 0; i < count; ++i) {
    text[2 * i] = static_cast<Char>(digits[bytes[i] >> 4]);
    text[2 * i + 1] = static_cast<Char>(digits[bytes[i] & 0x0F]);
  }
  return text;
}

void big_endian_bytes(std::uint64_t h, unsigned char* out) {
  for (int i = 0; i < 8; ++i)
    out[i] = static_cast<unsigned char>(h >> (56 - 8 * i));
}

template <class Char>
std::basic_string<Char> hex_text(std::uint64_t h) {
  unsigned char bytes[8];
  big_endian_bytes(h, bytes);
  return hex_text<Char>(bytes, 8);
}

class evp_engine final : public detail::digest_engine {
 public:
  evp_engine() = default;
  evp_engine(evp_engine const&) = delete;
  evp_engine& operator=(evp_engine const&) = delete;
  ~evp_engine() override { EVP_MD_CTX_free(context_); }

  bool acquire() override { return (context_ = EVP_MD_CTX_new()) != nullptr; }
  bool create() override { return EVP_DigestInit_ex(context_, EVP_sha256(), nullptr) == 1; }
  bool update(unsigned char const* data, std::size_t size) override {
    return EVP_DigestUpdate(context_, data, size) == 1;
  }
  bool finish(unsigned char* out) override {
    unsigned int length = 0;
    return EVP_DigestFinal_ex(context_, out, &length) == 1 && length == 32;
  }

 private:
  EVP_MD_CTX* context_ = nullptr;
};

// The failure lines of each step, in the order acquire, create, update, finish: what failed
// on this platform, and the lines the one-shot functions have always written.
char const* const kEvpMessages[] = {
    "sha256: EVP_MD_CTX_new failed", "sha256: EVP_DigestInit_ex failed",
    "sha256: EVP_DigestUpdate failed", "sha256: EVP_DigestFinal_ex failed"};
char const* const kComputeMessages[] = {"error CryptAcquireContext()", "error CryptCreateHash()",
                                        "error CryptHashData()", "error CryptGetHashParam()"};

enum step_t : int { acquire_step, create_step, update_step, finish_step };

}  // namespace

namespace detail {

struct hasher_access {
  static sha256::Hasher make(std::unique_ptr<digest_engine> engine, char const* const* messages) {
    return sha256::Hasher(std::move(engine), messages);
  }
};

bool run_sha256(std::unique_ptr<digest_engine> engine, std::vector<unsigned char>& out,
                unsigned char const* data, std::size_t size) {
  sha256::Hasher hasher = hasher_access::make(std::move(engine), kComputeMessages);
  return hasher.update(data, size) && hasher.final(out);
}

}  // namespace detail

namespace hash {

void Hasher::update(void const* data, std::size_t size) {
  auto const* bytes = static_cast<unsigned char const*>(data);
  std::uint64_t value = h_;
  for (std::size_t i = 0; i < size; ++i)
    value = mix(value, bytes[i]);
  h_ = value;
}

void Hasher::update(std::string_view chars) {
  std::uint64_t value = h_;
  for (char c : chars) {
    // Sign-extended whatever the signedness of char on this platform.
    auto const e = static_cast<std::int64_t>(static_cast<signed char>(c));
    value = mix(value, static_cast<std::uint64_t>(e));
  }
  h_ = value;
}

void Hasher::update(std::wstring_view text) {
  std::uint64_t value = h_;
  for (wchar_t wc : text) {
    std::uint32_t const c = code_point(wc);
    if (c < 0x10000) {
      value = mix(value, c);
    } else {
      std::uint32_t const v = c - 0x10000;
      value = mix(value, 0xD800 + (v >> 10));
      value = mix(value, 0xDC00 + (v & 0x3FF));
    }
  }
  h_ = value;
}

std::uint64_t Hasher::final() {
  return std::exchange(h_, 0);
}

bool compute(std::vector<unsigned char>& out, std::vector<unsigned char> const& in) {
  Hasher hasher;
  hasher.update(in.data(), in.size());
  out.resize(8);
  big_endian_bytes(hasher.final(), out.data());
  return true;
}

std::string compute(std::string const& in) {
  Hasher hasher;
  hasher.update(std::string_view(in));
  return hex_text<char>(hasher.final());
}

std::wstring compute(std::wstring const& in) {
  Hasher hasher;
  hasher.update(std::wstring_view(in));
  return hex_text<wchar_t>(hasher.final());
}

}  // namespace hash

namespace sha256 {

Hasher::Hasher() : Hasher(std::make_unique<evp_engine>(), kEvpMessages) {}

Hasher::Hasher(std::unique_ptr<detail::digest_engine> e) : Hasher(std::move(e), kEvpMessages) {}

Hasher::Hasher(std::unique_ptr<detail::digest_engine> e, step_messages m)
    : engine_(std::move(e)), messages_(m) {}

Hasher::Hasher(Hasher&& other) noexcept
    : engine_(std::move(other.engine_)),
      messages_(other.messages_),
      acquired_(std::exchange(other.acquired_, false)),
      running_(std::exchange(other.running_, false)),
      failed_(std::exchange(other.failed_, false)) {}

Hasher& Hasher::operator=(Hasher&& other) noexcept {
  engine_ = std::move(other.engine_);
  messages_ = other.messages_;
  acquired_ = std::exchange(other.acquired_, false);
  running_ = std::exchange(other.running_, false);
  failed_ = std::exchange(other.failed_, false);
  return *this;
}

Hasher::~Hasher() = default;

bool Hasher::fail(int which) {
  std::fprintf(stderr, "%s\n", messages_[which]);
  failed_ = true;
  running_ = false;
  return false;
}

// Acquires the engine once per object and begins a digest once per final(); a failure is
// reported once and holds until final().
bool Hasher::start() {
  if (failed_) return false;
  if (!acquired_) {
    if (!engine_ || !engine_->acquire()) return fail(acquire_step);
    acquired_ = true;
  }
  if (!running_) {
    if (!engine_->create()) return fail(create_step);
    running_ = true;
  }
  return true;
}

bool Hasher::update(void const* data, std::size_t size) {
  if (!start()) return false;
  if (!engine_->update(static_cast<unsigned char const*>(data), size)) return fail(update_step);
  return true;
}

bool Hasher::final(std::vector<unsigned char>& out) {
  bool ok = start();
  if (ok) {
    out.resize(32);
    ok = engine_->finish(out.data()) || fail(finish_step);
  }
  running_ = false;  // the next update begins a new digest
  failed_ = false;
  return ok;
}

std::string Hasher::final_hex() {
  std::vector<unsigned char> digest;
  if (!final(digest)) return {};
  return hex_text<char>(digest.data(), digest.size());
}

bool compute(std::vector<unsigned char>& out, std::vector<unsigned char> const& in) {
  return detail::run_sha256(std::make_unique<evp_engine>(), out, in.data(), in.size());
}

std::string compute(std::string const& in) {
  std::vector<unsigned char> digest;
  if (!detail::run_sha256(std::make_unique<evp_engine>(), digest,
                          reinterpret_cast<unsigned char const*>(in.data()), in.size())) {
    return {};
  }
  return hex_text<char>(digest.data(), digest.size());
}

std::wstring compute(std::wstring const& in) {
  // The same bytes as convert::to_string gives: unpaired surrogates become U+FFFD.
  std::string const utf8 = *detail::utf8_from_wide(in, detail::on_invalid_t::replace);
  std::vector<unsigned char> digest;
  if (!detail::run_sha256(std::make_unique<evp_engine>(), digest,
                          reinterpret_cast<unsigned char const*>(utf8.data()), utf8.size())) {
    return {};
  }
  return hex_text<wchar_t>(digest.data(), digest.size());
}

}  // namespace sha256
}  // namespace quib
