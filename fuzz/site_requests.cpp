// Who may ask `korvane serve` for what: without the token nothing is told, and without the page's
// token nobody controls a hand. Bytes below 4 stand for what a client can know, since nobody could
// guess it.

#include <nlohmann/json.hpp>

#include "serve/pose_request.h"
#include "serve/site.h"
#include "tool_hands.h"

using namespace talvera::korvane;
using namespace talvera::korvane::fuzz;
using namespace korvane_tool;

namespace {

constexpr const char* kToken = "the_token";

struct Silence : Newest {
  Text Get() const override { return nullptr; }
};

/// A Brisa that stands in the middle of its ranges.
class StandingHand : public ServedHand {
 public:
  Json Description() const override { return {{"model", hand_.Info().name}}; }
  std::shared_ptr<const Newest> Events() const override { return std::make_shared<Silence>(); }
  ControlDesk& Desk() override { return desk_; }
  Pose TargetOf(const Json& request) override { return PoseIn(request, hand_, Pose(10, 500)); }

 private:
  static OpenedHand Brisa() {
    Input none(nullptr, 0);
    return ToolHand(none);
  }

  OpenedHand hand_ = Brisa();
  ControlDesk desk_;
};

/// What a client can know, in the order of the bytes that stand for it. The control secret is that
/// of the last one who took control.
enum Known : std::uint8_t { kSiteToken, kPageToken, kControlSecret, kSession };

struct Place {
  explicit Place(SiteSettings settings) : site(std::move(settings)) {
    site.Add(hand);
    const HttpAnswer admission = Get("/", std::string("token=") + kToken, "");
    if (admission.status == 303) {
      const std::string& cookie = admission.headers.at(1).second;
      known[kSession] = cookie.substr(0, cookie.find(';'));
    }
    known[kPageToken] = Json::parse(Get("/api/hands", "", known[kSession]).body).at("page_token");
  }

  HttpAnswer Get(const std::string& path, const std::string& query, const std::string& cookie) {
    HttpRequest request;
    request.method = "GET";
    request.path = path;
    request.query = query;
    request.headers = {{"host", "127.0.0.1:80"}, {"cookie", cookie}};
    request.local_host = "127.0.0.1:80";
    return site.Answer(request);
  }

  StandingHand hand;
  Site site;
  std::array<std::string, 4> known = {kToken, "", "none", ""};
};

void CheckAnswer(const HttpAnswer& answer) {
  const std::string bytes = answer.Bytes(true);
  Require(bytes.rfind("HTTP/1.1 " + std::to_string(answer.status) + " ", 0) == 0);
  Require(!answer.stream || !answer.stream->Get());
}

void Ask(Place& place, const HttpRequest& request, const SiteSettings& settings,
         std::array<bool, 4> told) {
  const ControlDesk::State before = place.hand.Desk().Look();
  const HttpAnswer answer = place.site.Answer(request);
  CheckAnswer(answer);
  const bool admitted = settings.token.empty() || told[kSiteToken] || told[kSession];
  Require(admitted || answer.status == 401 || answer.status == 403);
  const ControlDesk::State after = place.hand.Desk().Look();
  const bool may_control = admitted && settings.allows_control && told[kPageToken];
  // Both end by themselves.
  Require(may_control || after.owner == before.owner || after.owner == 0);
  Require((may_control && told[kControlSecret]) || after.target == before.target || !after.target);
  if (answer.status != 200 || request.path != "/api/hands/1/control") return;
  const Json document = Json::parse(answer.body);
  if (document.contains("control")) place.known[kControlSecret] = document["control"];
}

}  // namespace

void talvera::korvane::fuzz::Fuzz(Input& input) {
  const std::uint8_t kind = input.Byte();
  const SiteSettings settings{(kind & 1U) != 0 ? kToken : "", (kind & 2U) != 0};
  Place place(settings);
  while (!input.IsOver()) {
    std::string bytes;
    std::array<bool, 4> told{};
    for (const char byte : input.Block<std::string>()) {
      const auto which = static_cast<std::uint8_t>(byte);
      if (which < told.size()) told[which] = true;
      bytes += which < told.size() ? place.known[which] : std::string(1, byte);
    }
    HttpReader reader;
    const int status = reader.Add(bytes.data(), bytes.size());
    if (status != 0) {
      CheckAnswer({status, "text/plain", "refused"});
      continue;
    }
    while (auto request = reader.Take()) {
      request->local_host = "127.0.0.1:80";
      Ask(place, *request, settings, told);
      reader.Add("", 0);
    }
  }
}
