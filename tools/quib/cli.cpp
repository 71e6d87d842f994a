#include "cli.hpp"

#include <quib/convert.hpp>

#include "commands.hpp"
#include "help.hpp"

#include <opencv2/core.hpp>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <new>
#include <ostream>
#include <system_error>

namespace quib::tool {

void writeJson(std::ostream& out, Json const& value) {
  out << value.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

std::string formatShort(double v, int digits) {
  if (std::isnan(v)) return "nan";
  if (std::isinf(v)) return v > 0 ? "inf" : "-inf";
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.*g", digits, v);
  return buf;
}

namespace {

// File names and reasons go on one line whatever they contain.
std::string oneLine(std::string s) {
  for (char& c : s)
    if (c == '\n' || c == '\r') c = ' ';
  while (!s.empty() && s.back() == ' ')
    s.pop_back();
  return s;
}

}  // namespace

void Context::fail(std::string const& file, std::string const& reason) {
  out.flush();
  err << "quib: " << oneLine(file) << ": " << oneLine(reason) << std::endl;
  status = exit_code::failed;
}

Progress::Progress(Context& context, std::size_t n) : ctx(context), total(n) {}

Progress::~Progress() {
  done();
}

void Progress::step(std::string const& label) {
  ++count;
  if (!ctx.terminal) return;
  ctx.err << "\r\033[K";
  if (total) ctx.err << '[' << count << '/' << total << "] ";
  ctx.err << oneLine(label) << std::flush;
  shown = true;
}

void Progress::done() {
  if (!shown) return;
  ctx.err << "\r\033[K" << std::flush;
  shown = false;
}

// ---- Declaring commands -------------------------------------------------------------------

std::string paragraphs(std::string_view text) {
  std::vector<std::string_view> lines;
  for (std::size_t at = 0; at <= text.size();) {
    std::size_t end = text.find('\n', at);
    if (end == std::string_view::npos) end = text.size();
    lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  auto const blank = [](std::string_view l) {
    return l.find_first_not_of(' ') == std::string_view::npos;
  };
  std::size_t margin = std::string_view::npos;
  for (std::string_view l : lines)
    if (!blank(l)) margin = std::min(margin, l.find_first_not_of(' '));
  std::string out;
  bool gap = false;       // an empty line since the last text
  bool in_prose = false;  // the last line was part of a paragraph
  for (std::string_view l : lines) {
    if (blank(l)) {
      gap = !out.empty();
      in_prose = false;
      continue;
    }
    l.remove_prefix(margin);
    bool const table = l.front() == ' ';
    if (in_prose && !table) {
      out += ' ';
    } else if (!out.empty()) {
      out += gap ? "\n\n" : "\n";
    }
    out += l;
    gap = false;
    in_prose = !table;
  }
  return out;
}

CLI::App& addCommand(CLI::App& parent, std::string const& name, std::string const& description) {
  CLI::App* command = parent.add_subcommand(name, description);
  command->formatter(parent.get_formatter());
  command->set_help_flag("-h,--help", "show this help");
  return *command;
}

CLI::App& commandGroup(CLI::App& parent, std::string const& name, std::string const& description) {
  for (CLI::App* existing :
       parent.get_subcommands([&](CLI::App* a) { return a->get_name() == name; }))
    return *existing;
  CLI::App& group = addCommand(parent, name, description);
  group.require_subcommand(1);
  return group;
}

void addJsonFlag(CLI::App& command, Context& ctx) {
  command.add_flag("--json", ctx.json, "print JSON for scripts instead of text");
}

void onRun(CLI::App& command, Context& ctx, std::function<void()> body) {
  command.callback([&ctx, body = std::move(body)] {
    if (!ctx.parseOnly) body();
  });
}

CLI::Validator sizePair(bool single, int low, int high) {
  const std::string shape = single ? "N or WxH" : "WxH";
  return CLI::Validator(
      [=](std::string& text) -> std::string {
        const auto x = text.find_first_of("xX");
        const auto whole = [&](std::string const& part) {
          if (part.empty() || part.size() > 9 ||
              part.find_first_not_of("0123456789") != std::string::npos)
            return -1;
          return std::stoi(part);
        };
        int a = 0, b = 0;
        if (x == std::string::npos) {
          a = single ? whole(text) : -1;
          b = a;
        } else {
          a = whole(text.substr(0, x));
          b = whole(text.substr(x + 1));
        }
        if (a < low || a > high || b < low || b > high)
          return "wants " + shape + " with " + std::to_string(low) + " to " + std::to_string(high) +
                 ", not '" + text + "'";
        return {};
      },
      shape);
}

std::pair<int, int> parseSizePair(std::string const& text) {
  const auto x = text.find_first_of("xX");
  if (x == std::string::npos) return {std::stoi(text), std::stoi(text)};
  return {std::stoi(text.substr(0, x)), std::stoi(text.substr(x + 1))};
}

std::unique_ptr<CLI::App> makeApp(Context& ctx, std::string const& version) {
  auto app = std::make_unique<CLI::App>(
      "the command-line front end of the QUIB imaging and measurement library\n\n"
      "Every command takes --json for output that scripts can read, and '-' for standard "
      "input wherever it reads a file.\n"
      "Exit status: 0 on success, 1 when an operation failed, 2 on bad usage.",
      "quib");
  app->formatter(std::make_shared<HelpFormatter>());
  app->set_help_flag("-h,--help", "show this help");
  app->set_version_flag("--version", "quib " + version, "show the version");
  app->require_subcommand(1);
  addCommands(*app, ctx);
  addHelpCommand(*app, ctx);
  return app;
}

// ---- Running ------------------------------------------------------------------------------

namespace {

// The chosen command, deepest first: "quib stl merge" gives merge.
CLI::App* chosen(CLI::App& app) {
  CLI::App* at = &app;
  for (;;) {
    auto const picked = at->get_subcommands();
    if (picked.empty()) return at;
    at = picked.front();
  }
}

std::string fullName(CLI::App const& app) {
  std::string name = app.get_name();
  for (CLI::App const* p = app.get_parent(); p; p = p->get_parent())
    name = p->get_name() + " " + name;
  return name;
}

int usageError(Context& ctx, CLI::App const& where, std::string const& message) {
  ctx.out.flush();
  const std::string name = fullName(where);
  ctx.err << name << ": " << oneLine(message) << " (see '" << name << " --help')" << std::endl;
  return exit_code::bad_usage;
}

// Levenshtein distance, for suggesting a command name.
std::size_t distance(std::string const& a, std::string const& b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j)
    row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t up = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1])});
      diagonal = up;
    }
  }
  return row[b.size()];
}

