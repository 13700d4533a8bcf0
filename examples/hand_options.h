#pragma once

#include <korvane_brisa.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <memory>
#include <string>

// The options by which every example is told where its hand is.

namespace examples {

struct HandOptions {
  std::string link = "zlg";
  std::string interface = "can0";
  std::uint8_t adapter = 0;
  std::uint8_t channel = 0;
  std::uint8_t id = 1;
  std::string side = "right";
};

inline void AddHandOptions(CLI::App& app, HandOptions& options) {
  app.add_option("--link", options.link, "How the hand is connected")
      ->check(CLI::IsMember({"socketcan", "zlg", "hcan"}))
      ->capture_default_str();
  app.add_option("--interface", options.interface, "SocketCAN interface")->capture_default_str();
  app.add_option("--adapter", options.adapter, "Number of the USB adapter")->capture_default_str();
  app.add_option("--channel", options.channel, "Channel of the USB adapter")->capture_default_str();
  app.add_option("--id", options.id, "Id of the hand, 1 to 127")
      ->check(CLI::Range(1, 127))
      ->capture_default_str();
  app.add_option("--side", options.side, "Which hand it is")
      ->check(CLI::IsMember({"left", "right"}))
      ->capture_default_str();
}

inline std::unique_ptr<talvera::korvane::KorvaneBrisa> OpenBrisa(const HandOptions& options) {
  using talvera::korvane::HandType;
  using talvera::korvane::KorvaneBrisa;
  const HandType side = options.side == "left" ? HandType::LEFT : HandType::RIGHT;
  if (options.link == "socketcan") {
    return KorvaneBrisa::createHandSocketCan(side, options.id, options.interface);
  }
  if (options.link == "hcan") {
    return KorvaneBrisa::createHandByHcan(side, options.id, options.adapter, options.channel);
  }
  return KorvaneBrisa::createHandByZlgcan(side, options.id, options.adapter, options.channel);
}

/// "zlg adapter 0, channel 0", "SocketCAN interface can0"
inline std::string DescribeLink(const HandOptions& options) {
  if (options.link == "socketcan") return "SocketCAN interface " + options.interface;
  return options.link + " adapter " + std::to_string(options.adapter) + ", channel " +
         std::to_string(options.channel);
}

}  // namespace examples
