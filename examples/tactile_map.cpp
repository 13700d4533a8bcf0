// Shows the tactile arrays of a hand as coloured cells, one line a sensor.
//
//   tactile_map --hand can0:tessel:2
//   tactile_map --link zlg --id 1 --frames 100

#include <korvane_brisa.h>
#include <korvane_tessel.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <thread>
#include <vector>

#include "hand_options.h"

namespace {

using examples::Outcome;
using talvera::korvane::Finger;
using talvera::korvane::IBR7TactileSensor1D;
using talvera::korvane::KorvaneBase;
using talvera::korvane::KorvaneBrisa;
using talvera::korvane::KorvaneTessel;
using talvera::korvane::TactileSensorData;

constexpr auto kFrameTime = std::chrono::milliseconds(50);
constexpr auto kGestureTime = std::chrono::milliseconds(700);

const char* NameOf(Finger finger) {
  switch (finger) {
    case Finger::THUMB:
      return "thumb";
    case Finger::INDEX:
      return "index";
    case Finger::MIDDLE:
      return "middle";
    case Finger::RING:
      return "ring";
    case Finger::LITTLE:
      return "little";
    case Finger::PALM:
      return "palm";
    case Finger::DORSUM:
      return "dorsum";
  }
  return "?";
}

/// One cell: a shade of the terminal's 24 greys to reds, or a character where there are no colours.
void PrintCell(std::uint8_t value, bool colours) {
  if (colours) {
    std::printf("\x1b[48;2;%d;%d;%dm ", value, value / 4, 255 - value);
    return;
  }
  constexpr char kShades[] = " .:-=+*#%@";
  std::putchar(kShades[value * 10 / 256]);
}

void PrintSensor(const TactileSensorData& sensor, bool colours) {
  int sum = 0;
  std::printf("%-7s|", NameOf(sensor.finger));
  for (const std::uint8_t cell : sensor.data) {
    PrintCell(cell, colours);
    sum += cell;
  }
  std::printf("%s| %zu cells, sum %d%s\n", colours ? "\x1b[0m" : "", sensor.data.size(), sum,
              colours ? "\x1b[K" : "");
}

/// The three-axis sensors of a KorvaneTessel, whose bytes only its maker can read.
std::vector<TactileSensorData> ReadFingertips(const KorvaneTessel& hand) {
  std::vector<TactileSensorData> sensors;
  for (int finger = 1; finger <= 5; ++finger) {
    const auto record = hand.GetTactileSensor3DData(static_cast<Finger>(finger));
    sensors.push_back(
        {static_cast<Finger>(finger), {std::begin(record.data), std::end(record.data)}});
  }
  return sensors;
}

/// All sensors in one request; over a link that cuts such a reply, each sensor's summary.
std::vector<TactileSensorData> ReadSensors(const KorvaneBase& hand, bool summaries) {
  if (const auto* const brisa = dynamic_cast<const KorvaneBrisa*>(&hand); brisa && summaries) {
    return brisa->GetAllTactileSensorData();
  }
  if (const auto* const tessel = dynamic_cast<const KorvaneTessel*>(&hand)) {
    return ReadFingertips(*tessel);
  }
  return dynamic_cast<const IBR7TactileSensor1D&>(hand).GetAllTactileSensorDataRaw();
}

bool HasSensors(const KorvaneBase& hand) {
  return dynamic_cast<const KorvaneTessel*>(&hand) != nullptr ||
         dynamic_cast<const IBR7TactileSensor1D*>(&hand) != nullptr;
}

Outcome<void> MakeGesture(KorvaneBase& hand, int gesture) {
  auto made = Checked(hand, [&](KorvaneBase& h) { h.SetHandGesture(gesture); });
  if (made) std::this_thread::sleep_for(kGestureTime);
  return made;
}

/// In place of the last reading on a terminal.
void Show(const std::vector<TactileSensorData>& sensors, bool colours, bool first) {
  if (colours && !first) std::printf("\x1b[%zuA", sensors.size());
  for (const auto& sensor : sensors) PrintSensor(sensor, colours);
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Shows the tactile arrays of a hand.");
  examples::HandOptions where;
  int frames = 1;
  int gesture = -1;
  bool summaries = false;
  examples::AddHandOptions(app, where);
  app.add_option("--frames", frames, "How many readings to show")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app.add_option("--gesture", gesture, "Gesture to make first; 0 to 16, or 0 to 3 with a tessel")
      ->check(CLI::Range(0, 16));
  app.add_flag("--summaries", summaries,
               "Read the short summaries of a brisa; HCAN adapters and serial ports don't carry "
               "whole arrays");
  CLI11_PARSE(app, argc, argv);

  const auto opened = examples::Open(where);
  if (!opened) return examples::Explain(opened.failure());
  KorvaneBase& hand = **opened;
  if (!HasSensors(hand)) {
    std::fprintf(stderr, "A %s has no tactile sensors.\n", ToString(examples::ModelOf(hand)));
    return EXIT_FAILURE;
  }
  if (gesture >= 0) {
    if (const auto made = MakeGesture(hand, gesture); !made) {
      return examples::Explain(made.failure());
    }
  }
  for (int frame = 0; frame < frames; ++frame) {
    if (frame > 0) std::this_thread::sleep_for(kFrameTime);
    const auto sensors =
        Checked(hand, [&](const KorvaneBase& h) { return ReadSensors(h, summaries); });
    if (!sensors) return examples::Explain(sensors.failure());
    Show(*sensors, isatty(STDOUT_FILENO) == 1, frame == 0);
  }
  return EXIT_SUCCESS;
}
