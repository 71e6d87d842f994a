// File names of numbered series: extensions, trailing numbers and "#" numbers.
//
// These are pure string functions: they never touch the file system, allocate only their
// result, cannot fail, and may be called from any thread. Each exists for wide and for narrow
// strings with the same results on ASCII names; the series-name helpers at the end are
// narrow only. Digits are "0" to "9" only; a dot is ".". Strings may hold any characters,
// including embedded NULs, which are ordinary characters here.
//
//     quib::get_sharp_path("scan#3.png", ".png", 7);       // "scan#7.png"
//     quib::get_sharp_path_number("scan#12.png", ".png");  // 12
//     quib::sub_suffix_number(L"name_12");                 // L"name"
#pragma once

#include <quib/export.hpp>

#include <cstdint>
#include <string>

namespace quib {

/// Whether `path` ends with `ext`, ignoring the case of `path` only: `ext` must be given in
/// lower case to match case-insensitively. False when `ext` is empty or `path` is not longer
/// than `ext`. Only the first occurrence of `ext` counts, so "a.png.png" with ".png" is false.
/// The narrow form lowers A-Z only; the wide form lowers with std::towlower, which beyond ASCII
/// follows the process's C locale (in the default "C" locale it too lowers A-Z only).
QUIB_API bool is_ext_path(std::wstring const& path, std::wstring const& ext);
QUIB_API bool is_ext_path(std::string const& path, std::string const& ext);

/// `path` + `ext`, with a "." put between them when `ext` is not empty and has none.
QUIB_API std::wstring add_extension(std::wstring const& path, std::wstring const& ext);
QUIB_API std::string add_extension(std::string const& path, std::string const& ext);

/// Everything before the last "." anywhere in `path` (a dot in a folder name counts); the
/// whole path when there is none.
QUIB_API std::wstring sub_extension(std::wstring const& path);
QUIB_API std::string sub_extension(std::string const& path);

/// From the last "." (included) to the end; empty when there is none.
QUIB_API std::wstring get_extension(std::wstring const& path);
QUIB_API std::string get_extension(std::string const& path);

/// Numbers are printed as unsigned 64-bit decimals without sign or padding: a negative `n`
/// prints as its two's complement, so -1 gives 18446744073709551615.

/// `path` followed directly by the number `n` (no separator).
QUIB_API std::wstring add_suffix_number(std::wstring const& path, std::int64_t n);
QUIB_API std::string add_suffix_number(std::string const& path, std::int64_t n);

/// `path` without its trailing digits and the one character before them ("name_12" gives
/// "name", "abc12" gives "ab"). Unchanged when `path` has at most 2 characters, has no
/// trailing digit, or is all digits.
QUIB_API std::wstring sub_suffix_number(std::wstring const& path);
QUIB_API std::string sub_suffix_number(std::string const& path);

/// The trailing digits of `path`, when they follow a non-digit; empty otherwise and for paths
/// of at most 2 characters.
QUIB_API std::wstring get_suffix_number(std::wstring const& path);
QUIB_API std::string get_suffix_number(std::string const& path);

/// `path` + "#" + the number `n`.
QUIB_API std::wstring add_sharp_number(std::wstring const& path, std::int64_t n);
QUIB_API std::string add_sharp_number(std::string const& path, std::int64_t n);

/// `path` without a trailing "#" and digits ("x#12" gives "x"); unchanged when it does not end
/// that way (at least one digit) or has at most 2 characters.
QUIB_API std::wstring sub_sharp_number(std::wstring const& path);
QUIB_API std::string sub_sharp_number(std::string const& path);

/// The digits after a trailing "#" ("x#12" gives "12"); empty when there are none or the path
/// has at most 2 characters.
QUIB_API std::wstring get_sharp_number(std::wstring const& path);
QUIB_API std::string get_sharp_number(std::string const& path);

/// `path` renumbered to `n`: the extension `ext` is cut when is_ext_path() matches, a trailing
/// "#" number is removed, then "#", the number and `ext` are appended. "scan#3.png" with
/// ".png" and 7 gives "scan#7.png"; "scan" gives "scan#7.png".
QUIB_API std::string get_sharp_path(std::string const& path, std::string const& ext,
                                    std::int64_t n);
/// As above with `text` in place of the number.
QUIB_API std::string get_sharp_path(std::string const& path, std::string const& ext,
                                    std::string const& text);
/// The digits after "#" once `ext` is cut as in get_sharp_path(); empty when there are none.
QUIB_API std::string get_sharp_path_suffix(std::string const& path, std::string const& ext);
/// get_sharp_path_suffix() as an int, or -1 when it is empty. Values beyond the int range
/// saturate at 2147483647.
QUIB_API int get_sharp_path_number(std::string const& path, std::string const& ext);

}  // namespace quib
