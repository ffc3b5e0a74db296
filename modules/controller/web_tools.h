#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "modules/controller/address_guard.h"

// The web tools the tool loop offers models: fetch one page as text, and
// search through a configured search service (a SearXNG-compatible JSON API).
namespace ostrel::controller {

class WebTools {
 public:
  struct Answer {
    nlohmann::json body;
    int status = 200;
  };
  // `search_url` empty: search answers 501. Private, loopback and link-local
  // addresses are refused unless `allow_private`.
  void configure(std::string search_url, bool allow_private);
  Answer fetch(const std::string& url) const;
  Answer search(const std::string& query, int max_results) const;

 private:
  std::string search_url_;
  AddressGuard fetch_guard_;   // inside addresses only with allow_private
  AddressGuard search_guard_;  // the configured service, wherever it is
};

// Visible text of an HTML page (scripts, styles and tags removed, entities
// for the common characters decoded, white space collapsed).
std::string html_to_text(const std::string& html, std::string* title = nullptr);

}  // namespace ostrel::controller
