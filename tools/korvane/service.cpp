#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "common/standard_streams.h"
#include "common/whole_number.h"
#include "confirm.h"
#include "hand_id.h"
#include "interrupt.h"
#include "output_file.h"
#include "service_hand.h"
#include "service_report.h"
#include "settings.h"
#include "terminal.h"
#include "tool.h"

namespace korvane_tool {
namespace {

namespace kv = talvera::korvane;
using kv::PrivateKorvane;

constexpr std::size_t kSerialNumberBytes = 19;
constexpr const char* kNotKept = "It is gone after a restart; --save keeps it.\n";

std::string TableOfSettings() {
  std::string text = "\nSettings:\n";
  for (const Setting& setting : AllSettings()) {
    text += fmt::format("  {:<22} {:>6} to {:<6} {}{}{}\n", setting.key, setting.min, setting.max,
                        setting.title, setting.scope == Scope::AXIS ? ", of each axis" : "",
                        setting.read == nullptr ? ", can't be read" : "");
  }
  return text + "Overload torque and time are 0 to 255 over CAN.";
}

class Service : public Command {
 public:
  explicit Service(Options options) {
    Add(options, "report", "Read all that the hand tells", &Service::Report);
    Options get = Add(options, "get", "Read one setting", &Service::Get);
    Options set = Add(options, "set", "Set one setting", &Service::Set);
    Add(options, "clear-errors", "Clear the errors that the hand remembers", &Service::ClearErrors);
    Add(options, "clear-limits", "Clear the limits of all axes", &Service::ClearLimits);
    Add(options, "save", "Keep the present settings for good", &Service::SaveAll);
    Options number =
        Add(options, "serial-number", "Read or write the serial number", &Service::SerialNumber);
    Options id = Add(options, "id", "Give the hand another id; any model", &Service::Id);
    Options write = Add(options, "export", "Write settings to a file", &Service::Export);
    Options diff = Add(options, "diff", "Compare settings with a file", &Service::Diff);
    Options apply = Add(options, "apply", "Set what a file says", &Service::Apply);
    for (Options leaf : {get, set}) {
      leaf.Add("key", key_, "Which setting").Required().Value("KEY");
      leaf.Footer(TableOfSettings());
    }
    set.Add("value", value_text_, "What it becomes").Required().Value("VALUE");
    set.Add("--axis", axis_, "Only of this axis; otherwise of all").Within(1, 20).Value("N");
    text_option_.emplace(
        number.Add("text", text_, "The new one, of 1 to 19 characters").Value("TEXT"));
    id.Add("id", id_, "The new one").Required().Within(1, 127).Value("ID");
    for (Options leaf : {write, diff, apply}) {
      leaf.Add("file", file_, "The file of settings").Required().Value("FILE");
    }
    write.AddFlag("--overwrite", overwrite_, "Replace a file that is there");
    for (Options leaf : {set, number, apply}) {
      leaf.AddFlag("--save", save_, "Keep it for good, with all other present settings");
    }
    for (Options leaf : {number, id, apply}) {
      leaf.AddFlag("-y,--yes", yes_, "Don't ask before anything changes");
    }
  }

  int Run(Tool& tool) override {
    for (const Leaf& leaf : leaves_) {
      if (leaf.command.IsNamed()) return (this->*leaf.run)(tool);
    }
    return kUsage;
  }

 private:
  struct Leaf {
    Options command;
    int (Service::*run)(Tool&);
  };

  Options Add(Options options, const char* name, const char* summary, int (Service::*run)(Tool&)) {
    leaves_.push_back({options.AddCommand(name, summary), run});
    return leaves_.back().command;
  }

  int Report(Tool& tool) {
    const ServiceHand hand = OpenService(tool);
    const Json report = ServiceReport(hand);
    tool.PrintJson(report);
    tool.Print(TextOfReport(report));
    return report.contains("failures") ? kFailed : kDone;
  }

  int Get(Tool& tool) {
    const Setting& setting = SettingNamed(key_);
    const ServiceHand hand = OpenService(tool);
    NeedReadable(hand, setting);
    const Values values = Need(Read(hand, setting));
    Json document = ToJson(hand.address);
    document["key"] = setting.key;
    document["unit"] = *setting.unit == '\0' ? Json() : Json(setting.unit);
    document["values"] = values;
    tool.PrintJson(document);
    for (const int value : values) tool.Print(fmt::format("{}\n", value));
    return kDone;
  }

