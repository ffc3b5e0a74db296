#include "inference/ollama_backend.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/scripted_server.h"

namespace ostrel::inference {
namespace {

using testing::ScriptedServer;

// Lines that arrive in one read are marked as followed by more, so that a
// writer can send them together; the last of a read is not held back.
TEST(OllamaBackend, MarksChunksThatArrivedTogether) {
  auto line = [](const std::string& word, bool done) {
    return std::string("{\"model\":\"m\",\"message\":{\"role\":\"assistant\",\"content\":\"") +
           word + "\"},\"done\":" + (done ? "true,\"done_reason\":\"stop\"" : "false") + "}\n";
  };
  // Chunked, one line a chunk, as a model server streams: the first three
  // chunks arrive in one read, the last two in another.
  auto chunk = [](const std::string& data) {
    char size[16];
    std::snprintf(size, sizeof size, "%zx\r\n", data.size());
    return size + data + "\r\n";
  };
  ScriptedServer server;
  server.answers = {
      {{"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunk(line("a", false)) +
            chunk(line("b", false)) + chunk(line("c", false)),
        chunk(line("d", false)) + chunk(line("", true)) + "0\r\n\r\n"},
       false,
       3}};
  server.start();
  OllamaBackend backend("o", server.url());
  ChatRequest req;
  req.model = "m";
  req.messages = {Message{"user", "hi", "", "", ""}};
  std::vector<std::pair<std::string, bool>> seen;
  auto err = backend.stream(req, [&](const ChatChunk& c) {
    seen.emplace_back(c.delta, c.more_ready);
    server.piece_read();
    return true;
  });
  ASSERT_FALSE(err) << err->message;
  EXPECT_EQ(seen, (std::vector<std::pair<std::string, bool>>{
                      {"a", true}, {"b", true}, {"c", false}, {"d", true}, {"", false}}));
}

}  // namespace
}  // namespace ostrel::inference
