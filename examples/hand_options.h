#pragma once

#include <korvane_brisa.h>
#include <korvane_lumen.h>
#include <korvane_quill.h>
#include <korvane_tessel.h>
#include <korvane_vanta.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// The options by which every example is told which hand it has and where it is.

namespace examples {

struct HandOptions {
  std::string model = "brisa";
  std::string link = "zlg";
  std::string interface = "can0";
  std::string port = "/dev/ttyUSB0";
  int baud = 115200;
  std::uint8_t adapter = 0;
  std::uint8_t channel = 0;
  std::uint8_t id = 1;
  std::string side = "right";
};

/// A hand of whatever model, or a null pointer.
using AnyHand = std::unique_ptr<talvera::korvane::KorvaneBase>;

inline talvera::korvane::HandType SideOf(const HandOptions& options) {
  using talvera::korvane::HandType;
  return options.side == "left" ? HandType::LEFT : HandType::RIGHT;
}

template <class Hand>
AnyHand Open(const HandOptions& options) {
  const auto side = SideOf(options);
  if (options.link == "socketcan") {
    return Hand::createHandSocketCan(side, options.id, options.interface);
  }
  if (options.link == "hcan") {
    return Hand::createHandByHcan(side, options.id, options.adapter, options.channel);
  }
  return Hand::createHandByZlgcan(side, options.id, options.adapter, options.channel);
}

/// What the examples know of a model.
struct ModelTraits {
  const char* name;
  AnyHand (*open)(const HandOptions& options);
  int gestures;    ///< 0: it has none.
  int full_scale;  ///< The greatest position of a motor or a reading.
  std::size_t joints;
  bool has_motors;
};

inline const std::vector<ModelTraits>& Models() {
  using namespace talvera::korvane;
  static const std::vector<ModelTraits> models{
      {"brisa", &Open<KorvaneBrisa>, 17, 4096, 10, true},
      {"tessel", &Open<KorvaneTessel>, 4, 2000, 12, true},
      {"quill", &Open<KorvaneQuill>, 0, 4096, 10, false},
      {"lumen", &Open<KorvaneLumen>, 0, 4096, 4, true},
      {"vanta", &Open<KorvaneVanta>, 0, 4096, 20, true},
  };
  return models;
}

inline const ModelTraits& TraitsOf(const HandOptions& options) {
  for (const ModelTraits& model : Models()) {
    if (options.model == model.name) return model;
  }
  return Models().front();
}

inline void AddHandOptions(CLI::App& app, HandOptions& options) {
  std::vector<std::string> names;
  for (const ModelTraits& model : Models()) names.emplace_back(model.name);
  app.add_option("--model", options.model, "Which hand it is")
      ->check(CLI::IsMember(names))
      ->capture_default_str();
  app.add_option("--link", options.link, "How the hand is connected")
      ->check(CLI::IsMember({"socketcan", "zlg", "hcan", "serial"}))
      ->capture_default_str();
  app.add_option("--interface", options.interface, "SocketCAN interface")->capture_default_str();
  app.add_option("--port", options.port, "Serial port, for a brisa by USB or RS-485")
      ->capture_default_str();
  app.add_option("--baud", options.baud, "Bits per second of the serial port")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app.add_option("--adapter", options.adapter, "Number of the USB adapter")->capture_default_str();
  app.add_option("--channel", options.channel, "Channel of the USB adapter")->capture_default_str();
  app.add_option("--id", options.id, "Id of the hand, 1 to 127")
      ->check(CLI::Range(1, 127))
      ->capture_default_str();
  app.add_option("--side", options.side, "Left or right hand")
      ->check(CLI::IsMember({"left", "right"}))
      ->capture_default_str();
}

/// Only a KorvaneBrisa can be on a serial port, whatever --model says.
inline AnyHand OpenHand(const HandOptions& options) {
  if (options.link == "serial") {
    return talvera::korvane::KorvaneBrisa::createHandByUsb(SideOf(options), options.id,
                                                           options.port, options.baud);
  }
  return TraitsOf(options).open(options);
}

/// "zlg adapter 0, channel 0", "SocketCAN interface can0"
inline std::string DescribeLink(const HandOptions& options) {
  if (options.link == "socketcan") return "SocketCAN interface " + options.interface;
  if (options.link == "serial") return "serial port " + options.port;
  return options.link + " adapter " + std::to_string(options.adapter) + ", channel " +
         std::to_string(options.channel);
}

}  // namespace examples
