// Files on disk a crash, a bad disk or a person can leave in any state:
// GGUF model headers, matrix-memory files (.qmm, .wal, .chk, each written as
// the node writes it and then changed) and every journal the node replays at
// boot (tenants, roles, signing keys, revocations, audit, vectors, agent
// sessions, dynamic tools). The first byte chooses the file; each must load
// or refuse, never crash.
#include <fstream>
#include <sstream>

#include "agents/agent_sessions.h"
#include "agents/dynamic_tools.h"
#include "base/logger.h"
#include "data/matrix_memory.h"
#include "data/vector_store.h"
#include "identity/audit_log.h"
#include "identity/capability_issuer.h"
#include "identity/rbac.h"
#include "identity/tenant_registry.h"
#include "inference/gguf.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

namespace fs = std::filesystem;
using ostrel::fuzz::put;

std::string read(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

ostrel::base::Logger quiet() { return ostrel::base::Logger("fuzz"); }

// A matrix memory as the node leaves it, its three files' bytes kept.
struct MemoryFiles {
  std::string path;
  std::string qmm, wal, chk;
  MemoryFiles() {
    const fs::path dir = ostrel::fuzz::scratch() / "memory-origin";
    ostrel::data::MatrixMemoryConfig c;
    c.id = "m1";
    c.tenant_id = "acme";
    c.user_id = "u1";
    c.domain = "physics";
    c.dimension = 8;
    c.rank = 4;
    ostrel::data::MatrixMemory m;
    if (!m.create(c, dir.string())) std::abort();
    const std::vector<float> k(8, 0.5f), v(8, 0.25f);
    m.store(k, v, 1.0f);
    m.checkpoint();
    m.store(v, k, 1.0f);
    path = m.config().file_path;
    qmm = read(path);
    wal = read(path + ".wal");
    chk = read(path + ".chk");
  }
};

// `base` with `patch` written over it from the offset patch[0] chooses.
std::string overwrite(std::string base, std::string_view patch) {
  if (patch.empty() || base.empty()) return std::string(patch);
  const std::size_t at = static_cast<unsigned char>(patch[0]) * 97 % base.size();
  patch.remove_prefix(1);
  base.replace(at, std::min(patch.size(), base.size() - at), patch);
  if (patch.size() > base.size() - at) base.append(patch.substr(base.size() - at));
  return base;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view bytes = ostrel::fuzz::as_text(data + 1, size - 1);
  const fs::path dir = ostrel::fuzz::scratch() / "case";
  std::error_code ec;
  fs::remove_all(dir, ec);
  fs::create_directories(dir);
  switch (data[0] % 12) {
    case 0: {
      put(dir / "model.gguf", bytes);
      ostrel::inference::gguf::GGUFFile f;
      std::string error;
      f.open((dir / "model.gguf").string(), error);
      break;
    }
    case 1:
    case 2:
    case 3: {
      static MemoryFiles origin;
      const fs::path file = dir / fs::path(origin.path).filename();
      const int which = data[0] % 12;
      put(file, which == 1 ? overwrite(origin.qmm, bytes) : origin.qmm);
      put(file.string() + ".wal", which == 2 ? overwrite(origin.wal, bytes) : origin.wal);
      put(file.string() + ".chk", which == 3 ? overwrite(origin.chk, bytes) : origin.chk);
      ostrel::data::MatrixMemory m;
      if (m.load(file.string())) m.recall(std::vector<float>(8, 0.5f));
      break;
    }
    case 4: {
      put(dir / "tenants.jsonl", bytes);
      ostrel::identity::TenantRegistry r(dir / "tenants.jsonl");
      r.replay_journal();
      r.list();
      break;
    }
    case 5: {
      put(dir / "rbac.jsonl", bytes);
      ostrel::identity::RBAC r(dir / "rbac.jsonl");
      r.replay_journal();
      r.effective_permissions("acme", "u1");
      break;
    }
    case 6:
    case 7: {
      static const std::string master = [] {
        ostrel::identity::CapabilityIssuer origin;
        std::string error;
        if (!origin.open(ostrel::fuzz::scratch() / "issuer-origin", error)) std::abort();
        return read(ostrel::fuzz::scratch() / "issuer-origin" / "master.key");
      }();
      put(dir / "master.key", master);
      put(dir / (data[0] % 12 == 6 ? "keys.jsonl" : "caps.jsonl"), bytes);
      ostrel::identity::CapabilityIssuer issuer;
      std::string error;
      if (issuer.open(dir, error)) {
        issuer.load_keys();
        issuer.load_revocations();
      }
      break;
    }
    case 8: {
      put(dir / "audit.jsonl", bytes);
      ostrel::identity::AuditLog log(dir / "audit.jsonl");
      log.replay_journal();
      log.verify();
      break;
    }
    case 9: {
      put(dir / "vectors" / "acme_docs.jsonl", bytes);
      ostrel::data::VectorStore store(dir / "vectors", quiet());
      store.search("acme", "docs", std::vector<float>(4, 0.5f), -1.0, 5);
      store.list("");
      break;
    }
    case 10: {
      put(dir / "sessions" / "s-0000000000000001.jsonl", bytes);
      ostrel::agents::AgentSessions sessions(dir / "sessions", quiet());
      sessions.load();
      break;
    }
    default: {
      put(dir / "tools.json", bytes);
      ostrel::agents::DynamicTools tools(dir / "tools.json");
      std::string error;
      if (tools.load(error)) tools.list();
      break;
    }
  }
  return 0;
}
