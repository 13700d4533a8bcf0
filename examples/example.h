#pragma once

#include <korvane_diagnostics.h>
#include <korvane_link.h>
#include <korvane_log.h>
#include <korvane_model.h>
#include <korvane_open.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

// What every example does alike: failures are told in one place, on the standard error stream.

namespace examples {

namespace kv = talvera::korvane;

/// Says what went wrong and what helps. The exit status.
inline int Explain(const kv::Failure& failure) {
  std::fprintf(stderr, "%s\n", failure.text.c_str());
  const std::string advice = AdviceOn(failure);
  if (!advice.empty()) std::fprintf(stderr, "%s\n", advice.c_str());
  return EXIT_FAILURE;
}

[[noreturn]] inline void EndWithUsage(const char* usage) {
  std::fprintf(stderr, "usage: %s\n", usage);
  std::exit(2);
}

/// Checks that the arguments are there, switches the library's own lines off, as Explain tells what
/// matters, and has hands receive by events: as ever they take a core each on SocketCAN, and lose
/// replies that come early on a serial port, as they do where the machine is busy.
inline void Begin(int argc, int arguments, const char* usage) {
  if (argc <= arguments) EndWithUsage(usage);
  kv::SetLogSink(kv::SilentLog());
  kv::SetDefaultReceiving(kv::Receiving::BY_EVENTS);
}

/// More than the 50 ms that hands wait at first: for busy machines, and hands that store a setting.
inline constexpr int kReplyTimeMs = 1000;

/// The hand, once it has answered as the model that the address says.
inline kv::Outcome<std::unique_ptr<kv::KorvaneBase>> Open(const std::string& address) {
  auto hand = kv::OpenHand(address);
  if (hand) (*hand)->SetFrameRecvTimeout(kReplyTimeMs);
  return hand;
}

inline const kv::ModelInfo& InfoOf(const kv::Korvane& hand) {
  return kv::InfoOf(static_cast<kv::Model>(hand.model_code));
}

}  // namespace examples