  static void NeedReadable(const ServiceHand& hand, const Setting& setting) {
    if (CanRead(hand.address, setting)) return;
    throw ToolError(kUsage, fmt::format("{} can't be read of a {} on this link", setting.key,
                                        ToString(*hand.address.model)));
  }

  int Set(Tool& tool) {
    const Setting& setting = SettingNamed(key_);
    NeedAxisFits(setting);
    const std::string problem = ProblemOf(tool.Address(), setting, value_text_);
    if (!problem.empty()) throw ToolError(kUsage, problem);
    value_ = *WholeNumberIn(value_text_, setting.min, setting.max);
    const ServiceHand hand = OpenService(tool);
    NeedSettable(hand, setting);
    for (const int axis : AxesToSet(hand, setting)) {
      const auto written = Write(hand, setting, axis, value_);
      if (!written) throw ToolError(Half(setting, axis, written.failure()));
    }
    const bool compared = CanRead(hand.address, setting);
    if (compared) NeedTaken(hand, setting);
    if (save_) Save(hand);
    Json document = ToJson(hand.address);
    document.update({{"key", setting.key}, {"value", value_}});
    document["axis"] = axis_ == 0 ? Json() : Json(axis_);
    document.update({{"read_back", compared}, {"saved", save_}});
    tool.PrintJson(document);
    tool.Print(fmt::format("{} of {}{} is {}{}\n", setting.key, hand.address.ToString(),
                           axis_ == 0 ? "" : fmt::format(", axis {},", axis_), value_,
                           compared ? "" : " as far as the hand tells: it can't be read back"));
    if (!save_) tool.Print(kNotKept);
    return kDone;
  }

  void NeedAxisFits(const Setting& setting) const {
    if (axis_ == 0 || setting.scope == Scope::AXIS) return;
    throw ToolError(kUsage, fmt::format("{} is not a setting of single axes", setting.key));
  }

  void NeedSettable(const ServiceHand& hand, const Setting& setting) const {
    const Model model = *hand.address.model;
    if (!Has(model, setting)) {
      throw ToolError(kUsage, fmt::format("a {} has no {}", ToString(model), setting.key));
    }
    if (axis_ <= AxesOf(hand)) return;
    throw ToolError(kUsage,
                    fmt::format("a {} has the axes 1 to {}", ToString(model), AxesOf(hand)));
  }

  std::vector<int> AxesToSet(const ServiceHand& hand, const Setting& setting) const {
    if (setting.scope != Scope::AXIS || axis_ != 0) return {axis_};
    std::vector<int> axes;
    for (int axis = 1; axis <= AxesOf(hand); ++axis) axes.push_back(axis);
    return axes;
  }

  /// Says how far it came.
  Failure Half(const Setting& setting, int axis, Failure failure) const {
    if (setting.scope != Scope::AXIS || axis_ != 0) return failure;
    failure.text = fmt::format("{}; {} of axis {} and of those behind it was not set",
                               PlainText(failure), setting.key, axis);
    return failure;
  }

  void NeedTaken(const ServiceHand& hand, const Setting& setting) const {
    const Values now = Need(Read(hand, setting));
    for (std::size_t i = 0; i < now.size(); ++i) {
      const bool meant = axis_ == 0 || axis_ == static_cast<int>(i) + 1;
      if (!meant || now[i] == value_) continue;
      throw ToolError(kFailed, fmt::format("{} is {} now and not {}", setting.key, now[i], value_));
    }
  }

  /// One operation without an argument.
  template <class F>
  int Do(Tool& tool, const char* what, F operation) {
    const ServiceHand hand = OpenService(tool);
    if (!Need(CheckedService(hand, operation))) throw ToolError(kFailed, "the hand refused");
    Json document = ToJson(hand.address);
    document["done"] = what;
    tool.PrintJson(document);
    tool.Print(fmt::format("{}: {}\n", hand.address.ToString(), what));
    return kDone;
  }
  int ClearErrors(Tool& tool) {
    return Do(tool, "errors cleared", [](PrivateKorvane& s) { return s.ClearError(); });
  }
  int ClearLimits(Tool& tool) {
    return Do(tool, "limits cleared", [](PrivateKorvane& s) { return s.ClearAllLimitPos(); });
  }
  int SaveAll(Tool& tool) {
    return Do(tool, "settings saved", [](PrivateKorvane& s) { return s.SaveParam(); });
  }

