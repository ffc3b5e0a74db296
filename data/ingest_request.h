#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace ostrel::data {

// An ingest request as sent: each member present or not.
struct IngestRequest {
  std::optional<std::string> tenant;  // "tenant", else "tenant_id"
  std::optional<std::string> ns;      // "namespace", else "namespace_id"
  std::optional<std::string> text;
  std::optional<std::string> source;
  std::optional<std::string> model;  // "embedding_model"
  std::optional<std::int64_t> chunk_size;
  std::optional<std::int64_t> chunk_overlap;
  nlohmann::json metadata = nlohmann::json::object();
};

// Reads a request from its JSON text. A text that is not a JSON object reads
// as an empty request; a member of the wrong type is an error ("text must be
// a string", …). Documents of the usual shape are read without building a
// JSON tree (the document text is most of the request); anything else goes
// to the JSON parser, and both paths give the same result.
bool read_ingest_request(std::string_view text, IngestRequest& out, std::string& error);

// The same, from a parsed object (for callers that already hold one).
bool ingest_request_from_json(const nlohmann::json& body, IngestRequest& out, std::string& error);

}  // namespace ostrel::data
