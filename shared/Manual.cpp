#include "shared/Manual.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <sstream>
#include <vector>

namespace shared {
namespace {

/// Text as roff has it: nothing in it is a command or a hyphen that may be broken or replaced.
std::string escaped(const std::string& text) {
  std::string result;
  for (const char c : text) {
    if (c == '\\') {
      result += "\\e";
    } else if (c == '-') {
      result += "\\-";
    } else {
      // At the beginning of a line these two are commands.
      if ((c == '.' || c == '\'') && (result.empty() || result.back() == '\n')) result += "\\&";
      result += c;
    }
  }
  return result;
}

std::string upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
  return text;
}

/// The options that --help shows, those of option groups included; --help itself only where `app` is the
/// program.
std::vector<const CLI::Option*> optionsOf(const CLI::App& app) {
  std::vector<const CLI::Option*> shown;
  for (const CLI::Option* option : app.get_options({})) {
    const bool inherited = option == app.get_help_ptr() && app.get_parent() != nullptr;
    if (!option->get_group().empty() && !inherited) shown.push_back(option);
  }
  for (const CLI::App* group : app.get_subcommands({})) {
    if (!group->get_name().empty()) continue;
    const auto more = optionsOf(*group);
    shown.insert(shown.end(), more.begin(), more.end());
  }
  return shown;
}

std::vector<const CLI::App*> subcommandsOf(const CLI::App& app) {
  std::vector<const CLI::App*> shown;
  for (const CLI::App* command : app.get_subcommands({})) {
    if (!command->get_name().empty() && !command->get_group().empty()) shown.push_back(command);
  }
  return shown;
}

std::vector<std::string> spellingsOf(const CLI::Option& option) {
  std::vector<std::string> spellings;
  for (const std::string& name : option.get_snames()) spellings.push_back("-" + name);
  for (const std::string& name : option.get_lnames()) spellings.push_back("--" + name);
  if (spellings.empty()) spellings.push_back(option.get_name(true));  // positional
  return spellings;
}

bool takesValue(const CLI::Option& option) {
  return option.get_items_expected_max() > 0 && option.get_type_size_max() > 0;
}

/// A description: its indented lines, "  WORD  what it means", as a list.
std::string described(const std::string& description) {
  std::istringstream lines(description);
  std::string page;
  bool within = false;  // the list
  for (std::string line; std::getline(lines, line);) {
    const bool isEntry = line.rfind("  ", 0) == 0;
    if (isEntry != within) page += isEntry ? ".RS\n" : ".RE\n.IP\n";
    within = isEntry;
    if (!isEntry) {
      page += escaped(line) + "\n";
      continue;
    }
    const size_t gap = line.find("  ", 2), end = gap != std::string::npos ? gap : line.find(' ', 2);
    const size_t rest = std::min(line.find_first_not_of(' ', end), line.size());
    page += ".TP\n\\fB" + escaped(line.substr(2, end - 2)) + "\\fR\n" + escaped(line.substr(rest)) + "\n";
  }
  return page + (within ? ".RE\n" : "");
}

void appendOptions(const CLI::App& app, std::string& page) {
  for (const CLI::Option* option : optionsOf(app)) {
    std::string names;
    for (const std::string& name : spellingsOf(*option)) {
      names += (names.empty() ? "\\fB" : ", \\fB") + escaped(name) + "\\fR";
    }
    if (takesValue(*option)) names += " \\fI" + escaped(option->get_type_name()) + "\\fR";
    std::string description = option->get_description();
    if (option->get_required()) description += " (required)";
    if (!option->get_default_str().empty()) description += " (default: " + option->get_default_str() + ")";
    page += ".TP\n" + names + "\n" + described(description);
  }
}

/// The footer's lines as they stand, in sections that its headings begin.
void appendFooter(const std::string& footer, std::string& page) {
  std::istringstream lines(footer);
  const std::string none, end = ".fi\n";
  bool within = false, afterBlank = true;  // a section; a blank line
  for (std::string line; std::getline(lines, line);) {
    if (afterBlank && line.size() > 1 && line.back() == ':' && line[0] != ' ') {
      page += (within ? end : none) + ".SH " + escaped(upper(line.substr(0, line.size() - 1))) + "\n.nf\n";
      within = true;
    } else if (within || !line.empty()) {
      page += (within ? none : ".SH NOTES\n.nf\n") + escaped(line) + "\n";
      within = true;
    }
    afterBlank = line.empty();
  }
  if (within) page += end;
}

std::string manualOf(const CLI::App& app, int section, const std::string& seeAlso) {
  const std::string& name = app.get_name();
  std::string about = app.get_description();
  std::string summary = about.substr(0, about.find('.'));
  std::replace(summary.begin(), summary.end(), '\n', ' ');
  if (!summary.empty()) summary[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(summary[0])));
  const auto commands = subcommandsOf(app);

