// Fingerprints of data: a fast 64-bit hash and the SHA-256 digest.
#pragma once

#include <quib/export.hpp>

#include <cstddef>
#include <string>
#include <vector>

namespace quib {

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
QUIB_API bool compute(std::vector<unsigned char>& out, std::vector<unsigned char> const& in);
/// The digest of the string's bytes as 64 lower-case hexadecimal digits; empty on failure.
QUIB_API std::string compute(std::string const& in);
/// The digest of the string's UTF-8 bytes exactly as convert::to_string gives them, as 64
/// lower-case hexadecimal digits; empty on failure. A surrogate pair is the character it stands
/// for; an unpaired surrogate or a value that is no character is hashed as U+FFFD.
QUIB_API std::wstring compute(std::wstring const& in);

}  // namespace sha256

// ---------------------------------------------------------------------------------------------
// Internals, exported for the tests.
namespace detail {

/// The four steps of taking a digest from a cryptographic engine. The engine is acquired and
/// released by the object; each step returns false when it fails.
class QUIB_API DigestEngine {
 public:
  virtual ~DigestEngine() = default;
  virtual bool acquire() = 0;
  virtual bool create() = 0;
  virtual bool update(unsigned char const* data, std::size_t size) = 0;
  /// Writes the 32-byte digest to `out`.
  virtual bool finish(unsigned char* out) = 0;
};

/// Runs `engine` over `size` bytes at `data` and resizes `out` to 32 for the digest. A failed
/// step raises its message internally, which is caught here, written to standard error as one
/// line, and turned into false.
QUIB_API bool run_sha256(DigestEngine& engine, std::vector<unsigned char>& out,
                         unsigned char const* data, std::size_t size);

}  // namespace detail
}  // namespace quib
