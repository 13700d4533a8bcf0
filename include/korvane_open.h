#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "korvane.h"
#include "korvane_diagnostics.h"
#include "korvane_export.h"
#include "korvane_model.h"
#include "korvane_types.h"

/// Hands by a text such as "can0:tessel:2", finding those that are there, and asking a hand which
/// model it is.
///
/// Everything here only reads from hands: nothing moves, and no setting changes.
namespace talvera::korvane {

/// The ways to a hand.
enum class LinkKind : std::uint8_t {
  SOCKET_CAN,  ///< A CAN FD interface of Linux.
  ZLG,         ///< A ZLG USBCANFD adapter.
  HCAN,        ///< An HCAN adapter.
  SERIAL,      ///< A USB or RS-485 serial port.
};

/// Where a hand is, which one it is, and which side it is for. As a text:
///
///     LINK[:MODEL][:ID][?side=left|right]
///
/// | LINK | means |
/// |---|---|
/// | `can0` | the SocketCAN interface of that name, at most 15 characters |
/// | `socketcan:can0` | the same; needed for an interface called zlg, hcan, serial or socketcan |
/// | `zlg:0.1`, `hcan:0.1` | the adapter number 0 (up to three digits), its channel 1 |
/// | `zlg:SERIAL.1`, `hcan:SERIAL.1` | the first adapter whose serial number contains SERIAL |
/// | `zlg:sn=12.1`, `hcan:sn=12.1` | the same, for a serial number that would be read as a number |
/// | `serial:/dev/ttyUSB0@115200` | the serial port and its bits per second |
///
/// A missing channel is 0, a missing rate 115200, a missing side the right one. MODEL is `brisa`,
/// `tessel`, `quill`, `lumen` or `vanta` in any case, ID is 1 to 127; either may be missing. A port
/// whose path holds a colon or an at sign needs its rate behind it:
/// `serial:/dev/serial/by-path/pci-0000:00:14.0-usb-0:1:1.0@115200`. A serial number with a colon
/// can't be written; a part of it without one can.
///
/// A plain value.
struct KORVANE_EXPORT HandAddress {
  LinkKind link = LinkKind::SOCKET_CAN;       ///< Says which of the next members count.
  std::string interface_name;                 ///< Of SOCKET_CAN.
  std::optional<std::uint8_t> adapter_index;  ///< Of ZLG and HCAN; without it the next one counts.
  std::string adapter_serial;                 ///< The serial number, or a part of it.
  std::uint8_t channel = 0;                   ///< Of the adapter.
  std::string port;                           ///< Of SERIAL: its path.
  int baud = 115200;                          ///< Of SERIAL: bits per second, 300 to 12000000.
  std::optional<Model> model;                 ///< Whichever is there if it is missing.
  std::optional<std::uint8_t> id;             ///< 1 to 127; whichever is there if it is missing.
  HandType side = HandType::RIGHT;            ///< Which hand the solver is for; the hand itself
                                              ///< isn't asked.

  /// The address that `text` means, or BAD_ARGUMENT with a text that says what is wrong with it and
  /// what is expected. Doesn't look at whether anything is there. Any thread.
  static Outcome<HandAddress> Parse(const std::string& text);