  std::string page = ".\\\" Made by " + name + " --print-manual\n.TH " + upper(escaped(name)) + " " +
                     std::to_string(section) + " \"\" \"tarnbooster\"\n.SH NAME\n" + escaped(name) + " \\- " +
                     escaped(summary) + "\n.SH SYNOPSIS\n\\fB" + escaped(name) + "\\fR [\\fIOPTION\\fR...]" +
                     (commands.empty() ? "" : " \\fICOMMAND\\fR [\\fIOPTION\\fR...]") +
                     "\n.SH DESCRIPTION\n" + escaped(about) + "\n.SH OPTIONS\n";
  appendOptions(app, page);
  if (!commands.empty()) page += ".SH COMMANDS\n";
  for (const CLI::App* command : commands) {
    page += ".SS " + escaped(command->get_name()) + "\n" + escaped(command->get_description()) + "\n";
    appendOptions(*command, page);
    const std::string footer = command->get_footer();
    if (!footer.empty())
      page += ".PP\n.nf\n" + escaped(footer.substr(footer.find_first_not_of('\n'))) + ".fi\n";
  }
  appendFooter(app.get_footer(), page);
  return page + ".SH SEE ALSO\n" + escaped(seeAlso) + "\n";
}

std::string joined(const std::vector<std::string>& words, const char* between) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : between) + word;
  return text;
}

/// The options of `app` as words, and those that take a value into one of the two lists.
std::vector<std::string> sortOptions(const CLI::App& app, std::vector<std::string>& files,
                                     std::vector<std::string>& values) {
  std::vector<std::string> words;
  for (const CLI::Option* option : optionsOf(app)) {
    if (option->get_positional()) continue;
    const std::string type = option->get_type_name();
    for (const std::string& name : spellingsOf(*option)) {
      words.push_back(name);
      if (!takesValue(*option)) continue;
      const bool file = type.find("FILE") != std::string::npos || type.find("PATH") != std::string::npos;
      auto& list = file ? files : values;
      if (std::find(list.begin(), list.end(), name) == list.end()) list.push_back(name);
    }
  }
  return words;
}

std::string completionOf(const CLI::App& app) {
  std::vector<std::string> files{"//"}, values{"//"}, names{"//"};  // no pattern of bash's case may be empty
  std::vector<std::string> general = sortOptions(app, files, values);
  std::string cases;
  for (const CLI::App* command : subcommandsOf(app)) {
    names.push_back(command->get_name());
    cases += "    " + command->get_name() + ") words+=' " +
             joined(sortOptions(*command, files, values), " ") + "' ;;\n";
  }
  const std::string commands = joined({names.begin() + 1, names.end()}, " ");
  std::string function = app.get_name();
  std::replace(function.begin(), function.end(), '-', '_');
  return "# bash completion, made by " + app.get_name() + " --print-completion\n_" + function +
         "() {\n"
         "  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} command='' given words\n"
         "  for given in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do\n"
         "    case $given in " +
         joined(names, "|") +
         ") command=$given ;; esac\n"
         "  done\n"
         "  case $before in\n"
         "    " +
         joined(files, "|") +
         ") compopt -o filenames 2>/dev/null; mapfile -t COMPREPLY < <(compgen -f -- \"$word\"); return ;;\n"
         "    " +
         joined(values, "|") +
         ") return ;;\n"
         "  esac\n"
         "  words='" +
         joined(general, " ") +
         "'\n"
         "  case $command in\n"
         "    '') words+=' " +
         commands + "' ;;\n" + cases +
         "  esac\n"
         "  mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$word\")\n"
         "}\n"
         "complete -o default -F _" +  // file names where no word fits
         function +
         " " + app.get_name() + "\n";
}

}  // namespace

void addManual(CLI::App& app, int section, const std::string& seeAlso) {
  const auto print = [](const std::string& text) {
    fputs(text.c_str(), stdout);
    throw CLI::Success();
  };
  app.add_flag_callback("--print-manual",
                        [&app, section, seeAlso, print] { print(manualOf(app, section, seeAlso)); })
      ->group("");
  app.add_flag_callback("--print-completion", [&app, print] { print(completionOf(app)); })->group("");
}

}  // namespace shared
