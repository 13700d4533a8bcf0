#pragma once

#include <korvane_diagnostics.h>
#include <korvane_log.h>
#include <korvane_open.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

// How every example is told which hand it has and where that is, and what it says if the hand isn't
// there or isn't that one.

namespace examples {

using talvera::korvane::Failure;
using talvera::korvane::HandAddress;
using talvera::korvane::LinkKind;
using talvera::korvane::Model;
using talvera::korvane::Outcome;

using AnyHand = std::unique_ptr<talvera::korvane::KorvaneBase>;

struct HandOptions {
  std::string hand;             ///< Its address; otherwise what follows tells it in pieces.
  std::string model = "brisa";  ///< Empty: whichever answers.
  std::string link = "zlg";
  std::string interface = "can0";
  std::string port = "/dev/ttyUSB0";
  int baud = 115200;
  int adapter = 0;
  int channel = 0;
  int id = 1;  ///< 0: whichever answers.
  std::string side = "right";
  bool verbose = false;
};

/// What the examples know of a model.
struct ModelTraits {
  std::size_t joints;
  int gestures;    ///< 0: it has none.
  int full_scale;  ///< The greatest position of a motor or a reading.
  Model model;
  bool has_motors;
};

/// By model.
inline constexpr ModelTraits kModels[] = {
    {10, 17, 4096, Model::BRISA, true}, {12, 4, 2000, Model::TESSEL, true},
    {10, 0, 4096, Model::QUILL, false}, {4, 0, 4096, Model::LUMEN, true},
    {20, 0, 4096, Model::VANTA, true},
};

inline Model ModelOf(const talvera::korvane::Korvane& hand) {
  return static_cast<Model>(hand.model_code);
}

inline const ModelTraits& TraitsOf(Model model) { return kModels[static_cast<std::size_t>(model)]; }

inline void AddModelOption(CLI::App& app, HandOptions& options, CLI::Option* hand) {
  std::vector<std::string> names;
  for (const ModelTraits& traits : kModels) names.emplace_back(ToString(traits.model));
  app.add_option("--model", options.model, "Which hand it is")
      ->check(CLI::IsMember(names))
      ->excludes(hand)
      ->capture_default_str();
}

/// --hand, and the options that tell the same in pieces. Once they are read the library's lines are
/// switched off, so that a failure is the one line that Explain prints.
inline void AddHandOptions(CLI::App& app, HandOptions& options) {
  auto* const hand = app.add_option(
      "--hand", options.hand,
      "Address of the hand, such as can0:tessel:2, zlg:0.1 or serial:/dev/ttyUSB0@115200, in place "
      "of the options that follow; a model or an id that it leaves out is whichever answers");
  const auto add = [&](const char* name, auto& value, const char* text) {
    return app.add_option(name, value, text)->excludes(hand)->capture_default_str();
  };
  AddModelOption(app, options, hand);
  add("--link", options.link, "How the hand is connected")
      ->check(CLI::IsMember({"socketcan", "zlg", "hcan", "serial"}));
  add("--interface", options.interface, "SocketCAN interface");
  add("--port", options.port, "Serial port, for a brisa by USB or RS-485");
  add("--baud", options.baud, "Bits per second of the serial port")->check(CLI::PositiveNumber);
  add("--adapter", options.adapter, "Number of the USB adapter")->check(CLI::Range(0, 255));
  add("--channel", options.channel, "Channel of the USB adapter")->check(CLI::Range(0, 255));
  add("--id", options.id, "Id of the hand, 1 to 127")->check(CLI::Range(1, 127));
  add("--side", options.side, "Left or right hand")->check(CLI::IsMember({"left", "right"}));
  app.add_flag("--verbose", options.verbose, "Show the library's own lines, too");
  app.parse_complete_callback([&options] {
    if (!options.verbose) talvera::korvane::SetLogSink(talvera::korvane::SilentLog());
  });
}

inline LinkKind LinkNamed(const std::string& name) {
  if (name == "socketcan") return LinkKind::SOCKET_CAN;
  if (name == "serial") return LinkKind::SERIAL;
  return name == "hcan" ? LinkKind::HCAN : LinkKind::ZLG;
}

inline HandAddress AddressInPieces(const HandOptions& options) {
  using talvera::korvane::HandType;
  HandAddress address;
  address.link = LinkNamed(options.link);
  address.interface_name = options.interface;
  address.adapter_index = static_cast<std::uint8_t>(options.adapter);
  address.channel = static_cast<std::uint8_t>(options.channel);
  address.port = options.port;
  address.baud = options.baud;
  for (const ModelTraits& traits : kModels) {
    if (options.model == ToString(traits.model)) address.model = traits.model;
  }
  if (options.id != 0) address.id = static_cast<std::uint8_t>(options.id);
  address.side = options.side == "left" ? HandType::LEFT : HandType::RIGHT;
  return address;
}

/// Where the hand is.
inline Outcome<HandAddress> AddressOf(const HandOptions& options) {
  return options.hand.empty() ? AddressInPieces(options) : HandAddress::Parse(options.hand);
}

/// The hand, once it has answered as the model that it should be.
inline Outcome<AnyHand> Open(const HandOptions& options) {
  const auto address = AddressOf(options);
  if (!address) return address.failure();
  return talvera::korvane::OpenHand(*address);
}

/// "zlg:0.0:brisa:1"
inline std::string Describe(const HandOptions& options, const talvera::korvane::Korvane& hand) {
  HandAddress address = AddressOf(options).value_or(HandAddress());
  address.model = ModelOf(hand);
  address.id = hand.device_id;
  return address.ToString();
}

/// Says what went wrong and what helps. The exit status.
inline int Explain(const Failure& failure) {
  std::fprintf(stderr, "%s\n", failure.text.c_str());
  const std::string advice = AdviceOn(failure);
  if (!advice.empty()) std::fprintf(stderr, "%s\n", advice.c_str());
  return EXIT_FAILURE;
}

}  // namespace examples
