#include <fmt/format.h>
#include <korvane_observe.h>
#include <korvane_open.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <map>

#include "checkup.h"
#include "interrupt.h"
#include "percentile.h"
#include "quantities.h"
#include "util/guarded.h"

// A hand: who answers, how well, and how it is.

namespace korvane_tool {
namespace {

namespace kv = talvera::korvane;

using Clock = std::chrono::steady_clock;

constexpr std::size_t kRoundTrips = 200;
constexpr std::size_t kLostInARow = 10;
/// A late reply to a question of before may come in between.
constexpr std::uint64_t kStrayFrames = 3;

// --- Who answers ----------------------------------------------------------------------------

kv::FindResult Search(const Tool& tool, kv::FindOptions where) {
  if (tool.options.timeout_ms != 0) {
    where.answer_time = std::chrono::milliseconds(tool.options.timeout_ms);
  }
  return FindHands(where);
}

/// A look at the first hand that answers in place of the one that was meant.
std::string LookAtOther(const Tool& tool, const kv::FindOptions& where) {
  const auto found = Search(tool, where).hands;
  return found.empty() ? "" : "korvane doctor -H '" + found.front().address.ToString() + "'";
}

/// All hands on the link of `address`.
kv::FindOptions SameLink(HandAddress address) {
  address.model.reset();
  address.id.reset();
  kv::FindOptions where;
  where.places = {address};
  return where;
}

std::string WithAdvice(const Failure& failure) {
  const std::string advice = AdviceOn(failure);
  return PlainText(failure) + (advice.empty() ? "" : "; " + advice);
}

bool IsAdapter(const HandAddress& address) {
  return address.link == LinkKind::ZLG || address.link == LinkKind::HCAN;
}

Finding NoLink(const Tool& tool, const HandAddress& address, const Failure& failure) {
  const std::string text = WithAdvice(failure);
  if (!IsAdapter(address)) return Bad(text);
  kv::FindOptions where;
  where.links = {address.link};
  const std::string other = LookAtOther(tool, where);
  return other.empty() ? Bad(text, "lsusb") : Bad(text + " There are hands elsewhere.", other);
}

Finding Nobody(const Tool& tool, const HandAddress& address, const Failure& failure) {
  const std::string text = PlainText(failure);
  const std::string other = LookAtOther(tool, SameLink(address));
  if (!other.empty()) return Bad(text + "; another one does", other, kNobody);
  const bool is_serial = address.link == LinkKind::SERIAL;
  return Bad(text + (is_serial ? "; is the hand powered, the cable in, and this its bit rate?"
                               : "; is the hand powered, the cable in, and the bus terminated at "
                                 "both ends?"),
             "korvane find", kNobody);
}

Finding NotReached(const Tool& tool, const HandAddress& address, const ToolError& error) {
  const auto status = static_cast<ExitStatus>(error.Status());
  if (status == kNoLink) return NoLink(tool, address, error.Cause());
  if (status == kNobody) return Nobody(tool, address, error.Cause());
  if (status == kFailed) return Bad(WithAdvice(error.Cause()), "", status);
  return Bad(PlainText(error.Cause()), LookAtOther(tool, SameLink(address)), status);
}

std::optional<OpenedHand> Reach(const Tool& tool, const HandAddress& address, Checkup& checkup) {
  try {
    OpenedHand hand = tool.Open(address);
    checkup.Add("link", Ok("it opens"));
    checkup.Add("answer",
                Ok(fmt::format("a {} with id {} answers", hand.Info().name, *hand.address.id)));
    return hand;
  } catch (const ToolError& error) {
    const bool is_open = error.Status() != kNoLink;
    if (is_open && error.Cause().kind != FailureKind::NOT_SUPPORTED)
      checkup.Add("link", Ok("it opens"));
    checkup.Add(is_open ? "answer" : "link", NotReached(tool, address, error));
    return std::nullopt;
  }
}

// --- Round trips ----------------------------------------------------------------------------

/// Counts the frames under each identifier that this program asks with.
class Traffic {
 public:
  void Count(const kv::FrameEvent& frame) {
    constexpr std::uint32_t kWriteFlag = 0x80;
    const kv::MutexLock lock(mutex_);
    Counts& counts = by_identifier_[frame.id & ~kWriteFlag];
    ++(frame.sent ? counts.sent : counts.received);
  }

