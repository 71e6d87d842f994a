// The frame every quib command runs in: how a command is declared on the CLI11 command tree,
// JSON and text output, progress lines and the two kinds of error (bad usage, failed
// operation) that decide the exit code.
#pragma once

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <functional>
#include <iosfwd>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quib::tool {

/// Exit codes of the tool.
enum exit_code : int { ok = 0, failed = 1, bad_usage = 2 };

/// Bad arguments found after parsing (options that exclude each other and the like): the tool
/// prints "quib CMD: message (see 'quib CMD --help')" and exits 2.
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

/// A JSON value whose objects keep their keys in the order they were set.
using Json = nlohmann::ordered_json;

/// Writes `value` indented by two spaces per level, then a newline. Bytes of strings that are
/// not valid UTF-8 come out as U+FFFD and numbers that are not finite as null, so the output
/// is always valid JSON.
void writeJson(std::ostream& out, Json const& value);

/// `v` with `digits` significant digits (printf %g style), for human-readable output.
std::string formatShort(double v, int digits = 6);

/// Where a command writes: results on `out`, errors and progress on `err`.
struct Context {
  Context(std::ostream& results, std::ostream& errors) : out(results), err(errors) {}

  std::ostream& out;
  std::ostream& err;
  /// True when --json was given.
  bool json = false;
  /// True when standard error is a terminal (progress lines are shown only then).
  bool terminal = false;
  /// When set, commands are parsed and checked but not run (for the fuzzer).
  bool parseOnly = false;
  /// Exit code so far: a command that works on several files reports a failed one with
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

// ---- Declaring commands -------------------------------------------------------------------
//
// Each command lives in its own cmd_<name>.cpp, which exposes `void add_<name>_command(
// CLI::App& quib, Context& ctx)` (listed once in commands.cpp). It declares the command, each
// option once with its help and its check, and the body that runs after the whole command line
// has been parsed and checked:
//
//     void add_hash_command(CLI::App& quib, Context& ctx) {
//       auto o = std::make_shared<HashOptions>();
//       CLI::App& cmd = addCommand(quib, "hash", "fingerprint files\n\nLonger description...");
//       cmd.add_option("FILES", o->files, "files to read ('-' for standard input)")->required();
//       cmd.add_flag("--sha256", o->sha, "SHA-256 instead of the 64-bit hash");
//       addJsonFlag(cmd, ctx);
//       onRun(cmd, ctx, [o, &ctx] { hash(ctx, *o); });
//     }

/// Help text written as a raw string in the source, laid out for reading there: the common
/// indentation goes, the lines of a paragraph are joined with one blank, paragraphs stay apart by
/// one empty line, and a line indented further than the rest (a table row) is kept as it stands.
/// Blank lines at the start and the end are dropped.
///
///     addCommand(quib, "fit", paragraphs(R"(
///           fit lines ... to points
///
///           Fits a model to the points of a text file and prints
///           its coefficients.
///     )"));
std::string paragraphs(std::string_view text);

/// Adds the command `name` under `parent` (the quib app, or a group such as the one commandGroup
/// returns). `description` is a one-line summary, listed by the parent's help, optionally
/// followed by a blank line and the paragraphs that the command's own help shows.
CLI::App& addCommand(CLI::App& parent, std::string const& name, std::string const& description);

/// The group command `name` under `parent` (made on the first call with its description), whose
/// actions other files add with addCommand: `addCommand(commandGroup(quib, "dicom", ...),
/// "pixels", ...)`. A group wants exactly one action.
CLI::App& commandGroup(CLI::App& parent, std::string const& name, std::string const& description);

/// The --json flag of a command (one help text for all of them).
void addJsonFlag(CLI::App& command, Context& ctx);

/// Runs `body` when the command is the one chosen, after parsing (not at all in parse-only
/// mode). The body reports failed files with ctx.fail and throws Failure or UsageError.
void onRun(CLI::App& command, Context& ctx, std::function<void()> body);

/// A check that a value is a whole number of the form "WxH" (or a single number, meaning both,
/// when `single`) with both parts from `low` to `high`.
CLI::Validator sizePair(bool single, int low, int high);

/// Splits a value that passed sizePair into its two numbers.
std::pair<int, int> parseSizePair(std::string const& text);

/// The whole quib command tree, every command in it, writing to `ctx`.
std::unique_ptr<CLI::App> makeApp(Context& ctx, std::string const& version);

/// Parses `args` (without the program name) and runs the chosen command; returns the exit
/// code. Usage errors print one line, and "did you mean" for a mistyped command or action.
int run(CLI::App& app, Context& ctx, std::vector<std::string> const& args);

// ---- Files --------------------------------------------------------------------------------

/// `path` as the wide string the library's path-taking calls want, through the library's own
/// conversion; Failure when the name is not valid UTF-8 (it could not name the same file).
std::wstring widePath(std::string const& path);

/// The system's message for an errno value, starting lower-case ("no such file or directory").
std::string systemMessage(int error);

/// The reason an existing path could not be read as a file: "no such file or directory",
/// "is a directory", the system's message for an open failure, or "" when it opens.
std::string unreadableReason(std::string const& path);

/// Opens `path` into `file` for reading, the only open on the way: "" when it is open, else
/// why not (as unreadableReason, "cannot be opened" when no reason is found).
std::string openForReading(std::ifstream& file, std::string const& path);

/// A file a command reads by name: the name itself, or for "-" a temporary copy of standard
/// input (removed with this object), for readers that want a file they can seek in.
class InputFile {
 public:
  explicit InputFile(std::string name);
  ~InputFile();
  InputFile(InputFile const&) = delete;
  InputFile& operator=(InputFile const&) = delete;
  /// The name to open.
  std::string const& path() const { return local; }
  /// The name to show in messages and output ("-" stays "-").
  std::string const& name() const { return given; }

 private:
  std::string given;
  std::string local;
  bool temporary = false;
};

}  // namespace quib::tool
