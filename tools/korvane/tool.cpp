#include "tool.h"

#include <fmt/format.h>
#include <korvane_link.h>
#include <korvane_log.h>

#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "common/standard_streams.h"

namespace korvane_tool {
namespace {

namespace kv = talvera::korvane;

void WriteLibraryLine(kv::LogLevel, std::string_view line) {
  WriteToStderr(std::string(line) + "\n");
}

}  // namespace

void Patience::Count(const Failure& failure) {
  if (StatisticsOf(*hand_).link_lost) {
    throw ToolError({FailureKind::NO_LINK, failure.operation,
                     hand_.address.ToString() + ": the link has gone", failure.system_error});
  }
  if (failure.kind == FailureKind::NONE) {
    in_a_row_ = 0;
    return;
  }
  ++lost_;
  if (++in_a_row_ >= limit_) throw ToolError(failure);
}

void AddCommonOptions(Options command, CommonOptions& options) {
  constexpr const char* kGroup = "Common options";
  command
      .Add("-H,--hand", options.hands,
           "Address of the hand, such as can0:tessel:2 or serial:/dev/ttyUSB0; otherwise "
           "$KORVANE_HAND")
      .Value("ADDRESS")
      .Group(kGroup);
  command.Add("--timeout", options.timeout_ms, "How long a reply is waited for, in ms")
      .Within(10, 1000)
      .Value("MS")
      .Group(kGroup);
  command.AddFlag("--json", options.json, "One JSON document in place of text").Group(kGroup);
  command.AddFlag("-q,--quiet", options.quiet, "Nothing but errors").Group(kGroup);
  command.AddFlag("-v,--verbose", options.verbose, "Show the library's own lines").Group(kGroup);
}

void Tool::Begin() {
  kv::SetLogSink(options.verbose ? kv::LogSink(WriteLibraryLine) : kv::SilentLog());
  kv::SetDefaultReceiving(kv::Receiving::BY_EVENTS);
}

std::vector<std::string> Tool::Named() const {
  const char* const named = std::getenv("KORVANE_HAND");
  if (options.hands.empty() && named != nullptr && *named != '\0') return {named};
  return options.hands;
}

std::vector<HandAddress> Tool::Addresses() const {
  const auto named = Named();
  if (named.empty()) {
    throw ToolError(kUsage,
                    "which hand? Name it with -H ADDRESS or in KORVANE_HAND; `korvane find` lists "
                    "those that are there");
  }
  std::vector<HandAddress> addresses;
  addresses.reserve(named.size());
  for (const std::string& text : named) addresses.push_back(Need(HandAddress::Parse(text)));
  return addresses;
}

HandAddress Tool::Address() const {
  const auto addresses = Addresses();
  if (addresses.size() > 1) throw ToolError(kUsage, "this command takes one hand at a time");
  return addresses.front();
}

OpenedHand Tool::Open(const HandAddress& address) const {
  auto hand = OpenHand(address);
  if (!hand) throw ToolError(StatusOfOpening(hand.failure(), address), hand.failure());
  if (options.timeout_ms != 0) (*hand)->SetFrameRecvTimeout(options.timeout_ms);
  OpenedHand opened{address, *std::move(hand)};
  opened.address.model = static_cast<Model>(opened->model_code);
  opened.address.id = opened->device_id;
  return opened;
}

void Tool::Print(const std::string& text) const {
  if (Talks()) WriteToStdout(text);
}

void Tool::PrintJson(const Json& document) const {
  if (!options.json) return;
  WriteToStdout(document.dump(prints_lines ? -1 : 2, ' ', false, Json::error_handler_t::replace) +
                "\n");
}

void Tool::Warn(const std::string& text) const {
  if (!options.quiet) WriteToStderr(fmt::format("korvane: {}\n", text));
}

int Tool::Report(const ToolError& error) const { return Report(error, Json::object()); }

int Tool::Report(const ToolError& error, Json document) const {
  FlushStdout();
  const bool failed = error.Cause().kind != FailureKind::NONE;
  WriteToStderr(fmt::format("korvane: {}\n", failed ? PlainText(error.Cause()) : error.what()));
  const std::string advice = failed ? AdviceOn(error.Cause()) : "";
  if (!advice.empty()) WriteToStderr(advice + "\n");
  document["error"] = failed ? ToJson(error.Cause()) : Json{{"text", error.what()}};
  document["error"]["status"] = error.Status();
  PrintJson(document);
  return error.Status();
}

std::string PlainText(const Failure& failure) {
  std::string text = failure.text;
  if (const auto level = text.find("[ERROR]: "); level != std::string::npos) {
    return text.erase(level, std::strlen("[ERROR]: "));
  }
  // "[ERROR][Class][Operation] [CANID:...][DATA:...] request timeout (50ms)"
  if (text.rfind('[', 0) != 0) return text;
  const auto end = text.rfind("] ");
  if (end == std::string::npos) return text;
  return failure.operation + ": " + text.substr(end + 2);
}

Json ToJson(const HandAddress& address) {
  Json json{{"address", address.ToString()}};
  json["model"] = address.model ? Json(ToString(*address.model)) : Json();
  json["id"] = address.id ? Json(*address.id) : Json();
  json["side"] = address.side == kv::HandType::LEFT ? "left" : "right";
  return json;
}

void AddVendor(const kv::VendorInfo& vendor, Json& json) {
  json["product_model"] = kv::PlainText(vendor.product_model);
  json["serial_number"] = kv::PlainText(vendor.serial_number);
  json["firmware"] = vendor.software_version.ToString();
  json["hardware"] = vendor.hardware_version.ToString();
}

Json ToJson(const Failure& failure) {
  return {{"kind", ToString(failure.kind)},
          {"operation", failure.operation},
          {"text", PlainText(failure)},
          {"advice", AdviceOn(failure)},
          {"system_error", failure.system_error}};
}

}  // namespace korvane_tool
