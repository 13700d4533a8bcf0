#include "options.h"

#include <CLI/CLI.hpp>
#include <sstream>
#include <type_traits>

#include "common/number_options.h"
#include "common/standard_streams.h"

namespace korvane_tool {
namespace {

std::vector<CLI::App*> CommandsOf(CLI::App& app) {
  return app.get_subcommands([](const CLI::App*) { return true; });
}

/// Help of all commands that tells the options of nested ones, too.
class WholeHelp : public CLI::Formatter {
 public:
  // NOLINTNEXTLINE(readability-identifier-naming): named so there
  std::string make_expanded(const CLI::App* command) const override {
    std::string text = Formatter::make_expanded(command);
    const CLI::App* const outer = command->get_parent();
    if (outer->get_parent() != nullptr) text = outer->get_name() + " " + text;
    for (const CLI::App* const nested :
         command->get_subcommands([](const CLI::App*) { return true; })) {
      text += "\n" + make_expanded(nested);
    }
    return text;
  }
};

/// Before any check of its range.
template <class Variable>
void MindNumbers(CLI::Option& option) {
  if constexpr (std::is_same_v<Variable, double>) {
    option.transform(CLI::Validator(korvane_common::NeedFinite, ""));
  } else if constexpr (std::is_same_v<Variable, int> ||
                       std::is_same_v<Variable, std::optional<int>>) {
    option.transform(CLI::Validator(korvane_common::NeedDecimal, ""));
  }
}

}  // namespace

Option& Option::Value(const char* name) {
  option_.type_name(name);
  return *this;
}

Option& Option::Required() {
  option_.required();
  return *this;
}

Option& Option::Within(int least, int greatest) {
  option_.check(CLI::Range(least, greatest));
  return *this;
}

Option& Option::Within(double least, double greatest) {
  option_.check(CLI::Range(least, greatest));
  return *this;
}

Option& Option::Positive() {
  option_.check(CLI::PositiveNumber);
  return *this;
}

Option& Option::OneOf(const std::vector<std::string>& words) {
  option_.check(CLI::IsMember(words));
  return *this;
}

Option& Option::OneOfThose(const std::vector<std::string>& words) {
  option_.check(CLI::IsMember(words).description(""));
  return *this;
}

Option& Option::SplitAtCommas() {
  option_.delimiter(',');
  return *this;
}

Option& Option::ShowDefault() {
  option_.capture_default_str();
  return *this;
}

Option& Option::Excludes(const Option& other) {
  option_.excludes(&other.option_);
  return *this;
}

Option& Option::Group(const char* heading) {
  option_.group(heading);
  return *this;
}

bool Option::IsGiven() const { return option_.count() > 0; }

template <class Variable>
Option Options::Add(const char* name, Variable& variable, const std::string& text) {
  CLI::Option* const option = app_->add_option(name, variable, text);
  MindNumbers<Variable>(*option);
  if (!option->get_positional()) option->allow_extra_args(false);
  return Option(*option);
}
template Option Options::Add(const char*, int&, const std::string&);
template Option Options::Add(const char*, double&, const std::string&);
template Option Options::Add(const char*, std::string&, const std::string&);
template Option Options::Add(const char*, std::optional<int>&, const std::string&);
template Option Options::Add(const char*, std::vector<std::string>&, const std::string&);

Option Options::AddFlag(const char* name, bool& variable, const char* text) {
  return Option(*app_->add_flag(name, variable, text));
}

Options Options::AddCommand(const char* name, const char* summary) {
  app_->require_subcommand(1);
  return Options(*app_->add_subcommand(name, summary));
}

void Options::Footer(const std::string& text) { app_->footer(text); }

void Options::LeaveAll() {
  app_->prefix_command();
  app_->set_help_flag();
}

std::vector<std::string> Options::Left() const { return app_->remaining(); }

bool Options::IsNamed() const { return app_->parsed(); }

std::string Options::Name() const { return app_->get_name(); }

std::vector<Options> Options::Commands() const {
  std::vector<Options> commands;
  for (CLI::App* const app : CommandsOf(*app_)) commands.emplace_back(*app);
  return commands;
}

Options Options::Outer() const { return Options(*app_->get_parent()); }

std::vector<std::string> Options::OptionNames() const {
  std::vector<std::string> names;
  for (const CLI::Option* const option : app_->get_options()) {
    for (const std::string& name : option->get_snames()) names.push_back("-" + name);
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  return names;
}

CommandLine::CommandLine(const char* name, const char* summary, const char* version)
    : app_(std::make_unique<CLI::App>(summary, name)) {
  app_->set_version_flag("--version", std::string(name) + " " + version);
  app_->set_help_all_flag("--help-all", "Print the help of all commands and exit");
  app_->formatter(std::make_shared<WholeHelp>());
}

CommandLine::~CommandLine() = default;

Options CommandLine::Root() { return Options(*app_); }

std::optional<bool> CommandLine::Read(int argc, char** argv) {
  try {
    app_->parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    std::ostringstream out;
    std::ostringstream err;
    const bool is_right = app_->exit(error, out, err) == 0;
    korvane_common::WriteToStdout(out.str());
    korvane_common::WriteToStderr(err.str());
    return is_right;
  }
  return std::nullopt;
}

}  // namespace korvane_tool
