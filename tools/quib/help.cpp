#include "help.hpp"

#include <algorithm>
#include <memory>
#include <sstream>

namespace quib::tool {

namespace {

using Commands = std::vector<CLI::App const*>;
using Options = std::vector<CLI::Option const*>;

Commands commandsOf(CLI::App const& app) {
  return app.get_subcommands([](CLI::App const* c) { return !c->get_group().empty(); });
}

// Hidden options (an empty group) are left out everywhere.
Options optionsOf(CLI::App const& app, bool positional) {
  return app.get_options([&](CLI::Option const* o) {
    return !o->get_group().empty() && o->nonpositional() != positional;
  });
}

std::string fullName(CLI::App const& app) {
  std::string name = app.get_name();
  for (CLI::App const* p = app.get_parent(); p; p = p->get_parent())
    name = p->get_name() + " " + name;
  return name;
}

// The first line of a description, and the paragraphs after it.
std::string summaryOf(CLI::App const& app) {
  std::string const& d = app.get_description();
  return d.substr(0, d.find('\n'));
}

std::string detailsOf(CLI::App const& app) {
  std::string const& d = app.get_description();
  const auto gap = d.find("\n\n");
  return gap == std::string::npos ? std::string() : d.substr(gap + 2);
}

bool isFlag(CLI::Option const* o) {
  return o->get_items_expected_max() == 0;
}

bool isList(CLI::Option const* o) {
  return o->get_items_expected_max() > 1;
}

// The value's name: the declared type name without the checks CLI11 appends to it.
std::string valueName(CLI::Option const* o) {
  if (isFlag(o)) return "";
  const std::string t = o->get_type_name();
  return t.substr(0, t.find(':'));
}

std::string optionNames(CLI::Option const* o) {
  std::string names;
  for (std::string const& s : o->get_snames())
    names += (names.empty() ? "-" : ", -") + s;
  for (std::string const& l : o->get_lnames())
    names += (names.empty() ? "--" : ", --") + l;
  return names;
}

// "--board CxR", "-h, --help", "FILES...".
std::string optionLabel(CLI::Option const* o) {
  if (!o->nonpositional()) return o->get_name(true) + (isList(o) ? "..." : "");
  const std::string value = valueName(o);
  return optionNames(o) + (value.empty() ? "" : " " + value);
}

// The option's help with its default, when it has one.
std::string optionHelp(CLI::Option const* o) {
  std::string help = o->get_description();
  if (!o->get_default_str().empty() && !isFlag(o))
    help += " (default " + o->get_default_str() + ")";
  if (isList(o) && o->nonpositional()) help += "; may be repeated";
  return help;
}

std::string mainName(CLI::Option const* o) {
  if (!o->nonpositional()) return o->get_name(true);
  return o->get_lnames().empty() ? "-" + o->get_snames().front() : "--" + o->get_lnames().front();
}

// Breaks `text` into lines of at most `width` characters after `indent` blanks; lines of the
// text that start with blanks are kept as they are (tables, examples).
std::string wrap(std::string const& text, std::size_t indent, std::size_t width) {
  std::string out;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.empty() || line[0] == ' ') {
      out += (line.empty() ? "" : std::string(indent, ' ') + line) + "\n";
      continue;
    }
    std::istringstream words(line);
    std::string word, current;
    while (words >> word) {
      if (!current.empty() && current.size() + 1 + word.size() > width) {
        out += std::string(indent, ' ') + current + "\n";
        current.clear();
      }
      current += (current.empty() ? "" : " ") + word;
    }
    out += std::string(indent, ' ') + current + "\n";
  }
  return out;
}

// A two-column table: labels, then their texts wrapped beside them.
std::string table(std::vector<std::pair<std::string, std::string>> const& rows) {
  std::size_t column = 0;
  for (auto const& r : rows)
    column = std::max(column, r.first.size());
  column = std::min<std::size_t>(column + 4, 24);
  std::string out;
  for (auto const& [label, text] : rows) {
    const std::string body = wrap(text, column, 78 - column);
    std::string first = "  " + label;
    if (first.size() + 1 >= column || body.empty()) {
      out += first + "\n" + body;
    } else {
      first.resize(column, ' ');
      out += first + body.substr(column);
    }
  }
  return out;
}

}  // namespace

