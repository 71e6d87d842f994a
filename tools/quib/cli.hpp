// The frame every quib subcommand runs in: option parsing, JSON and text output, progress lines
// and the two kinds of error (bad usage, failed operation) that decide the exit code.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace quib::tool {

/// Exit codes of the tool.
enum exit_code : int { ok = 0, failed = 1, bad_usage = 2 };

/// Bad arguments: the tool prints "quib CMD: message (see 'quib CMD --help')" and exits 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A failed operation on one file: the tool prints "quib: FILE: reason" and exits 1.
class Failure : public std::runtime_error {
 public:
  Failure(std::string file, std::string const& reason)
      : std::runtime_error(reason), subject(std::move(file)) {}
  std::string const& file() const { return subject; }

 private:
  std::string subject;
};

/// A JSON value: null, boolean, number, string, array or object (keys keep their order).
/// Strings are escaped on output; bytes that are not valid UTF-8 become U+FFFD, and numbers
/// that are not finite are written as null, so the output is always valid JSON.
///
///     Json o = Json::object();
///     o.set("file", "a.bmp").set("width", 640);
///     o.write(std::cout);
class Json {
 public:
  enum class kind_t { null, boolean, integer, unsigned_integer, number, string, array, object };

  Json() = default;
  Json(bool v) : kind(kind_t::boolean), flag(v) {}
  Json(double v) : kind(kind_t::number), real(v) {}
  Json(float v) : Json(static_cast<double>(v)) {}
  Json(char const* v) : kind(kind_t::string), text(v) {}
  Json(std::string v) : kind(kind_t::string), text(std::move(v)) {}
  template <class T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>, int> = 0>
  Json(T v) {
    if constexpr (std::is_signed_v<T>) {
      kind = kind_t::integer;
      whole = static_cast<std::int64_t>(v);
    } else {
      kind = kind_t::unsigned_integer;
      uwhole = static_cast<std::uint64_t>(v);
    }
  }

  static Json array();
  static Json object();
  /// An array of numbers.
  static Json numbers(std::vector<double> const& values);
  /// An array of strings.
  static Json strings(std::vector<std::string> const& values);

  /// Appends to an array.
  Json& push(Json v);
  /// Adds a key to an object (a repeated key replaces the earlier value in place).
  Json& set(std::string const& key, Json v);

  kind_t type() const { return kind; }
  std::size_t size() const { return items.size(); }

  /// Writes the value, indented by two spaces per level, followed by a newline.
  void write(std::ostream& out) const;
  std::string dump() const;

 private:
  void writeAt(std::ostream& out, int depth) const;

  kind_t kind = kind_t::null;
  bool flag = false;
  std::int64_t whole = 0;
  std::uint64_t uwhole = 0;
  double real = 0;
  std::string text;
  std::vector<std::string> keys;
  std::vector<Json> items;
};

/// Writes `s` as a quoted JSON string.
void writeJsonString(std::ostream& out, std::string const& s);
/// The shortest decimal text that reads back as `v`; "nan", "inf" or "-inf" when not finite.
std::string formatNumber(double v);
/// `v` with `digits` significant digits (printf %g style), for human-readable output.
std::string formatShort(double v, int digits = 6);

/// One option a subcommand accepts.
struct OptionDef {
  std::string name;  // with its dashes: "--board"
  bool takesValue = false;
  bool repeatable = false;
};

/// The parsed arguments of one subcommand. "--name value" and "--name=value" are both accepted;
/// "--" ends the options. Unknown options, a missing value, a value given to a flag and a
/// repeated single option are usage errors (UsageError). "--help" and "-h" are always known.
class Args {
 public:
  Args(std::vector<std::string> const& argv, std::vector<OptionDef> const& defs);

  bool help() const { return wantsHelp; }
  bool has(std::string const& name) const;
  /// The value of an option, or `fallback` when it was not given.
  std::string value(std::string const& name, std::string const& fallback = "") const;
  std::vector<std::string> values(std::string const& name) const;
  std::vector<std::string> const& positional() const { return rest; }

  /// A finite number within [low, high]; UsageError otherwise.
  double number(std::string const& name, double fallback, double low, double high) const;
  /// A whole number within [low, high]; UsageError otherwise.
  long long integer(std::string const& name, long long fallback, long long low,
                    long long high) const;

 private:
  bool wantsHelp = false;
  std::vector<std::pair<std::string, std::string>> given;
  std::vector<std::string> rest;
};

/// Parses a whole decimal number that must fill `text`; false when it does not.
bool parseInteger(std::string const& text, long long& out);
/// Parses a finite decimal number that must fill `text`; false when it does not.
bool parseNumber(std::string const& text, double& out);

/// Where a subcommand writes: results on `out`, errors and progress on `err`.
struct Context {
  Context(std::ostream& results, std::ostream& errors) : out(results), err(errors) {}

  std::ostream& out;
  std::ostream& err;
  /// True when --json was given.
  bool json = false;
  /// True when standard error is a terminal (progress lines are shown only then).
  bool terminal = false;
  /// Exit code so far: a subcommand that works on several files reports a failed one with
  /// fail() and goes on with the next.
  int status = exit_code::ok;
  /// The file being worked on; an unexpected exception is reported against it.
  std::string subject;

  /// Prints "quib: FILE: reason" and remembers that the run failed.
  void fail(std::string const& file, std::string const& reason);
};

/// A progress line on standard error, redrawn in place; shown only on a terminal, and erased
/// when done so that the results stand alone.
class Progress {
 public:
  Progress(Context& context, std::size_t total);
  ~Progress();
  Progress(Progress const&) = delete;
  Progress& operator=(Progress const&) = delete;
  /// Shows "[i/total] label" for the next item (just the label when the total is unknown, 0).
  void step(std::string const& label);
  void done();

 private:
  Context& ctx;
  std::size_t total;
  std::size_t count = 0;
  bool shown = false;
};

/// UTF-8 text as a wide string (one wchar_t per code point); false when `text` is not valid
/// UTF-8. The library's path-taking calls want wide strings.
bool toWide(std::string const& text, std::wstring& out);

/// The reason an existing path could not be read as a file: "no such file or directory",
/// "is a directory", the system's message for an open failure, or "" when it opens.
std::string unreadableReason(std::string const& path);

}  // namespace quib::tool
