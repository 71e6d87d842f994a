// Fingerprints of data: a fast 64-bit hash and the SHA-256 digest.
#pragma once

#include <quib/export.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quib {

namespace detail {
class digest_engine;
struct hasher_access;
}  // namespace detail

/// A fast, non-cryptographic 64-bit hash for telling data apart (never for security).
/// Starting from h = 0, each input element e is mixed in as
/// h ^= e + 0x9e3779b9 + (h << 6) + (h >> 2) in unsigned 64-bit arithmetic. What e is depends
/// on the form, deliberately: a byte vector's bytes enter as 0..255, a narrow string's chars
/// are sign-extended (bytes 0x80..0xFF enter as values near 2^64), and a wide string enters as
/// its UTF-16 code units (a character above U+FFFF as its two surrogates; a value that is no
/// character, above U+10FFFF or negative, as U+FFFD), so results match those of a platform
/// with a 16-bit wchar_t. Empty input hashes to 0.
/// The results are fresh values owned by the caller. Nothing fails. Safe from any thread.
///
///     std::string h = quib::hash::compute(std::string("\x01"));   // "000000009e3779ba"
namespace hash {

/// `out` becomes the 8 bytes of the hash, most significant first. Always true.
QUIB_API bool compute(std::vector<unsigned char>& out, std::vector<unsigned char> const& in);
/// The hash of the string's chars as 16 lower-case hexadecimal digits.
QUIB_API std::string compute(std::string const& in);
/// The hash of the string's UTF-16 code units as 16 lower-case hexadecimal digits.
QUIB_API std::wstring compute(std::wstring const& in);

/// The 64-bit hash taken in pieces: feeding the pieces of an input one after another gives the
/// value compute() gives for the whole. Each update names how its elements enter (see above),
/// so bytes, chars and wide characters may be mixed in one value. A plain value that owns
/// nothing and cannot fail. One object belongs to one thread at a time.
///
///     quib::hash::Hasher h;
///     while (std::size_t n = std::fread(block, 1, sizeof block, file)) h.update(block, n);
///     std::uint64_t value = h.final();
class QUIB_API Hasher {
 public:
  /// Adds `size` bytes, each as 0..255 (as the byte-vector form).
  void update(void const* data, std::size_t size);
  /// Adds chars, sign-extended (as the narrow-string form).
  void update(std::string_view chars);
  /// Adds wide characters as UTF-16 code units (as the wide-string form).
  void update(std::wstring_view text);
  /// The hash of everything added since construction or the last final(); starts over.
  std::uint64_t final();

 private:
  std::uint64_t h_ = 0;
};

}  // namespace hash

/// The SHA-256 digest, computed by OpenSSL.
/// The results are fresh values owned by the caller; the input is read in place, never
/// copied. A failure of the digest engine never throws: it writes one line naming the failed
/// step to standard error and returns false (the vector form; `out` is then unchanged or
/// resized) or an empty string (the text forms). Safe from any thread.
///
///     std::string d = quib::sha256::compute(std::string("abc"));
///     // "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"
namespace sha256 {

/// `out` becomes the 32-byte digest of `in`. True on success, false on failure.
[[nodiscard]] QUIB_API bool compute(std::vector<unsigned char>& out,
                                    std::vector<unsigned char> const& in);
/// The digest of the string's bytes as 64 lower-case hexadecimal digits; empty on failure.
QUIB_API std::string compute(std::string const& in);
/// The digest of the string's UTF-8 bytes exactly as convert::to_string gives them, as 64
/// lower-case hexadecimal digits; empty on failure. A surrogate pair is the character it stands
/// for; an unpaired surrogate or a value that is no character is hashed as U+FFFD.
QUIB_API std::wstring compute(std::wstring const& in);

/// SHA-256 taken in pieces, for data that does not fit in memory or arrives in blocks: the
/// digest of the pieces fed one after another equals compute() of the whole.
/// Owns its OpenSSL context, which is freed with the object; movable, not copyable.
/// Failures: a failing OpenSSL step writes one line to standard error naming it
/// ("sha256: EVP_DigestUpdate failed", ...); the hasher then stays failed until final(),
/// every update returns false, and final() returns false (`out` unchanged) or an empty string.
/// After final() the hasher starts a new digest. One object belongs to one thread at a time.
///
///     quib::sha256::Hasher sha;
///     while (std::size_t n = std::fread(block, 1, sizeof block, file)) sha.update(block, n);
///     std::string hex = sha.final_hex();   // 64 digits, or empty when OpenSSL failed
class QUIB_API Hasher {
 public:
  /// A digest through OpenSSL.
  Hasher();
  /// A digest through another engine (tests, other providers); failures are named with
  /// OpenSSL's step names.
  explicit Hasher(std::unique_ptr<detail::digest_engine> engine);
  Hasher(Hasher&& other) noexcept;
  Hasher& operator=(Hasher&& other) noexcept;
  Hasher(Hasher const&) = delete;
  Hasher& operator=(Hasher const&) = delete;
  ~Hasher();

  /// Adds `size` bytes. False when the engine failed, now or earlier in this digest.
  bool update(void const* data, std::size_t size);
  bool update(std::string_view bytes) { return update(bytes.data(), bytes.size()); }
  /// `out` becomes the 32-byte digest of everything added since the last final(). False on a
  /// failure (then `out` is unchanged, or resized when the last step failed).
  [[nodiscard]] bool final(std::vector<unsigned char>& out);
  /// The digest as 64 lower-case hexadecimal digits; empty on failure.
  std::string final_hex();

 private:
  friend struct detail::hasher_access;
  /// The four failure lines, one per step: acquire, create, update, finish.
  using step_messages = char const* const*;
  Hasher(std::unique_ptr<detail::digest_engine> engine, step_messages messages);
  bool start();
  bool fail(int step);

  std::unique_ptr<detail::digest_engine> engine_;
  step_messages messages_;
  bool acquired_ = false;  // the engine is acquired once per object
  bool running_ = false;   // a digest has begun
  bool failed_ = false;    // a step failed since the last final()
};

}  // namespace sha256

// ---------------------------------------------------------------------------------------------
// Internals, exported for the tests.
namespace detail {

/// The four steps of taking a digest from a cryptographic engine. The engine is acquired once
/// and released by the object; create() begins a digest; each step returns false when it fails.
class QUIB_API digest_engine {
 public:
  virtual ~digest_engine() = default;
  virtual bool acquire() = 0;
  virtual bool create() = 0;
  virtual bool update(unsigned char const* data, std::size_t size) = 0;
  /// Writes the 32-byte digest to `out`.
  virtual bool finish(unsigned char* out) = 0;
};

/// Runs `engine` over `size` bytes at `data` and resizes `out` to 32 for the digest: the
/// one-shot digest of sha256::compute, whose failure lines are the documented
/// "error CryptAcquireContext()", "error CryptCreateHash()", "error CryptHashData()" and
/// "error CryptGetHashParam()".
QUIB_API bool run_sha256(std::unique_ptr<digest_engine> engine, std::vector<unsigned char>& out,
                         unsigned char const* data, std::size_t size);

}  // namespace detail
}  // namespace quib