std::string usageOf(CLI::App const& command) {
  std::string usage = fullName(command);
  if (!commandsOf(command).empty())
    return usage + (command.get_parent() ? " <action>" : " <command>") + " [options] [arguments]";
  bool optional = false;
  for (CLI::Option const* o : optionsOf(command, false)) {
    if (o->get_required())
      usage += " " + optionLabel(o);
    else
      optional = true;
  }
  if (optional) usage += " [options]";
  for (CLI::Option const* o : optionsOf(command, true))
    usage += " " + (o->get_required() ? optionLabel(o) : "[" + optionLabel(o) + "]");
  return usage;
}

std::string HelpFormatter::make_help(CLI::App const* app, std::string, CLI::AppFormatMode) const {
  std::string out = "usage: " + usageOf(*app) + "\n";
  const Commands commands = commandsOf(*app);
  if (!commands.empty())
    out +=
        "       " + fullName(*app) + (app->get_parent() ? " <action>" : " <command>") + " --help\n";
  out += "\n" + wrap(summaryOf(*app), 0, 78);
  if (const std::string details = detailsOf(*app); !details.empty())
    out += "\n" + wrap(details, 0, 78);

  std::vector<std::pair<std::string, std::string>> rows;
  for (CLI::App const* c : commands)
    rows.emplace_back(c->get_name(), summaryOf(*c));
  if (!rows.empty())
    out += std::string(app->get_parent() ? "\nActions:\n" : "\nCommands:\n") + table(rows);

  rows.clear();
  for (CLI::Option const* o : optionsOf(*app, true))
    rows.emplace_back(optionLabel(o), optionHelp(o));
  if (!rows.empty()) out += "\nArguments:\n" + table(rows);

  rows.clear();
  for (CLI::Option const* o : optionsOf(*app, false))
    rows.emplace_back(optionLabel(o), optionHelp(o));
  if (!rows.empty()) out += "\nOptions:\n" + table(rows);
  return out;
}

// ---- The manual page ----------------------------------------------------------------------

namespace {

// Text for roff: backslashes, dashes and a leading dot or quote made harmless.
std::string roff(std::string const& text) {
  std::string out;
  for (char c : text) {
    if (c == '\\')
      out += "\\e";
    else if (c == '-')
      out += "\\-";
    else
      out += c;
  }
  std::string lines;
  std::istringstream in(out);
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && (line[0] == '.' || line[0] == '\'')) line = "\\&" + line;
    lines += line + "\n";
  }
  return lines;
}

// Paragraphs of a description for roff: indented lines (tables, examples) stay as they are.
std::string roffParagraphs(std::string const& text) {
  std::string out;
  std::istringstream in(text);
  std::string line;
  bool verbatim = false;
  bool fresh = true;
  while (std::getline(in, line)) {
    if (line.empty()) {
      if (verbatim) out += ".fi\n.RE\n";
      verbatim = false;
      out += ".PP\n";
      fresh = true;
      continue;
    }
    const bool indented = line[0] == ' ';
    if (indented && !verbatim) {
      out += (fresh ? "" : ".PP\n") + std::string(".RS 2\n.nf\n");
      verbatim = true;
    } else if (!indented && verbatim) {
      out += ".fi\n.RE\n";
      verbatim = false;
    }
    out += roff(indented ? line.substr(2) : line);
    fresh = false;
  }
  if (verbatim) out += ".fi\n.RE\n";
  return out;
}

void manCommand(std::string& out, CLI::App const& command) {
  const Commands commands = commandsOf(command);
  if (!commands.empty()) {
    for (CLI::App const* c : commands)
      manCommand(out, *c);
    return;
  }
  out += ".SS \"" + roff(usageOf(command)).substr(0, roff(usageOf(command)).size() - 1) + "\"\n";
  out += roff(summaryOf(command));
  if (const std::string details = detailsOf(command); !details.empty())
    out += ".PP\n" + roffParagraphs(details);
  for (bool positional : {true, false}) {
    for (CLI::Option const* o : optionsOf(command, positional)) {
      if (mainName(o) == "--help") continue;
      out += ".TP\n.B " + roff(optionLabel(o)) + roff(optionHelp(o));
    }
  }
}

}  // namespace

