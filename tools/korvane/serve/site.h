#pragma once

#include <memory>
#include <string>
#include <vector>

#include "http_message.h"
#include "served_hand.h"

namespace korvane_tool {

struct SiteSettings {
  std::string token;  ///< What a client must know; empty where everybody on the machine may look.
  bool allows_control = false;
};

/// The page and the data behind it: what is answered to which request, and to whom.
class Site {
 public:
  explicit Site(SiteSettings settings);

  /// Hands are numbered in the order in which they come. Before the first request.
  void Add(ServedHand& hand) { hands_.push_back(&hand); }
  HttpAnswer Answer(const HttpRequest& request);
  const std::string& Token() const { return settings_.token; }

 private:
  HttpAnswer Answered(const HttpRequest& request);
  HttpAnswer Admission(const HttpRequest& request) const;
  bool IsAdmitted(const HttpRequest& request) const;
  HttpAnswer Hands() const;
  HttpAnswer Events(const HttpRequest& request, std::shared_ptr<const Newest> events) const;
  HttpAnswer OfHand(const HttpRequest& request, const std::string& what);
  HttpAnswer Change(const HttpRequest& request, const std::string& what, ServedHand& hand) const;
  void CheckChange(const HttpRequest& request) const;

  const SiteSettings settings_;
  std::vector<ServedHand*> hands_;
  const std::string session_;     ///< The cookie of those who knew the token.
  const std::string page_token_;  ///< Only a page of this origin can read it.
};

/// A file of the page, built into the program; nothing if there is none of that name.
struct PageFile {
  const char* path;
  const char* type;
  const unsigned char* bytes;
  std::size_t size;
};
const std::vector<PageFile>& PageFiles();

}  // namespace korvane_tool
