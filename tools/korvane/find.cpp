#include <fmt/format.h>

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "commands.h"
#include "terminal.h"
#include "tool.h"

namespace korvane_tool {
namespace {

namespace kv = talvera::korvane;

Json FoundJson(const kv::FoundHand& hand) {
  Json json = ToJson(hand.address);
  json.erase("side");  // a hand doesn't tell
  AddVendor(hand.vendor, json);
  return json;
}

class Find : public Command {
 public:
  explicit Find(Options options) {
    options.Add("place", places_, "Only these links, such as can0, zlg:0.1 or serial:/dev/ttyS0")
        .Value("LINK");
    options
        .Add("--link", links_, "Only links of this kind (socketcan, zlg, hcan, serial), repeatable")
        .OneOfThose({"socketcan", "zlg", "hcan", "serial"})
        .Value("KIND");
    options.Add("--baud", options_.baud, "Bits per second of serial ports")
        .Within(300, 12'000'000)
        .Value("RATE")
        .ShowDefault();
    options.Add("--wait", wait_ms_, "How long answers are waited for, in ms")
        .Within(1, 10'000)
        .Value("MS")
        .ShowDefault();
  }

  int Run(Tool& tool) override {
    const auto found = FindHands(Wanted(tool));
    Json document{{"hands", Json::array()}, {"not_asked", Json::array()}};
    for (const auto& hand : found.hands) document["hands"].push_back(FoundJson(hand));
    for (const Failure& failure : found.not_asked) {
      document["not_asked"].push_back(ToJson(failure));
    }
    tool.PrintJson(document);
    tool.Print(Text(found));
    if (!found.hands.empty()) return kDone;
    return found.not_asked.empty() ? kNobody : StatusOf(found.not_asked.front());
  }

 private:
  static std::map<std::string, LinkKind> Kinds() {
    return {{"socketcan", LinkKind::SOCKET_CAN},
            {"zlg", LinkKind::ZLG},
            {"hcan", LinkKind::HCAN},
            {"serial", LinkKind::SERIAL}};
  }

  kv::FindOptions Wanted(const Tool& tool) {
    for (const std::string& link : links_) options_.links.push_back(Kinds().at(link));
    options_.answer_time = std::chrono::milliseconds(wait_ms_);
    std::vector<std::string> places = places_;
    places.insert(places.end(), tool.options.hands.begin(), tool.options.hands.end());
    for (const std::string& place : places) {
      options_.places.push_back(Need(HandAddress::Parse(place)));
    }
    return options_;
  }

  static std::string Text(const kv::FindResult& found) {
    TextTable table({"ADDRESS", "PRODUCT", "SERIAL NUMBER", "FIRMWARE"});
    for (const auto& hand : found.hands) {
      table.Add({hand.address.ToString(), kv::PlainText(hand.vendor.product_model),
                 kv::PlainText(hand.vendor.serial_number),
                 hand.vendor.software_version.ToString()});
    }
    std::string text = table.IsEmpty() ? "No hand answered.\n" : table.ToString();
    if (!found.not_asked.empty()) text += "\nNot asked:\n";
    for (const Failure& failure : found.not_asked) {
      text += "  " + PlainText(failure) + "\n";
      const std::string advice = AdviceOn(failure);
      if (!advice.empty()) text += "    " + Coloured(advice, Colour::DIM) + "\n";
    }
    return text;
  }

  kv::FindOptions options_;
  std::vector<std::string> places_;
  std::vector<std::string> links_;
  int wait_ms_ = 100;
};

}  // namespace

std::unique_ptr<Command> MakeFind(Options options) { return std::make_unique<Find>(options); }

}  // namespace korvane_tool