std::string manPage(CLI::App const& quib) {
  std::string out =
      ".\\\" Generated by 'quib help --man' from the tool's declaration of its options;\n"
      ".\\\" scripts/gen-cli-docs writes it and CI checks it.\n"
      ".TH QUIB 1 \"\" \"quib\" \"User Commands\"\n"
      ".SH NAME\n"
      "quib \\- " +
      roff(summaryOf(quib)) +
      ".SH SYNOPSIS\n"
      ".B quib\n.I command\n.RI [ options ]\n.RI [ arguments ]\n.br\n"
      ".B quib\n.I command\n.B \\-\\-help\n.br\n"
      ".B quib\n.BR \\-\\-help \" | \" \\-\\-version\n"
      ".SH DESCRIPTION\n" +
      roffParagraphs(detailsOf(quib)) +
      ".PP\nOptions take their value as\n.B \\-\\-name value\nor\n.BR \\-\\-name=value ;\n"
      ".B \\-\\-\nends the options, so that a file whose name starts with a dash can be given.\n"
      "Errors are one line on standard error naming the file and the reason.\n"
      "A progress line is shown on standard error during long work, only when it is a terminal.\n"
      ".SH COMMANDS\n";
  for (CLI::App const* c : commandsOf(quib))
    manCommand(out, *c);
  out +=
      ".SH EXIT STATUS\n"
      ".TP\n.B 0\neverything worked\n"
      ".TP\n.B 1\nan operation failed (a command working on several files goes on with the next)\n"
      ".TP\n.B 2\nthe command line is wrong\n"
      ".SH SEE ALSO\n"
      "The QUIB documentation, docs/cli.md.\n";
  return out;
}

// ---- The Markdown reference ---------------------------------------------------------------

namespace {

std::string markdownCell(std::string text) {
  std::string out;
  for (char c : text) {
    if (c == '|')
      out += "\\|";
    else if (c == '\n')
      out += ' ';
    else
      out += c;
  }
  return out;
}

void markdownCommand(std::string& out, CLI::App const& command) {
  const Commands commands = commandsOf(command);
  if (!commands.empty()) {
    for (CLI::App const* c : commands)
      markdownCommand(out, *c);
    return;
  }
  out += "### `" + fullName(command) + "`\n\n```\n" + usageOf(command) + "\n```\n\n" +
         summaryOf(command) + ".\n\n| | |\n|---|---|\n";
  for (bool positional : {true, false})
    for (CLI::Option const* o : optionsOf(command, positional))
      if (mainName(o) != "--help")
        out += "| `" + optionLabel(o) + "` | " + markdownCell(optionHelp(o)) + " |\n";
  out += "\n";
}

}  // namespace

std::string markdownReference(CLI::App const& quib) {
  std::string out;
  for (CLI::App const* c : commandsOf(quib))
    markdownCommand(out, *c);
  return out;
}

// ---- Bash completion ----------------------------------------------------------------------

namespace {

// One case per command path: "stl merge") words="..."; files=1 ;;
void completionCases(std::string& out, CLI::App const& command, std::string const& path) {
  std::string words;
  for (CLI::App const* c : commandsOf(command))
    words += (words.empty() ? "" : " ") + c->get_name();
  for (CLI::Option const* o : optionsOf(command, false))
    for (std::string const& l : o->get_lnames())
      words += (words.empty() ? "--" : " --") + l;
  const bool files = !optionsOf(command, true).empty();
  out += "    \"" + path + "\") words=\"" + words + "\"; files=" + (files ? "1" : "0") + " ;;\n";
  for (CLI::App const* c : commandsOf(command))
    completionCases(out, *c, path.empty() ? c->get_name() : path + " " + c->get_name());
}

// Options whose value is a file or a directory, and those that want other values.
void valueCases(std::string& out, CLI::App const& command) {
  for (CLI::Option const* o : optionsOf(command, false)) {
    if (isFlag(o)) continue;
    const std::string value = valueName(o);
    const std::string action = value == "DIR" ? "dirs" : value == "FILE" ? "files" : "none";
    for (std::string const& l : o->get_lnames()) {
      const std::string key = fullName(command) + " --" + l;
      if (out.find("\"" + key + "\")") == std::string::npos)
        out += "    \"" + key + "\") value=" + action + " ;;\n";
    }
  }
  for (CLI::App const* c : commandsOf(command))
    valueCases(out, *c);
}

}  // namespace

