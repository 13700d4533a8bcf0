#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <vector>

#include "commands.h"
#include "tool.h"

namespace korvane_tool {
namespace {

/// "--json -q --quiet ..." and the names of nested commands.
std::string WordsOf(const Options& command) {
  std::string words;
  for (const std::string& name : command.OptionNames()) words += " " + name;
  for (const Options& nested : command.Commands()) words += " " + nested.Name();
  return words;
}

void AddCases(const Options& command, const std::string& path, std::string& cases) {
  cases += fmt::format("    '{}') words='{}' ;;\n", path, WordsOf(command));
  for (const Options& nested : command.Commands()) {
    AddCases(nested, path.empty() ? nested.Name() : path + " " + nested.Name(), cases);
  }
}

/// What bash sources. Files are offered where nothing else fits.
std::string ForBash(const Options& root) {
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
  explicit Completion(Options options) : root_(options.Outer()) {
    options.Add("shell", shell_, "The shell").OneOf({"bash"}).ShowDefault();
  }

  int Run(Tool& tool) override {
    tool.Print(ForBash(root_));
    return kDone;
  }

 private:
  Options root_;
  std::string shell_ = "bash";
};

}  // namespace

std::unique_ptr<Command> MakeCompletion(Options options) {
  return std::make_unique<Completion>(options);
}

}  // namespace korvane_tool
