#pragma once

#include <korvane.h>
#include <korvane_types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "common/motor_errors.h"
#include "common/touch.h"
#include "tool.h"

// What can be read of any hand, as rows of a table: what shows, records or publishes values goes
// through these rows and leaves out what a model doesn't have.

namespace korvane_tool {

/// What a quantity has one value for.
enum class Per { MOTOR, JOINT };

/// How often what shows a hand live reads it.
enum class Live {
  ALWAYS,    ///< In each reading.
  BY_TURNS,  ///< One of these in each reading, as it changes slowly.
  NEVER,
};

/// One reading of a whole hand.
struct Quantity {
  const char* key;    ///< Its name in documents and options, such as "positions".
  const char* title;  ///< For people.
  const char* unit;   ///< "rad"; empty where it is the hand's own.
  Per per;
  Live live;
  std::vector<double> (*get)(const KorvaneBase& hand);
  bool is_reported = false;    ///< Told in reports only, by a model that has them.
  bool is_error_word = false;  ///< See ErrorNames.
};

/// positions, angles, velocities, currents, temperatures, errors, control_modes, thresholds
const std::vector<Quantity>& AllQuantities();
/// The row of that key. Throws a usage error that lists the keys if there is none.
const Quantity& QuantityNamed(const std::string& key);

/// What the error words of all motors mean, a text for each.
std::vector<std::string> ErrorTexts(const std::vector<double>& words, LinkKind link);

/// The values, without what the bus pads. NOT_SUPPORTED if the model lacks them, also as long as it
/// would tell them in reports and hasn't.
Outcome<std::vector<double>> Read(const OpenedHand& hand, const Quantity& quantity);

/// Reports of temperatures and currents, of a model that tells these in reports only: on while the
/// object exists.
class Reports {
 public:
  /// `period` is in the hand's unit; 0 leaves the reports as they are. A usage error for a model
  /// that is asked for its values.
  Reports(const OpenedHand& hand, int period);
  ~Reports();
  Reports(const Reports&) = delete;
  Reports& operator=(const Reports&) = delete;

  /// Waits until there is one of each, or `is_over`; whether there is.
  bool AwaitFirst(const std::function<bool()>& is_over) const;

 private:
  Outcome<void> SetPeriod(int period) const;

  const OpenedHand& hand_;
  bool on_ = false;
};

/// The names of the values: those of the joints for angles, "1", "2" ... for what motors have.
std::vector<std::string> NamesOf(const Quantity& quantity, const OpenedHand& hand,
                                 std::size_t count);

/// Whether the model has tactile sensors.
bool HasTouch(const OpenedHand& hand);

/// The cells of all tactile sensors, as TouchOf tells them.
Outcome<std::vector<talvera::korvane::TactileSensorData>> ReadTouch(const OpenedHand& hand);

/// As JSON numbers, whole ones without a point.
Json NumberOf(double value);
Json NumbersOf(const std::vector<double>& values);

}  // namespace korvane_tool
