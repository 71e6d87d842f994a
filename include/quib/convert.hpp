// Text conversion: wide and narrow strings, and splitting text into fields.
#pragma once

#include <quib/export.hpp>

#include <string>
#include <vector>

namespace quib::convert {

/// Converts wide text to narrow text in the user's default encoding, which is UTF-8 on this
/// platform whatever the C locale says. The result is a fresh string owned by the caller.
/// A high surrogate directly followed by a low one is the character they stand for, whatever
/// the width of wchar_t. Never fails: anything that is no character (an unpaired surrogate, a
/// value above U+10FFFF) becomes U+FFFD. Pure function, safe on any thread.
///
///     std::string name = quib::convert::to_string(L"Gehäuse");  // "Geh\xC3\xA4use"
QUIB_API std::string to_string(std::wstring const& text);

/// Converts narrow text in the user's default encoding (UTF-8) to wide text. Never fails:
/// every byte that does not belong to a well-formed UTF-8 sequence (a stray continuation byte,
/// an overlong form, a surrogate, a truncated sequence) becomes one U+FFFD. Where wchar_t has
/// 16 bits, characters above U+FFFF become surrogate pairs. Pure function, safe on any thread.
///
///     std::wstring path = quib::convert::to_wstring("part.stl");
QUIB_API std::wstring to_wstring(std::string const& text);

/// Splits `text` into fields at every character found in `separators`. A `quote_open`
/// character outside quotes starts a quoted run, in which separators are ordinary characters,
/// and `quote_close` ends it; both quote characters are dropped from the field. A quote left
/// open runs to the end of the text. Empty fields are kept, so a text with n separators
/// outside quotes gives n + 1 fields (an empty text gives one empty field); callers that want
/// words skip the empty ones. Pure function, safe on any thread.
///
///     // {"solid", "", "my part", "x"}
///     auto f = quib::convert::get_separator_wstring(L"solid \t\"my part\" x", L" \t", L'"', L'"');
QUIB_API std::vector<std::wstring> get_separator_wstring(std::wstring const& text,
                                                         std::wstring const& separators,
                                                         wchar_t quote_open, wchar_t quote_close);

}  // namespace quib::convert
