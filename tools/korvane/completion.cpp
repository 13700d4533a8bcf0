#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <vector>

#include "commands.h"
#include "tool.h"

namespace korvane_tool {
namespace {

/// "--json -q --quiet ..." and the names of nested commands.
std::string WordsOf(const CLI::App& app) {
  std::string words;
  for (const CLI::Option* const option : app.get_options()) {
    for (const std::string& name : option->get_snames()) words += " -" + name;
    for (const std::string& name : option->get_lnames()) words += " --" + name;
  }
  for (const CLI::App* const nested : app.get_subcommands([](const CLI::App*) { return true; })) {
    words += " " + nested->get_name();
  }
  return words;
}

void AddCases(const CLI::App& app, const std::string& path, std::string& cases) {
  cases += fmt::format("    '{}') words='{}' ;;\n", path, WordsOf(app));
  for (const CLI::App* const nested : app.get_subcommands([](const CLI::App*) { return true; })) {
    AddCases(*nested, path.empty() ? nested->get_name() : path + " " + nested->get_name(), cases);
  }
}

/// What bash sources. Files are offered where nothing else fits.
std::string ForBash(const CLI::App& root) {
  std::string cases;
  AddCases(root, "", cases);
  return "# Completion of korvane for bash.\n"
         "_korvane() {\n"
         "  local path='' word words='' current=${COMP_WORDS[COMP_CWORD]}\n"
         "  for word in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do\n"
         "    case \"$word\" in -*) continue ;; esac\n"
         "    case \" $(_korvane_words \"$path\") \" in *\" $word \"*) path=${path:+$path }$word "
         ";; esac\n"
         "  done\n"
         "  words=$(_korvane_words \"$path\")\n"
         "  mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$current\")\n"
         "}\n"
         "_korvane_words() {\n"
         "  local words=''\n"
         "  case \"$1\" in\n" +
         cases +
         "  esac\n"
         "  printf '%s' \"$words\"\n"
         "}\n"
         "complete -o default -F _korvane korvane\n";
}

class Completion : public Command {
 public:
  explicit Completion(CLI::App& options) : root_(options.get_parent()) {
    options.add_option("shell", shell_, "The shell")
        ->check(CLI::IsMember({"bash"}))
        ->capture_default_str();
  }

  int Run(Tool& tool) override {
    tool.Print(ForBash(*root_));
    return kDone;
  }

 private:
  const CLI::App* root_;
  std::string shell_ = "bash";
};

}  // namespace

std::unique_ptr<Command> MakeCompletion(CLI::App& options) {
  return std::make_unique<Completion>(options);
}

}  // namespace korvane_tool
