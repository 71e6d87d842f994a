// Everything written from the command tree's one declaration of each command and option: the
// --help text, the manual page, the reference part of docs/cli.md and the bash completion.
#pragma once

#include "cli.hpp"

#include <string>

namespace quib::tool {

/// The --help text of quib and of each command: usage, description, arguments, options.
class HelpFormatter : public CLI::Formatter {
 public:
  std::string make_help(CLI::App const* app, std::string name,
                        CLI::AppFormatMode mode) const override;
};

/// "quib stl convert [options] --out OUT IN": the command's name, its required options, and
/// its arguments.
std::string usageOf(CLI::App const& command);

/// The manual page quib(1), in roff.
std::string manPage(CLI::App const& quib);
/// The reference of every command and option, in Markdown, as docs/cli.md holds it.
std::string markdownReference(CLI::App const& quib);
/// A bash completion script for quib: commands, actions, options and file names.
std::string bashCompletion(CLI::App const& quib);

/// Adds "quib help [COMMAND...]", which prints a command's help (and, hidden, the manual page,
/// the Markdown reference and the bash completion).
void addHelpCommand(CLI::App& quib, Context& ctx);

}  // namespace quib::tool