  int SerialNumber(Tool& tool) {
    const bool writes = text_option_->IsGiven();
    if (writes) CheckSerialNumber();
    if (!writes && save_) throw ToolError(kUsage, "--save goes with a new serial number");
    const ServiceHand hand = OpenService(tool);
    Json document = ToJson(hand.address);
    document["serial_number"] = Need(SerialNumberOf(hand));
    if (writes) WriteSerialNumber(hand, document);
    tool.PrintJson(document);
    tool.Print(document["serial_number"].get<std::string>() + "\n");
    if (writes && !save_) tool.Print(kNotKept);
    return kDone;
  }

  void CheckSerialNumber() const {
    const bool printable =
        std::all_of(text_.begin(), text_.end(), [](char c) { return c > ' ' && c <= '~'; });
    if (!printable || text_.empty() || text_.size() > kSerialNumberBytes) {
      throw ToolError(kUsage, "a serial number has 1 to 19 printable characters without blanks");
    }
    NeedConfirmable(yes_);
  }

  void WriteSerialNumber(const ServiceHand& hand, Json& document) const {
    const std::string before = document["serial_number"];
    Confirm(fmt::format("Replace the serial number {} of {} by {}?", before,
                        hand.address.ToString(), text_),
            yes_);
    std::vector<std::uint8_t> number(text_.begin(), text_.end());
    number.resize(kSerialNumberBytes);
    const bool taken = Need(
        CheckedService(hand, [&](PrivateKorvane& s) { return s.SetProductSerialNumber(number); }));
    const std::string now = Need(SerialNumberOf(hand));
    if (!taken || now != text_) {
      throw ToolError(kFailed,
                      fmt::format("the hand has the serial number {} and not {}", now, text_));
    }
    if (save_) Save(hand);
    document.update({{"serial_number", now}, {"before", before}, {"saved", save_}});
  }

  int Id(Tool& tool) {
    tool.Address();
    NeedConfirmable(yes_);
    OpenedHand hand = tool.Open();
    const HandAddress before = hand.address;
    const auto id = static_cast<std::uint8_t>(id_);
    NeedFreeId(hand, id);
    Confirm(fmt::format("Give {} the id {}?", before.ToString(), id_), yes_);
    if (id != *before.id) GiveId(hand, id);
    Json document = ToJson(hand.address);
    document["before"] = *before.id;
    tool.PrintJson(document);
    tool.Print(fmt::format("{} is {} now\n", before.ToString(), hand.address.ToString()));
    return kDone;
  }

  int Export(Tool& tool) {
    const ServiceHand hand = OpenService(tool);
    const Interrupt interrupt;  // the file is whole or isn't there
    OutputFile file(file_, overwrite_, Appears::WHEN_WHOLE);
    const Json settings = SettingsFileOf(hand);
    file.Write(settings.dump(2) + "\n");
    file.Finish();
    Json document = ToJson(hand.address);
    document["file"] = file_;
    document["settings"] = settings["settings"];
    tool.PrintJson(document);
    tool.Print(fmt::format("{} settings of {} written to {}\n", document["settings"].size(),
                           hand.address.ToString(), file_));
    return kDone;
  }

  /// The hand, once the file has turned out to be right and for its model.
  ServiceHand OpenFor(const Tool& tool, const SettingsFile& file) const {
    ServiceHand hand = OpenService(tool);
    if (*hand.address.model == file.model) return hand;
    throw ToolError(kOtherModel, fmt::format("{} is for a {}, and {} is a {}; nothing was changed",
                                             file_, ToString(file.model), hand.address.ToString(),
                                             ToString(*hand.address.model)));
  }

  int Diff(Tool& tool) {
    const SettingsFile file = ReadSettingsFile(file_, tool.Address());
    const ServiceHand hand = OpenFor(tool, file);
    Json document = ToJson(hand.address);
    document["differences"] = Json::array();
    TextTable table({"SETTING", "   HAND", "   FILE"});
    for (const Change& change : Differences(hand, file.wanted)) {
      Json row = ToJson(change);
      document["differences"].push_back(
          {{"key", row["key"]}, {"axis", row["axis"]}, {"hand", change.from}, {"file", change.to}});
      table.Add({NameOf(change), fmt::format("{:7}", change.from), fmt::format("{:7}", change.to)});
    }
    tool.PrintJson(document);
    tool.Print(table.IsEmpty() ? "No difference.\n" : table.ToString());
    return table.IsEmpty() ? kDone : kFailed;
  }

