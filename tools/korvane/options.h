#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

// The command line, as the commands see it. CLI11 stands behind it, in options.cpp alone: its
// header takes longer to compile than all of a command.

namespace CLI {  // NOLINT(readability-identifier-naming): named so there
class App;
class Option;
}  // namespace CLI

namespace korvane_tool {

/// An option or a positional argument, of which more can be told.
class Option {
 public:
  explicit Option(CLI::Option& option) : option_(option) {}

  /// What its value is called in the help, such as "FILE".
  Option& Value(const char* name);
  Option& Required();
  Option& Within(int least, int greatest);
  Option& Within(double least, double greatest);
  Option& Positive();
  Option& OneOf(const std::vector<std::string>& words);
  /// As OneOf, for a help that names the words already.
  Option& OneOfThose(const std::vector<std::string>& words);
  /// A list may also be given as one value with commas.
  Option& SplitAtCommas();
  /// The help tells the present value of the variable.
  Option& ShowDefault();
  Option& Excludes(const Option& other);
  /// The heading in the help under which it stands; none for one that the help leaves out.
  Option& Group(const char* heading);

  /// Whether the command line has it, be it as an empty text.
  bool IsGiven() const;

 private:
  CLI::Option& option_;
};

/// What a command takes. A name is that of a positional argument, or "-x,--long"; the variable must
/// live until the command has run.
class Options {
 public:
  explicit Options(CLI::App& app) : app_(&app) {}

  /// For int, double, std::string, std::optional<int>, and std::vector<std::string>, whose option
  /// is given once for each value. Whole numbers are in decimal digits, others finite.
  template <class Variable>
  Option Add(const char* name, Variable& variable, const std::string& text);
  Option AddFlag(const char* name, bool& variable, const char* text);
  /// A command below this one, of which one must be named.
  Options AddCommand(const char* name, const char* summary);
  /// What stands at the end of the help.
  void Footer(const std::string& text);
  /// Everything behind the command's name is somebody else's, --help included.
  void LeaveAll();
  /// What stands there.
  std::vector<std::string> Left() const;

  /// Whether the command line names this command.
  bool IsNamed() const;
  std::string Name() const;
  /// The commands below this one.
  std::vector<Options> Commands() const;
  /// The command line that the command belongs to.
  Options Outer() const;
  /// "-q", "--quiet" and so on.
  std::vector<std::string> OptionNames() const;

 private:
  CLI::App* app_;
};

/// The command line of the tool.
class CommandLine {
 public:
  CommandLine(const char* name, const char* summary, const char* version);
  ~CommandLine();
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  /// To add commands and the footer, the footer last: commands inherit it.
  Options Root();
  /// Reads the arguments. If that is all, since they asked for help or are wrong, it has said so
  /// and returns whether they are right.
  std::optional<bool> Read(int argc, char** argv);

 private:
  std::unique_ptr<CLI::App> app_;
};

}  // namespace korvane_tool
