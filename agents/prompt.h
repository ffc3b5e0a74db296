#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "agents/agent_sessions.h"

// The request an agent turn sends to the model.
namespace ostrel::agents {

// The system message that carries retrieved passages, numbered from 1;
// every hit gets its "citation_idx".
std::string knowledge_block(nlohmann::json& hits);

// {"model", "messages"}: the system texts (in order, empty ones left out),
// then the turns in order. Written directly: turns are copied, never
// re-parsed.
std::string chat_request(const std::string& model, const std::vector<std::string>& system,
                         const std::vector<Message>& turns);

}  // namespace ostrel::agents
