// The 64-bit hash and SHA-256 through OpenSSL's EVP interface.
#include <quib/hash.hpp>

#include "system/utf8.hpp"

#include <openssl/evp.h>

#include <cstdint>
#include <cstdio>
#include <stdexcept>

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

template <class Char>
std::basic_string<Char> hex_text(std::uint64_t h) {
  unsigned char bytes[8];
  for (int i = 0; i < 8; ++i)
    bytes[i] = static_cast<unsigned char>(h >> (56 - 8 * i));
  return hex_text<Char>(bytes, 8);
}

// A failed step of the digest sequence; never leaves this file.
struct DigestError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class EvpEngine final : public detail::DigestEngine {
 public:
  EvpEngine() = default;
  EvpEngine(EvpEngine const&) = delete;
  EvpEngine& operator=(EvpEngine const&) = delete;
  ~EvpEngine() override { EVP_MD_CTX_free(context); }

  bool acquire() override { return (context = EVP_MD_CTX_new()) != nullptr; }
  bool create() override { return EVP_DigestInit_ex(context, EVP_sha256(), nullptr) == 1; }
  bool update(unsigned char const* data, std::size_t size) override {
    return EVP_DigestUpdate(context, data, size) == 1;
  }
  bool finish(unsigned char* out) override {
    unsigned int length = 0;
    return EVP_DigestFinal_ex(context, out, &length) == 1 && length == 32;
  }

 private:
  EVP_MD_CTX* context = nullptr;
};

bool sha256_bytes(std::vector<unsigned char>& out, unsigned char const* data, std::size_t size) {
  EvpEngine engine;
  return detail::run_sha256(engine, out, data, size);
}

}  // namespace

namespace detail {

bool run_sha256(DigestEngine& engine, std::vector<unsigned char>& out, unsigned char const* data,
                std::size_t size) {
  try {
    if (!engine.acquire()) throw DigestError("error CryptAcquireContext()");
    if (!engine.create()) throw DigestError("error CryptCreateHash()");
    if (!engine.update(data, size)) throw DigestError("error CryptHashData()");
    out.resize(32);
    if (!engine.finish(out.data())) throw DigestError("error CryptGetHashParam()");
    return true;
  } catch (DigestError const& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return false;
  }
}

}  // namespace detail

namespace hash {

bool compute(std::vector<unsigned char>& out, std::vector<unsigned char> const& in) {
  std::uint64_t h = 0;
  for (unsigned char byte : in)
    h = mix(h, byte);
  out.resize(8);
  for (int i = 0; i < 8; ++i)
    out[static_cast<std::size_t>(i)] = static_cast<unsigned char>(h >> (56 - 8 * i));
  return true;
}

std::string compute(std::string const& in) {
  std::uint64_t h = 0;
  for (char c : in) {
    // Sign-extended whatever the signedness of char on this platform.
    auto const e = static_cast<std::int64_t>(static_cast<signed char>(c));
    h = mix(h, static_cast<std::uint64_t>(e));
  }
  return hex_text<char>(h);
}

std::wstring compute(std::wstring const& in) {
  std::uint64_t h = 0;
  for (wchar_t wc : in) {
    std::uint32_t const c = code_point(wc);
    if (c < 0x10000) {
      h = mix(h, c);
    } else {
      std::uint32_t const v = c - 0x10000;
      h = mix(h, 0xD800 + (v >> 10));
      h = mix(h, 0xDC00 + (v & 0x3FF));
    }
  }
  return hex_text<wchar_t>(h);
}

}  // namespace hash

namespace sha256 {

bool compute(std::vector<unsigned char>& out, std::vector<unsigned char> const& in) {
  return sha256_bytes(out, in.data(), in.size());
}

std::string compute(std::string const& in) {
  std::vector<unsigned char> digest;
  if (!sha256_bytes(digest, reinterpret_cast<unsigned char const*>(in.data()), in.size())) {
    return {};
  }
  return hex_text<char>(digest.data(), digest.size());
}

std::wstring compute(std::wstring const& in) {
  // The same bytes as convert::to_string gives: unpaired surrogates become U+FFFD.
  std::string const utf8 = *detail::utf8_from_wide(in, detail::on_invalid::replace);
  std::vector<unsigned char> digest;
  if (!sha256_bytes(digest, reinterpret_cast<unsigned char const*>(utf8.data()), utf8.size())) {
    return {};
  }
  return hex_text<wchar_t>(digest.data(), digest.size());
}

}  // namespace sha256
}  // namespace quib