  /// Frames that answer none of this program's questions: another one's questions, which look
  /// like answers, and the answers to those.
  std::uint64_t Foreign() {
    const kv::MutexLock lock(mutex_);
    std::uint64_t foreign = 0;
    for (const auto& [identifier, counts] : by_identifier_) {
      const bool is_more = counts.sent > 0 && counts.received > counts.sent;
      foreign += is_more ? counts.received - counts.sent : 0;
    }
    return foreign;
  }

 private:
  struct Counts {
    std::uint64_t sent = 0;
    std::uint64_t received = 0;
  };
  kv::Mutex mutex_;
  std::map<std::uint32_t, Counts> by_identifier_ KORVANE_GUARDED_BY(mutex_);
};

struct RoundTrips {
  std::vector<double> us;  ///< Those that were answered, the quickest first.
  std::size_t lost = 0;
  std::size_t lost_at_the_end = 0;  ///< In a row.

  double At(double share) const { return Percentile(us, share); }
};

bool Ask(const OpenedHand& hand, std::size_t number) {
  // Two questions in turn, so that others who ask either are seen.
  if (number % 2 == 0) {
    return bool(Checked(*hand, [](const KorvaneBase& h) { return h.GetAllJointMotorPosi(); }));
  }
  return bool(Checked(*hand, [](const KorvaneBase& h) { return h.GetVendorInfo(); }));
}

RoundTrips Measure(const OpenedHand& hand) {
  const Interrupt interrupt;
  RoundTrips trips;
  for (std::size_t i = 0; i < kRoundTrips && trips.lost_at_the_end < kLostInARow; ++i) {
    if (interrupt.Came()) throw ToolError(kInterrupted, "interrupted");
    const auto begin = Clock::now();
    const bool answered = Ask(hand, i);
    const std::chrono::duration<double, std::micro> took = Clock::now() - begin;
    if (answered) trips.us.push_back(took.count());
    trips.lost += answered ? 0 : 1;
    trips.lost_at_the_end = answered ? 0 : trips.lost_at_the_end + 1;
  }
  std::sort(trips.us.begin(), trips.us.end());
  return trips;
}

Finding JudgeQuickness(const RoundTrips& trips) {
  const std::string text =
      fmt::format("{} of {} lost; median {:.2f} ms, p99 {:.2f} ms", trips.lost,
                  trips.us.size() + trips.lost, trips.At(0.5) / 1000, trips.At(0.99) / 1000);
  if (trips.lost == 0) return Ok(text);
  return Warning(text + "; look at the cable and at the load of the bus");
}

Finding Judge(const RoundTrips& trips, bool link_lost) {
  Finding finding;
  if (link_lost) {
    finding = Bad("the link has gone while the hand was asked");
  } else if (trips.lost_at_the_end == kLostInARow) {
    finding = Bad("the hand has stopped answering", "korvane find", kNobody);
  } else {
    finding = JudgeQuickness(trips);
  }
  finding.values = {{"sent", trips.us.size() + trips.lost}, {"lost", trips.lost}};
  if (!trips.us.empty()) {
    finding.values["median_us"] = trips.At(0.5);
    finding.values["p99_us"] = trips.At(0.99);
  }
  return finding;
}

Finding JudgeOthers(std::uint64_t foreign, const kv::LinkStatistics& statistics) {
  Json values{{"foreign_frames", foreign},
              {"unmatched_frames", statistics.unmatched_frames},
              {"bad_replies", statistics.bad_replies}};
  const bool alone = foreign < kStrayFrames && statistics.bad_replies == 0;
  Finding finding =
      alone ? Ok("nobody else asks this hand")
            : Warning(fmt::format("{} frames that nobody here asked for and {} bad replies: "
                                  "another program asks this hand, or two hands have its id",
                                  foreign, statistics.bad_replies),
                      "ps -ef | grep -i korvane");
  finding.values = values;
  return finding;
}

void ExamineTraffic(const OpenedHand& hand, Checkup& checkup) {
  Traffic traffic;
  // A late reply to what was asked while the hand was looked for passes before the count.
  for (std::size_t i = 0; i < 2; ++i) Ask(hand, i);
  ObserveFrames(*hand, [&](const kv::FrameEvent& frame) { traffic.Count(frame); });
  const RoundTrips trips = Measure(hand);
  ObserveFrames(*hand, {});
  const auto statistics = StatisticsOf(*hand);
  checkup.Add("round_trips", Judge(trips, statistics.link_lost));
  if (checkup.FirstBad() == nullptr) {
    checkup.Add("others", JudgeOthers(traffic.Foreign(), statistics));
  }
}

// --- How it is ------------------------------------------------------------------------------

Finding LookAtIdentity(const kv::VendorInfo& vendor) {
  return Ok(fmt::format("{}, serial number {}, firmware {}", kv::PlainText(vendor.product_model),
                        kv::PlainText(vendor.serial_number), vendor.software_version.ToString()));
}

Finding LookAtSupply(const kv::VendorInfo& vendor) {
  if (vendor.supply_voltage_mv == 0) return Unknown("the hand tells no supply voltage");
  Finding finding = Ok(fmt::format("{:.1f} V", vendor.supply_voltage_mv / 1000.0));
  finding.values = {{"supply_voltage_mv", vendor.supply_voltage_mv}};
  return finding;
}

std::optional<Finding> LookAtErrors(const OpenedHand& hand) {
  const auto errors = Read(hand, QuantityNamed("errors"));
  if (!errors) {
    if (errors.failure().kind == FailureKind::NOT_SUPPORTED) return std::nullopt;
    return Unknown(PlainText(errors.failure()));
  }
  std::string text;
  for (std::size_t motor = 0; motor < errors->size(); ++motor) {
    const std::string names =
        ErrorNames(static_cast<unsigned>((*errors)[motor]), hand.address.link);
    if (names.empty()) continue;
    text += fmt::format("{}motor {}: {}", text.empty() ? "" : "; ", motor + 1, names);
  }
  if (text.empty()) return Ok("none");
  const char* const command = hand.Info().has_service ? "service clear-errors" : "info";
  return Bad(text, fmt::format("korvane {} -H '{}'", command, hand.address.ToString()), kFailed);
}

void ExamineHealth(const OpenedHand& hand, Checkup& checkup) {
  const auto vendor = Checked(*hand, [](const KorvaneBase& h) { return h.GetVendorInfo(); });
  if (!vendor) return checkup.Add("identity", Unknown(PlainText(vendor.failure())));
  checkup.Add("identity", LookAtIdentity(*vendor));
  checkup.Add("supply", LookAtSupply(*vendor));
  if (auto errors = LookAtErrors(hand)) checkup.Add("errors", *errors);
}

}  // namespace

void ExamineHand(const Tool& tool, const HandAddress& address, Checkup& checkup) {
  const auto hand = Reach(tool, address, checkup);
  if (!hand) return;
  ExamineTraffic(*hand, checkup);
  if (checkup.FirstBad() == nullptr) ExamineHealth(*hand, checkup);
}

Finding FindHandsOn(const Tool& tool, const kv::FindOptions& where) {
  const auto found = Search(tool, where);
  if (found.hands.empty() && !found.not_asked.empty()) {
    const Failure& failure = found.not_asked.front();
    return Bad(WithAdvice(failure), "", StatusOf(failure));
  }
  if (found.hands.empty()) return Warning("no hand answers");
  std::string text;
  Json addresses = Json::array();
  for (const kv::FoundHand& hand : found.hands) {
    text += (text.empty() ? "" : ", ") + hand.address.ToString();
    addresses.push_back(hand.address.ToString());
  }
  Finding finding = Ok(text);
  finding.values = {{"hands", addresses}};
  return finding;
}

}  // namespace korvane_tool
