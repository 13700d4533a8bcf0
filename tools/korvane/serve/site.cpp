#include "site.h"

#include <fmt/format.h>

#include <exception>
#include <nlohmann/json.hpp>
#include <string_view>

#include "../json_text.h"
#include "common/whole_number.h"
#include "secret.h"

namespace korvane_tool {
namespace {

constexpr const char* kJsonType = "application/json";
constexpr const char* kEventType = "text/event-stream";
constexpr const char* kContentSecurity =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
    "img-src 'self' data:; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

/// Ends a request with a status and a reason.
struct Refused {
  int status;
  std::string text;
};

HttpAnswer JsonAnswer(const Json& json, int status = 200) {
  return {status, kJsonType, json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n"};
}

HttpAnswer ErrorAnswer(int status, const std::string& text) {
  return JsonAnswer({{"error", {{"text", text}, {"status", status}}}}, status);
}

std::string PortOf(const std::string& host) { return host.substr(host.rfind(':') + 1); }

bool IsLoopback(const std::string& host) {
  return host.rfind("127.", 0) == 0 || host.rfind("[::1]", 0) == 0;
}

/// A page of another site that has its name resolve to this machine is given away by that name.
bool IsNamedRightly(const HttpRequest& request) {
  std::string host = request.Header("host");
  const std::string port = PortOf(request.local_host);
  const bool has_port =
      host.find(':', host.find(']') == std::string::npos ? 0 : host.find(']')) != std::string::npos;
  if (!has_port && port == "80") host += ":80";
  return host == request.local_host ||
         (IsLoopback(request.local_host) && host == "localhost:" + port);
}

/// Browsers tell from which site a request comes, if it could be from another one.
bool IsOfThisSite(const HttpRequest& request) {
  const auto origin = request.headers.find("origin");
  const std::string fetched_by = request.Header("sec-fetch-site");
  if (origin != request.headers.end() && origin->second != "http://" + request.Header("host"))
    return false;
  return request.method == "GET" || fetched_by.empty() || fetched_by == "same-origin";
}

std::string CookieName(const HttpRequest& request) {
  return "korvane_" + PortOf(request.local_host);  // cookies don't tell ports apart
}

Json ParsedBody(const HttpRequest& request) {
  auto body = JsonObjectIn(request.body);
  if (!body) throw Refused{400, "the body is no JSON object"};
  return *std::move(body);
}

void Require(bool owns) {
  if (!owns) throw Refused{409, "this hand is controlled by somebody else, or by nobody"};
}

HttpAnswer ChangeControl(const Json& body, const std::string& secret, ControlDesk& desk) {
  const Json action = body.value("action", Json());
  if (action == "take") {
    const auto ticket = desk.Take();
    if (!ticket) throw Refused{409, "somebody else controls this hand"};
    return JsonAnswer({{"owner", ticket->owner}, {"control", ticket->secret}});
  }
  if (action == "keep") {
    Require(desk.Keep(secret));
  } else if (action == "give_up") {
    Require(desk.GiveUp(secret));
  } else {
    throw Refused{400, "an action is take, keep or give_up"};
  }
  return JsonAnswer(Json::object());
}

/// All hands in one stream, since browsers open only a few connections to one server. For one
/// client.
class AllHands : public Newest {
 public:
  explicit AllHands(const std::vector<ServedHand*>& hands) : last_(hands.size()) {
    for (const ServedHand* const hand : hands) streams_.push_back(hand->Events());
  }

  /// What is new of any hand since the last call.
  Text Get() const override {
    std::string news;
    for (std::size_t i = 0; i < streams_.size(); ++i) {
      const Text newest = streams_[i]->Get();
      if (newest != last_[i]) news += *newest;
      last_[i] = newest;
    }
    if (!news.empty()) newest_ = std::make_shared<const std::string>(std::move(news));
    return newest_;
  }

 private:
  std::vector<std::shared_ptr<const Newest>> streams_;
  mutable std::vector<Text> last_;
  mutable Text newest_;
};

}  // namespace

Site::Site(SiteSettings settings)
    : settings_(std::move(settings)), session_(NewSecret()), page_token_(NewSecret()) {}

HttpAnswer Site::Answer(const HttpRequest& request) {
  HttpAnswer answer;
  try {
    answer = Answered(request);
  } catch (const Refused& refused) {
    answer = ErrorAnswer(refused.status, refused.text);
  } catch (const std::exception& error) {
    answer = ErrorAnswer(500, error.what());  // the other requests go on
  }
  for (const auto& [name, value] : {std::pair{"Cache-Control", "no-store"},
                                    {"Content-Security-Policy", kContentSecurity},
                                    {"Cross-Origin-Resource-Policy", "same-origin"},
                                    {"Referrer-Policy", "no-referrer"},
                                    {"X-Content-Type-Options", "nosniff"}}) {
    answer.headers.emplace_back(name, value);
  }
  return answer;
}

HttpAnswer Site::Answered(const HttpRequest& request) {
  constexpr std::string_view kHands = "/api/hands";
  if (!IsNamedRightly(request)) throw Refused{403, "the page isn't to be had under this name"};
  if (!IsOfThisSite(request)) throw Refused{403, "the request comes from another site"};
  if (!IsAdmitted(request)) return Admission(request);
  const std::string& path = request.path;
  if (path.size() > kHands.size() + 1 && path.compare(0, kHands.size(), kHands) == 0) {
    return OfHand(request, path.substr(kHands.size() + 1));
  }
  if (request.method != "GET") throw Refused{405, "this can only be read"};
  if (path == kHands) return Hands();
  if (path == "/api/events") return Events(request, std::make_shared<AllHands>(hands_));
  for (const PageFile& file : PageFiles()) {
    if (path != file.path) continue;
    return {200, file.type, std::string(reinterpret_cast<const char*>(file.bytes), file.size)};
  }
  throw Refused{404, "there is nothing here"};
}

bool Site::IsAdmitted(const HttpRequest& request) const {
  if (settings_.token.empty()) return true;
  constexpr std::string_view kBearer = "Bearer ";
  const std::string authorization = request.Header("authorization");
  const bool knows = authorization.compare(0, kBearer.size(), kBearer) == 0 &&
                     IsSecret(settings_.token, authorization.substr(kBearer.size()));
  return knows || IsSecret(session_, request.Cookie(CookieName(request)));
}

/// The token leaves the address bar, and with it the history, at once.
HttpAnswer Site::Admission(const HttpRequest& request) const {
  const bool knows = request.method == "GET" && request.path == "/" &&
                     IsSecret(settings_.token, request.Parameter("token"));
  if (!knows) throw Refused{401, "open the address that korvane serve has printed, with its token"};
  HttpAnswer answer;
  answer.status = 303;
  answer.headers = {{"Location", "/"},
                    {"Set-Cookie", fmt::format("{}={}; Path=/; HttpOnly; SameSite=Strict",
                                               CookieName(request), session_)}};
  return answer;
}

HttpAnswer Site::Hands() const {
  Json document{{"page_token", page_token_}, {"control_allowed", settings_.allows_control}};
  document["hands"] = Json::array();
  for (const ServedHand* const hand : hands_) {
    Json json{{"hand", document["hands"].size() + 1}};
    json.update(hand->Description());
    document["hands"].push_back(std::move(json));
  }
  return JsonAnswer(document);
}

/// A page tells which run of the server it was loaded from: in another one the same numbers stand
/// for other hands.
HttpAnswer Site::Events(const HttpRequest& request, std::shared_ptr<const Newest> events) const {
  const std::string page = request.Parameter("page");
  if (!page.empty() && !IsSecret(page_token_, page)) {
    throw Refused{409, "the page is of an earlier korvane serve; load it again"};
  }
  return {200, kEventType, "", {}, std::move(events)};
}

HttpAnswer Site::OfHand(const HttpRequest& request, const std::string& what) {
  const auto slash = what.find('/');
  const auto number = WholeNumberIn(what.substr(0, slash), 1, static_cast<int>(hands_.size()));
  if (slash == std::string::npos || !number) throw Refused{404, "there is no such hand"};
  ServedHand& hand = *hands_[static_cast<std::size_t>(*number) - 1];
  const std::string rest = what.substr(slash + 1);
  if (rest == "events") {
    if (request.method != "GET") throw Refused{405, "events can only be read"};
    return Events(request, hand.Events());
  }
  if (rest != "control" && rest != "move" && rest != "stop")
    throw Refused{404, "there is nothing here"};
  return Change(request, rest, hand);
}

void Site::CheckChange(const HttpRequest& request) const {
  if (request.method != "POST") throw Refused{405, "this must be posted"};
  if (!settings_.allows_control)
    throw Refused{403,
                  "hands are only looked at; korvane serve --allow-control lets them be moved"};
  if (!IsSecret(page_token_, request.Header("x-korvane-page")))
    throw Refused{403, "the page's token is missing; load the page again"};
  const std::string type = request.Header("content-type");
  if (type.substr(0, type.find(';')) != kJsonType) throw Refused{415, "expected application/json"};
}

HttpAnswer Site::Change(const HttpRequest& request, const std::string& what,
                        ServedHand& hand) const {
  CheckChange(request);
  const Json body = ParsedBody(request);
  const std::string secret = request.Header("x-korvane-control");
  ControlDesk& desk = hand.Desk();
  if (what == "control") return ChangeControl(body, secret, desk);
  Require(what == "stop" ? desk.Release(secret) : desk.Keep(secret));
  if (what == "stop") return JsonAnswer(Json::object());
  try {
    const Pose target = hand.TargetOf(body);
    Require(desk.Aim(secret, target));
    return JsonAnswer({{"target", target}});
  } catch (const ToolError& error) {
    throw Refused{error.Status() == kUsage ? 400 : 409, error.what()};
  }
}

}  // namespace korvane_tool
