#include <algorithm>
#include <charconv>
#include <string_view>

#include "factories/known_models.h"
#include "util/text.h"

// Addresses as texts. Each reader below takes its part from the front of what is left and says what
// is wrong with it by throwing an AddressError, which doesn't leave this file.

namespace talvera::korvane {
namespace {

constexpr std::size_t kMaxText = 1024;
constexpr std::size_t kMaxInterfaceName = 15;
constexpr std::size_t kMaxIndexDigits = 3;
constexpr int kMinBaud = 300;
constexpr int kMaxBaud = 12'000'000;
constexpr std::string_view kSerialNumberMark = "sn=";

struct KindName {
  LinkKind kind;
  std::string_view name;
};
constexpr KindName kKinds[] = {{LinkKind::SOCKET_CAN, "socketcan"},
                               {LinkKind::ZLG, "zlg"},
                               {LinkKind::HCAN, "hcan"},
                               {LinkKind::SERIAL, "serial"}};

std::string_view NameOf(LinkKind kind) { return kKinds[static_cast<std::size_t>(kind)].name; }

const KindName* FindKind(std::string_view name) {
  const auto* const found =
      std::find_if(std::begin(kKinds), std::end(kKinds),
                   [name](const KindName& kind) { return kind.name == name; });
  return found == std::end(kKinds) ? nullptr : found;
}

struct AddressError {
  std::string text;
};

/// A part of the address as an error shows it.
std::string Quoted(std::string_view part) {
  constexpr std::size_t kShown = 40;
  std::string text = PlainText(std::string(part.substr(0, kShown)));
  if (part.size() > kShown) text += "...";
  return '"' + text + '"';
}

template <class... Parts>
[[noreturn]] void Refuse(const Parts&... parts) {
  throw AddressError{Compose(parts...)};
}

bool IsNumber(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(),
                                      [](char letter) { return letter >= '0' && letter <= '9'; });
}

int ReadNumber(std::string_view text, const char* what, int least, int greatest) {
  int value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  const bool whole = IsNumber(text) && error == std::errc() && end == text.data() + text.size();
  if (!whole || value < least || value > greatest) {
    Refuse(Quoted(text), " is no ", what, "; expected ", least, " to ", greatest);
  }
  return value;
}

/// A text in two, the separator left out; without one there is no tail.
struct Halves {
  std::string_view head;
  std::optional<std::string_view> tail;
};

Halves CutAtColon(std::string_view text) {
  const std::size_t at = text.find(':');
  if (at == std::string_view::npos) return {text, std::nullopt};
  return {text.substr(0, at), text.substr(at + 1)};
}

void CheckCharacters(const std::string& text) {
  if (text.size() > kMaxText) {
    Refuse("an address of ", text.size(), " characters; expected at most ", kMaxText);
  }
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<std::uint8_t>(text[i]);
    if (byte < 0x20 || byte == 0x7F) {
      Refuse("an unprintable byte (", byte, ") at position ", i, " of an address");
    }
  }
}

/// "side=left" or "side=right", what stands behind the question mark.
HandType ReadSide(std::string_view option) {
  if (option == "side=left") return HandType::LEFT;
  if (option == "side=right") return HandType::RIGHT;
  Refuse(Quoted(option), " behind the question mark; expected side=left or side=right");
}

void CheckInterfaceName(std::string_view name) {
  const bool odd = name == "." || name == ".." || name.find_first_of("/ ") != name.npos;
  if (!name.empty() && name.size() <= kMaxInterfaceName && !odd) return;
  Refuse(Quoted(name), " is no interface name; expected 1 to ", kMaxInterfaceName,
         " characters without blanks and slashes, such as can0");
}

/// "0.1", "SERIAL.1", "sn=12.1"; the channel may be missing.
void ReadAdapter(std::string_view text, HandAddress& address) {
  const std::size_t dot = text.rfind('.');
  const std::string_view adapter = text.substr(0, dot);
  if (dot != std::string_view::npos) {
    address.channel =
        static_cast<std::uint8_t>(ReadNumber(text.substr(dot + 1), "channel", 0, 255));
  }
  if (adapter.substr(0, kSerialNumberMark.size()) == kSerialNumberMark) {
    address.adapter_serial = adapter.substr(kSerialNumberMark.size());
  } else if (IsNumber(adapter) && adapter.size() <= kMaxIndexDigits) {
    address.adapter_index =
        static_cast<std::uint8_t>(ReadNumber(adapter, "adapter number", 0, 255));
  } else {
    address.adapter_serial = adapter;
  }
  if (!address.adapter_index && address.adapter_serial.empty()) {
    Refuse(Quoted(text),
           " names no adapter; expected its number or serial number and its channel, "
           "such as ",
           NameOf(address.link), ":0.1");
  }
}

