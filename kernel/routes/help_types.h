#pragma once

#include <string>
#include <vector>

namespace ostrel::kernel::help {

struct Topic {
  std::string id;
  std::string title;
  std::string summary;
  std::string module;
  std::vector<std::string> keywords;
  std::vector<std::string> tags;
  std::string audience;
};

struct TopicContent {
  std::string title;
  std::string markdown;
  std::string html;
  std::vector<std::string> related;
  std::vector<std::string> prerequisites;
  std::string source;
  std::string path;
  std::string module;
};

struct DynamicQuery {
  std::string question;
  std::string user_id;
  std::string tenant_id;
  std::vector<std::string> context_tags;
};

// One module's answer to a free question; empty() means it has nothing to say.
struct DynamicAnswer {
  std::string module;
  std::string summary;
  std::string markdown;
  std::vector<std::string> related;
  bool empty() const { return summary.empty() && markdown.empty(); }
};

}  // namespace ostrel::kernel::help
