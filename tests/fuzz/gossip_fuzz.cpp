// A member table another node (or anyone who reaches the gossip port) sends:
// parsed and merged into this node's table as the listener does, twice, so
// that entries already known are merged again.
#include <nlohmann/json.hpp>

#include "base/json.h"
#include "cluster/gossip_mesh.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static ostrel::cluster::gossip::GossipMesh mesh([] {
    ostrel::cluster::gossip::GossipMesh::Config c;
    c.self_id = "self";
    c.self_address = "127.0.0.1:7946";
    c.bind = "127.0.0.1:0";
    return c;
  }());
  const nlohmann::json body = ostrel::base::parse_json(ostrel::fuzz::as_text(data, size));
  if (body.is_discarded()) return 0;
  const nlohmann::json members =
      body.is_object() && body.contains("members") ? body["members"] : body;
  mesh.merge_json(members, "10.0.0.7");
  mesh.merge_json(members, "10.0.0.8");
  mesh.detect_failures();
  return 0;
}