std::vector<CLI::App*> visibleCommands(CLI::App& app) {
  return app.get_subcommands([](CLI::App* a) { return !a->get_group().empty(); });
}

std::string listOf(std::vector<CLI::App*> const& commands) {
  std::string list;
  for (std::size_t i = 0; i < commands.size(); ++i) {
    if (i) list += i + 1 == commands.size() ? " or " : ", ";
    list += commands[i]->get_name();
  }
  return list;
}

// Follows the command words of `args` down the tree. A word that names no command, or a group
// left without its action, gives the message to print and the group it belongs to.
std::pair<CLI::App*, std::string> checkCommandWords(CLI::App& app,
                                                    std::vector<std::string> const& args) {
  CLI::App* at = &app;
  std::size_t i = 0;
  while (!at->get_subcommands({}).empty()) {
    // Options of a group are flags (--help, --version), so the first other word is a command.
    for (; i < args.size() && args[i].size() > 1 && args[i][0] == '-' && args[i] != "--"; ++i) {
      const std::string name = args[i].substr(0, args[i].find('='));
      if (!at->get_option_no_throw(name)) return {at, "unknown option '" + args[i] + "'"};
    }
    const bool top = at == &app;
    const char* what = top ? "command" : "action";
    if (i >= args.size() || args[i] == "--") {
      for (std::string const& a : args)
        if (a == "-h" || a == "--help" || (top && a == "--version")) return {nullptr, ""};
      if (top) return {at, ""};  // bare "quib": the usage
      return {at, std::string("missing action (") + listOf(visibleCommands(*at)) + ")"};
    }
    std::string const& word = args[i];
    CLI::App* next = nullptr;
    for (CLI::App* c : at->get_subcommands({}))
      if (c->check_name(word)) next = c;
    if (!next) {
      std::string message = std::string("unknown ") + what + " '" + word + "'";
      std::string best;
      std::size_t bestDistance = 3;
      for (CLI::App* c : visibleCommands(*at)) {
        const std::size_t d = distance(word, c->get_name());
        const bool prefix = word.size() >= 2 && c->get_name().rfind(word, 0) == 0;
        if (d < bestDistance || (prefix && bestDistance > 1)) {
          best = c->get_name();
          bestDistance = prefix ? 1 : d;
        }
      }
      if (!best.empty()) message += "; did you mean '" + best + "'?";
      return {at, message};
    }
    at = next;
    ++i;
  }
  return {nullptr, ""};
}

