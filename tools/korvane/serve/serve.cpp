#include <fmt/format.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "../commands.h"
#include "../interrupt.h"
#include "../tool.h"
#include "common/standard_streams.h"
#include "hand_feed.h"
#include "http_server.h"
#include "secret.h"
#include "site.h"

namespace korvane_tool {
namespace {

constexpr const char* kLoopback = "127.0.0.1";

/// Whether both are on one adapter of those whose channel ends with any of its hands.
bool ShareAdapter(HandAddress a, HandAddress b) {
  if (a.link != LinkKind::ZLG && a.link != LinkKind::HCAN) return false;
  a.id = b.id = {};
  a.model = b.model = {};
  a.side = b.side;
  return a == b;
}

/// Answers requests in a thread of its own as long as it lives.
class ServingThread {
 public:
  explicit ServingThread(HttpServer& server)
      : server_(server), thread_([&server] { server.Run(); }) {}
  ~ServingThread() {
    server_.Stop();
    thread_.join();
  }
  ServingThread(const ServingThread&) = delete;
  ServingThread& operator=(const ServingThread&) = delete;

 private:
  HttpServer& server_;
  std::thread thread_;
};

class Serve : public Command {
 public:
  explicit Serve(Options options) {
    options.Add("--port", port_, "The port; 0 is any that is free")
        .Within(0, 65535)
        .Value("N")
        .ShowDefault();
    options
        .Add("--bind", bind_,
             "Serve this address of the machine to others, too, who must know a token, which is "
             "printed; without this only the machine itself is served")
        .Value("ADDRESS");
    options.AddFlag("--allow-control", feed_.allows_control,
                    "Let the page move the hands; without this they are only looked at");
    options.Add("--rate", feed_.rate_hz, "Readings of each hand in a second")
        .Within(5.0, 100.0)
        .Value("HZ")
        .ShowDefault();
    options
        .Add("--report-period", feed_.report_period,
             "Switch the reports of a tessel on, which its currents and temperatures come in, and "
             "off at the end; in the hand's unit")
        .Within(1, 65535)
        .Value("N");
  }

  int Run(Tool& tool) override {
    if (!bind_.empty() && !IsOneAddress(bind_))
      throw ToolError(kUsage, fmt::format("--bind: \"{}\" isn't one IPv4 or IPv6 address", bind_));
    Site site({bind_.empty() ? std::string() : NewSecret(), feed_.allows_control});
    HttpServer server(bind_.empty() ? kLoopback : bind_, port_,
                      [&site](const HttpRequest& request) { return site.Answer(request); });
    std::vector<std::unique_ptr<HandFeed>> feeds;  // which wake the server as long as they live
    OpenAll(tool, server, feeds);
    for (const auto& feed : feeds) site.Add(*feed);
    Announce(tool, server, site);
    return ServeUntilInterrupt(server, feeds);
  }

 private:
  void OpenAll(const Tool& tool, HttpServer& server,
               std::vector<std::unique_ptr<HandFeed>>& feeds) const {
    std::vector<OpenedHand> hands;
    for (const HandAddress& address : tool.Addresses()) hands.push_back(tool.Open(address));
    for (OpenedHand& hand : hands) {
      int alike = 0;
      int sharing = 0;
      for (const OpenedHand& other : hands) {
        alike += hand.address == other.address ? 1 : 0;
        sharing += ShareAdapter(hand.address, other.address) ? 1 : 0;
      }
      if (alike > 1) throw ToolError(kUsage, hand.address.ToString() + " is named more than once");
      FeedSettings settings = feed_;
      settings.number = feeds.size() + 1;
      settings.shares_adapter = sharing > 1;
      feeds.push_back(std::make_unique<HandFeed>(tool, std::move(hand), settings,
                                                 [&server] { server.Wake(); }));
    }
  }

  void Announce(const Tool& tool, const HttpServer& server, const Site& site) const {
    std::string url = "http://" + server.Host() + "/";
    if (!site.Token().empty()) url += "?token=" + site.Token();
    tool.Print(url + "\n");
    tool.PrintJson({{"url", url}, {"token", site.Token().empty() ? Json() : Json(site.Token())}});
    FlushStdout();
    if (!bind_.empty()) tool.Warn("what goes over the network is not encrypted");
  }

  static int ServeUntilInterrupt(HttpServer& server,
                                 const std::vector<std::unique_ptr<HandFeed>>& feeds) {
    {
      const ServingThread serving(server);
      const Interrupt interrupt;
      for (const auto& feed : feeds) feed->Start();
      while (!interrupt.WaitFor(std::chrono::hours(1))) {
      }
      // The interrupt goes first: a second Ctrl-C ends the program, should a link take its time.
    }
    // All begin to end before any is waited for.
    for (const auto& feed : feeds) feed->Stop();
    return kDone;
  }

  int port_ = 8017;
  std::string bind_;
  FeedSettings feed_;
};

}  // namespace

std::unique_ptr<Command> MakeServe(Options options) { return std::make_unique<Serve>(options); }

}  // namespace korvane_tool