/// A path ends at its rate, which stands behind the last at sign, or else at the first colon.
/// Returns what stands behind.
std::optional<std::string_view> ReadPort(std::string_view text, HandAddress& address) {
  Halves halves = CutAtColon(text);
  const std::size_t at = text.rfind('@');
  if (at != std::string_view::npos) {
    halves = CutAtColon(text.substr(at + 1));
    address.baud = ReadNumber(halves.head, "rate in bits per second", kMinBaud, kMaxBaud);
    halves.head = text.substr(0, at);
  }
  if (halves.head.empty()) {
    Refuse("a serial address without a port; expected its path, such as serial:/dev/ttyUSB0");
  }
  address.port = halves.head;
  return halves.tail;
}

/// The link of an address whose kind is known. Returns what stands behind.
std::optional<std::string_view> ReadLink(std::string_view text, HandAddress& address) {
  if (address.link == LinkKind::SERIAL) return ReadPort(text, address);
  const Halves halves = CutAtColon(text);
  if (address.link == LinkKind::SOCKET_CAN) {
    CheckInterfaceName(halves.head);
    address.interface_name = halves.head;
  } else {
    ReadAdapter(halves.head, address);
  }
  return halves.tail;
}

/// "tessel:2", "tessel" or "2".
void ReadHand(std::string_view text, HandAddress& address) {
  Halves halves = CutAtColon(text);
  address.model = ModelNamed(halves.head);
  if (address.model) {
    if (!halves.tail) return;
    halves = CutAtColon(*halves.tail);
  } else if (!IsNumber(halves.head)) {
    Refuse(Quoted(halves.head), " is no model; expected ", ModelNames(), " or an id");
  }
  address.id = static_cast<std::uint8_t>(ReadNumber(halves.head, "id", 1, kMaxHandId));
  if (halves.tail) Refuse(Quoted(*halves.tail), " behind the id; expected nothing more");
}

HandAddress Read(const std::string& text) {
  CheckCharacters(text);
  HandAddress address;
  std::string_view rest(text);
  const std::size_t question = rest.rfind('?');
  if (question != std::string_view::npos) {
    address.side = ReadSide(rest.substr(question + 1));
    rest = rest.substr(0, question);
  }
  if (rest.empty()) Refuse("an empty address; expected one such as can0:tessel:2");
  const Halves halves = CutAtColon(rest);
  if (const KindName* const kind = FindKind(halves.head)) {
    if (!halves.tail) Refuse(Quoted(rest), " names no link; expected a colon and which one it is");
    address.link = kind->kind;
    rest = *halves.tail;
  }
  const auto hand = ReadLink(rest, address);
  if (!hand) return address;
  try {
    ReadHand(*hand, address);
  } catch (AddressError& error) {
    if (address.link == LinkKind::SERIAL) {
      error.text += "; a path with a colon needs its rate behind it, such as @115200";
    }
    throw;
  }
  return address;
}

/// What tells the adapters of one kind apart.
std::string AdapterText(const HandAddress& address) {
  if (address.adapter_index) return Compose(*address.adapter_index);
  const std::string& serial = address.adapter_serial;
  const bool looks_like_index = IsNumber(serial) && serial.size() <= kMaxIndexDigits;
  const bool marked = looks_like_index || serial.compare(0, 3, kSerialNumberMark) == 0;
  return marked ? Compose(kSerialNumberMark, serial) : serial;
}

std::string TextOfLink(const HandAddress& address) {
  const std::string_view kind = NameOf(address.link);
  switch (address.link) {
    case LinkKind::SERIAL:
      return Compose(kind, ':', address.port, '@', address.baud);
    case LinkKind::ZLG:
    case LinkKind::HCAN:
      return Compose(kind, ':', AdapterText(address), '.', address.channel);
    case LinkKind::SOCKET_CAN:
      break;
  }
  const std::string& name = address.interface_name;
  return FindKind(name) != nullptr ? Compose(kind, ':', name) : name;
}

}  // namespace

Outcome<HandAddress> HandAddress::Parse(const std::string& text) {
  try {
    return Read(text);
  } catch (const AddressError& error) {
    return Failure{FailureKind::BAD_ARGUMENT, "HandAddress::Parse", error.text};
  }
}

std::string HandAddress::ToString() const {
  std::string text = TextOfLink(*this);
  if (model) text += Compose(':', korvane::ToString(*model));
  if (id) text += Compose(':', *id);
  // A question mark of the link's own must not be taken for the one of the side.
  const bool ambiguous = text.find('?') != std::string::npos;
  if (side == HandType::LEFT || ambiguous) {
    text += side == HandType::LEFT ? "?side=left" : "?side=right";
  }
  return text;
}

bool operator==(const HandAddress& a, const HandAddress& b) { return a.ToString() == b.ToString(); }

}  // namespace talvera::korvane
