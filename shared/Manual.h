// A program's manual page and shell completion, made from the same table of options as its --help.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace shared {

/// Gives `app` two hidden options that print and end the program with success: --print-manual, a page for
/// man(1) with options, subcommands and the footer, whose lines that end in ':' after a blank line begin
/// sections; and --print-completion, what bash wants to know. Call it last, when `app` is complete.
///
/// `section` is the manual's, 1 or 8; `seeAlso` the pages to read next, as in "tarnbooster(1)".
void addManual(CLI::App& app, int section, const std::string& seeAlso);

}  // namespace shared