  /// The shortest text that Parse reads as this address, but for the rate, which a serial port
  /// always has. Any thread.
  std::string ToString() const;
};

/// Whether all that counts for their link is the same.
KORVANE_EXPORT bool operator==(const HandAddress& a, const HandAddress& b);
/// The opposite.
inline bool operator!=(const HandAddress& a, const HandAddress& b) { return !(a == b); }

/// The hand at an address, of the class of its model, once it has answered; settings are those of a
/// hand from a factory. Or a failure:
///
/// | kind | means |
/// |---|---|
/// | BAD_ARGUMENT | the address is none |
/// | NOT_SUPPORTED | a model that isn't to be had on a serial link; only a Brisa is |
/// | NO_LINK | the link can't be opened; `system_error` where the system gave one |
/// | SEND_FAILED | the link takes no frames |
/// | NO_REPLY | nobody answers there, or with that id, or a hand told its id and then no more |
/// | BAD_REPLY | something answers that is none of the models |
/// | REFUSED | what answers isn't the one hand that the address means |
///
/// With REFUSED another model answers, or several hands do and the address doesn't say which, or
/// several have that id; the text lists them.
///
/// With an id only that id is asked, for its vendor record, up to three times as each of the two
/// families of models: 0.01 s if the hand is there and the address says the model, 0.1 s if
/// it doesn't, about 0.6 s if the id is silent, and 1.2 s on HCAN without a model, where both bit
/// timings are tried. Without an id every id is asked as by FindHands, which takes about half a
/// second, twice that on a silent HCAN channel. On a serial port a hand answers whatever its id is,
/// within milliseconds; a silent one takes 1 s, and 2 s with an id.
/// Of several hands on one line the id must be told, since their answers run into each other.
/// Opening a port raises its control lines, on which some boards that are no hands restart.
///
/// The lines of the opened link are written as ever; a question without an answer writes none,
/// except on a serial port.
///
/// Any thread. On a ZLG channel that another hand of this process uses, the end of any object stops
/// the channel for both, that of a failed OpenHand too: look before, or start all hands of a
/// channel before any of them goes.
KORVANE_EXPORT Outcome<std::unique_ptr<KorvaneBase>> OpenHand(const std::string& address);
/// The same for an address that isn't a text.
KORVANE_EXPORT Outcome<std::unique_ptr<KorvaneBase>> OpenHand(const HandAddress& address);

/// A hand that answered.
struct FoundHand {
  HandAddress address;         ///< With model and id; OpenHand takes it as it is.
  Model model = Model::BRISA;  ///< That of the address.
  std::uint8_t id = 0;         ///< That of the address.
  VendorInfo vendor;           ///< See PlainText.
};

/// Where FindHands looks, and how.
struct FindOptions {
  /// The kinds of links; all of them if empty. Of a kind that stands here FindResult::not_asked
  /// also says that the library of its adapters is missing.
  std::vector<LinkKind> links;
  /// Serial ports to ask besides the USB ones, such as "/dev/ttyS0"; asked whatever `links` says. A
  /// USB one is asked under this name.
  std::vector<std::string> serial_ports;
  /// Bits per second on serial ports.
  int baud = 115200;
  /// The ids to ask on CAN; 1 to 127 if empty.
  std::vector<std::uint8_t> ids;
  /// How long answers are waited for behind the last question, on each channel and twice, and once
  /// more for a second hand with the id of a first one. On a serial port 100 ms to 1 s.
  std::chrono::milliseconds answer_time{100};
  /// Only these links are looked at if there are any here, whatever `links` and `serial_ports` say:
  /// "can0", "zlg:0.1", "serial:/dev/ttyUSB0@115200". Of an address with an id only that id is
  /// asked; its model doesn't matter. Where they overlap, each id is asked once, and a hand that
  /// two of them lead to is found once: for the side of the place with its id, or else of the
  /// first. An adapter is named alike in all of them, by its index or by the same part of its
  /// serial number; otherwise it counts as two.
  std::vector<HandAddress> places;
};

/// What FindHands found.
struct FindResult {
  std::vector<FoundHand> hands;  ///< By link, and by id on each.
  /// Links that there are and that couldn't be asked, and what answered without being a hand that
  /// is known, or went before it had told its model, or shares its id with another hand on the bus
  /// (REFUSED); the text begins with the link.
  std::vector<Failure> not_asked;
};

/// All hands on all links that this machine has: CAN interfaces, ZLG and HCAN adapters with all
/// their channels, and USB serial ports (/dev/serial/by-id, /dev/ttyUSB*, /dev/ttyACM*). A built-in
/// port is asked only where it is named.
///
/// On each CAN channel it sends a device query to every id, once for each of the two families of
/// models and again to those that are silent: 254 to 508 frames, no more than two in a millisecond,
/// and then one vendor query to each hand that answered. That takes about half a second for a
/// channel, twice that for a silent HCAN channel. On a serial port one version query goes to
/// everyone, up to twice.
///
/// Leaves alone what is in use: a serial port that another program of this library holds, and USB
/// adapters that hands of this process have open, but for an HCAN adapter that `places` names.
/// Hands on that one and on a CAN interface go on working meanwhile, and so do update runs, as long
/// as the bus has room.
///
/// Blocks for all that. Any thread, one at a time.
KORVANE_EXPORT FindResult FindHands(const FindOptions& options = {});

/// Which model answers under the hand's id, whatever class the hand object is of: what to compare
/// before anything moves or is flashed. NO_LINK, SEND_FAILED or NO_REPLY if nobody answers,
/// BAD_REPLY if what answers is none of the models.
///
/// Told by the vendor record: its active degrees of freedom, its product model where that names a
/// model, and the family of identifiers under which the hand answers. Asks the hand, up to four
/// times; the same thread rule as for any operation of the hand, and LastFailure tells of it as of
/// any.
KORVANE_EXPORT Outcome<Model> IdentifyHand(const Korvane& hand);

/// A text of a vendor record for people: without the NULs, blanks, 0xFF and other unprintable bytes
/// at its end, and with a question mark for each unprintable byte inside. Any thread.
KORVANE_EXPORT std::string PlainText(const std::string& vendor_text);

}  // namespace talvera::korvane