// CLI11's message, with unknown options named as such.
std::string describe(CLI::ParseError const& e, CLI::App const& where) {
  if (dynamic_cast<CLI::ExtrasError const*>(&e)) {
    std::vector<std::string> extra = where.remaining();
    for (CLI::App const* p = where.get_parent(); extra.empty() && p; p = p->get_parent())
      extra = p->remaining();
    for (std::string const& a : extra)
      if (a.size() > 1 && a[0] == '-') return "unknown option '" + a + "'";
    if (!extra.empty()) return "unexpected argument '" + extra.front() + "'";
  }
  return e.what();
}

}  // namespace

int run(CLI::App& app, Context& ctx, std::vector<std::string> const& args) {
  const auto [group, message] = checkCommandWords(app, args);
  if (group == &app && message.empty()) {
    ctx.err << app.help();
    return exit_code::bad_usage;
  }
  if (group) return usageError(ctx, *group, message);

  std::vector<std::string> reversed(args.rbegin(), args.rend());
  try {
    app.parse(reversed);
  } catch (CLI::CallForHelp const&) {
    ctx.out << chosen(app)->help();
    return exit_code::ok;
  } catch (CLI::CallForAllHelp const&) {
    ctx.out << chosen(app)->help();
    return exit_code::ok;
  } catch (CLI::CallForVersion const& e) {
    ctx.out << e.what() << '\n';
    return exit_code::ok;
  } catch (CLI::ParseError const& e) {
    CLI::App const& where = *chosen(app);
    return usageError(ctx, where, describe(e, where));
  } catch (UsageError const& e) {
    return usageError(ctx, *chosen(app), e.what());
  } catch (Failure const& e) {
    ctx.fail(e.file(), e.what());
  } catch (cv::Exception const& e) {
    ctx.fail(ctx.subject.empty() ? fullName(*chosen(app)) : ctx.subject, "OpenCV: " + e.err);
  } catch (std::bad_alloc const&) {
    ctx.fail(ctx.subject.empty() ? fullName(*chosen(app)) : ctx.subject, "out of memory");
  } catch (std::exception const& e) {
    ctx.fail(ctx.subject.empty() ? fullName(*chosen(app)) : ctx.subject, e.what());
  }
  return ctx.status;
}

// ---- Files --------------------------------------------------------------------------------

std::wstring widePath(std::string const& path) {
  std::wstring wide = quib::convert::to_wstring(path);
  if (quib::convert::to_string(wide) != path)
    throw Failure(path, "the file name is not valid UTF-8");
  return wide;
}

std::string systemMessage(int error) {
  std::string message = std::strerror(error);
  if (!message.empty() && message[0] >= 'A' && message[0] <= 'Z' &&
      (message.size() < 2 || !(message[1] >= 'A' && message[1] <= 'Z')))
    message[0] = static_cast<char>(message[0] - 'A' + 'a');
  return message;
}

std::string unreadableReason(std::string const& path) {
  std::error_code ec;
  const auto st = std::filesystem::status(path, ec);
  if (st.type() == std::filesystem::file_type::not_found) return "no such file or directory";
  if (st.type() == std::filesystem::file_type::directory) return "is a directory";
  errno = 0;
  std::ifstream probe(path, std::ios::binary);
  if (!probe) {
    const int e = errno;
    return e ? systemMessage(e) : std::string("cannot be opened");
  }
  return "";
}

std::string openForReading(std::ifstream& file, std::string const& path) {
  file.open(path, std::ios::binary);
  std::error_code ec;
  if (file && !std::filesystem::is_directory(path, ec)) return "";
  file.close();
  const std::string reason = unreadableReason(path);
  return reason.empty() ? "cannot be opened" : reason;
}

InputFile::InputFile(std::string name) : given(std::move(name)), local(given) {
  if (given != "-") return;
  std::string pattern = (std::filesystem::temp_directory_path() / "quib-stdin-XXXXXX").string();
  const int fd = ::mkstemp(pattern.data());
  if (fd < 0) throw Failure("-", std::string("no temporary file: ") + std::strerror(errno));
  local = pattern;
  temporary = true;
  char block[1 << 16];
  for (;;) {
    const ssize_t n = ::read(STDIN_FILENO, block, sizeof block);
    if (n == 0) break;
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      const int e = errno;
      ::close(fd);
      std::remove(local.c_str());
      throw Failure("-", std::string("read error: ") + std::strerror(e));
    }
    for (ssize_t done = 0; done < n;) {
      const ssize_t w = ::write(fd, block + done, static_cast<std::size_t>(n - done));
      if (w < 0 && errno == EINTR) continue;
      if (w < 0) {
        const int e = errno;
        ::close(fd);
        std::remove(local.c_str());
        throw Failure("-", std::string("cannot copy to a temporary file: ") + std::strerror(e));
      }
      done += w;
    }
  }
  ::close(fd);
}

InputFile::~InputFile() {
  if (temporary) std::remove(local.c_str());
}

}  // namespace quib::tool