  int Apply(Tool& tool) {
    const SettingsFile file = ReadSettingsFile(file_, tool.Address());
    NeedConfirmable(yes_);
    const ServiceHand hand = OpenFor(tool, file);
    const auto changes = Differences(hand, file.wanted);
    if (!changes.empty()) {
      Confirm(fmt::format("Change {} values of {}?", changes.size(), hand.address.ToString()),
              yes_);
    }
    Json document = ToJson(hand.address);
    document.update({{"changed", Json::array()}, {"not_changed", Json::array()}, {"saved", false}});
    Failure failure = WriteAll(hand, changes, file, document);
    if (failure.kind == FailureKind::NONE && save_) failure = SaveApplied(hand, document);
    const bool good = failure.kind == FailureKind::NONE;
    const int status = good ? kDone : StatusOf(failure);
    if (!good) document["error"] = korvane_tool::ToJson(failure);
    if (!good) document["error"]["status"] = status;
    tool.PrintJson(document);
    PrintApplied(tool, document, failure);
    return status;
  }

  /// The changes stand in the document whether or not they could be kept.
  static Failure SaveApplied(const ServiceHand& hand, Json& document) {
    try {
      Save(hand);
      document["saved"] = true;
      return {};
    } catch (const ToolError& error) {
      if (error.Cause().kind != FailureKind::NONE) return error.Cause();
      return {FailureKind::REFUSED, "", error.what()};
    }
  }

  /// Writes until one fails, and looks afterwards which of them the hand has.
  static Failure WriteAll(const ServiceHand& hand, const std::vector<Change>& changes,
                          const SettingsFile& file, Json& document) {
    Failure failure;
    for (const Change& change : changes) {
      const bool stopped = failure.kind != FailureKind::NONE;
      const auto written =
          stopped ? Outcome<void>(failure) : Write(hand, *change.setting, change.axis, change.to);
      failure = written.failure();
      document[written ? "changed" : "not_changed"].push_back(ToJson(change));
    }
    if (changes.empty() || failure.kind != FailureKind::NONE) return failure;
    std::vector<Change> left;
    try {
      left = Differences(hand, file.wanted);
    } catch (const ToolError& error) {
      return error.Cause();
    }
    if (left.empty()) return failure;
    for (const Change& change : left) Move(document, change);
    return {FailureKind::REFUSED, "",
            fmt::format("{} is {} after it was set to {}", NameOf(left.front()), left.front().from,
                        left.front().to)};
  }

  /// What the hand took without having it afterwards.
  static void Move(Json& document, const Change& change) {
    Json& changed = document["changed"];
    const Json axis = ToJson(change)["axis"];
    for (std::size_t i = 0; i < changed.size(); ++i) {
      if (changed[i]["key"] != change.setting->key || changed[i]["axis"] != axis) continue;
      document["not_changed"].push_back(changed[i]);
      changed.erase(i);
      return;
    }
  }

  void PrintApplied(const Tool& tool, const Json& document, const Failure& failure) const {
    for (const char* const key : {"changed", "not_changed"}) {
      for (const Json& row : document[key]) {
        const std::string axis = row["axis"].is_null() ? "" : " of axis " + row["axis"].dump();
        tool.Print(fmt::format(
            "{:<12} {}{}: {} to {}\n", key == std::string("changed") ? "changed" : "NOT changed",
            row["key"].get<std::string>(), axis, row["from"].dump(), row["to"].dump()));
      }
    }
    if (failure.kind != FailureKind::NONE) {
      // A reply that was lost doesn't tell whether the request was, too.
      const bool unsure = failure.kind == FailureKind::NO_REPLY && !document["not_changed"].empty();
      WriteToStderr(fmt::format(
          "korvane: {}\n{} values were written and {} not{}. Apply once more.\n",
          PlainText(failure), document["changed"].size(), document["not_changed"].size(),
          unsure ? "; the hand may have taken the first of these" : ""));
      return;
    }
    if (document["changed"].empty()) tool.Print("The hand has these settings.\n");
    if (!document["changed"].empty() && !save_) tool.Print(kNotKept);
  }

  std::vector<Leaf> leaves_;
  std::string key_;
  std::string value_text_;
  int value_ = 0;  ///< That of the text.
  int axis_ = 0;
  int id_ = 0;
  std::string text_;
  std::optional<Option> text_option_;
  std::string file_;
  bool overwrite_ = false;
  bool save_ = false;
  bool yes_ = false;
};

}  // namespace

std::unique_ptr<Command> MakeService(Options options) { return std::make_unique<Service>(options); }

}  // namespace korvane_tool