std::string bashCompletion(CLI::App const& quib) {
  std::string commands, values;
  completionCases(commands, quib, "");
  valueCases(values, quib);
  return "# bash completion for quib; generated by 'quib help --bash-completion' from the tool's\n"
         "# declaration of its commands and options.\n"
         "_quib() {\n"
         "  local cur prev path word i words files value\n"
         "  cur=${COMP_WORDS[COMP_CWORD]}\n"
         "  prev=${COMP_WORDS[COMP_CWORD-1]}\n"
         "  path=\n"
         "  # The command words typed so far: each must extend a known command path.\n"
         "  for ((i = 1; i < COMP_CWORD; i++)); do\n"
         "    word=${COMP_WORDS[i]}\n"
         "    [[ $word == -* ]] && continue\n"
         "    case \"${path:+$path }$word\" in\n" +
         [&] {
           std::string known;
           std::istringstream in(commands);
           std::string line;
           while (std::getline(in, line)) {
             const auto q = line.find('"', 5);
             const std::string p = line.substr(5, q - 5);
             if (!p.empty()) known += "      \"" + p + "\") path=\"" + p + "\" ;;\n";
           }
           return known;
         }() +
         "    esac\n"
         "  done\n"
         "  value=\n"
         "  if [[ $prev == --* ]]; then\n"
         "    case \"quib${path:+ $path} $prev\" in\n" +
         values +
         "    esac\n"
         "  fi\n"
         "  case $value in\n"
         "    files) COMPREPLY=($(compgen -f -- \"$cur\")); return ;;\n"
         "    dirs) COMPREPLY=($(compgen -d -- \"$cur\")); return ;;\n"
         "    none) COMPREPLY=(); return ;;\n"
         "  esac\n"
         "  case \"$path\" in\n" +
         commands +
         "    *) words=; files=1 ;;\n"
         "  esac\n"
         "  if [[ $cur == -* || $files == 0 ]]; then\n"
         "    COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n"
         "  else\n"
         "    COMPREPLY=($(compgen -f -- \"$cur\"))\n"
         "  fi\n"
         "}\n"
         "complete -o filenames -F _quib quib\n";
}

// ---- quib help ----------------------------------------------------------------------------

void addHelpCommand(CLI::App& quib, Context& ctx) {
  struct Options {
    std::vector<std::string> command;
    bool man = false;
    bool markdown = false;
    bool completion = false;
  };
  auto o = std::make_shared<Options>();
  CLI::App& help = addCommand(quib, "help", "show the help of a command");
  help.group("");
  help.add_option("COMMAND", o->command, "the command (and action) to describe");
  help.add_flag("--man", o->man, "print the manual page")->group("");
  help.add_flag("--markdown", o->markdown, "print the Markdown reference")->group("");
  help.add_flag("--bash-completion", o->completion, "print the bash completion")->group("");
  CLI::App const* app = &quib;
  onRun(help, ctx, [o, app, &ctx] {
    if (o->man) {
      ctx.out << manPage(*app);
      return;
    }
    if (o->markdown) {
      ctx.out << markdownReference(*app);
      return;
    }
    if (o->completion) {
      ctx.out << bashCompletion(*app);
      return;
    }
    CLI::App const* at = app;
    for (std::string const& word : o->command) {
      CLI::App const* next = nullptr;
      for (CLI::App const* c : commandsOf(*at))
        if (c->get_name() == word) next = c;
      if (!next) throw UsageError("unknown command '" + word + "'");
      at = next;
    }
    ctx.out << at->help();
  });
}

}  // namespace quib::tool
