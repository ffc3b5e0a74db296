#pragma once

#include <memory>
#include <string>
#include <vector>

#include "clusterfs/chunk_store.h"

namespace ostrel::clusterfs {

struct NodeCapabilities {
  std::string node_id;
  std::vector<std::string> tags;
};

// An object target: somewhere chunks can be put and fetched.
class Ost {
 public:
  virtual ~Ost() = default;
  virtual std::string id() const = 0;
  virtual std::string node_id() const = 0;
  virtual NodeCapabilities capabilities() const = 0;
  virtual bool put(const std::string& chunk_id, const std::string& bytes, std::string& error) = 0;
  virtual bool get(const std::string& chunk_id, std::string& bytes, std::string& error) = 0;
  virtual bool has(const std::string& chunk_id) = 0;
  virtual bool remove(const std::string& chunk_id, std::string& error) = 0;
};

// The target on this node, forwarding to a chunk store it shares.
class LocalOst : public Ost {
 public:
  LocalOst(std::string node_id, std::vector<std::string> tags, std::shared_ptr<ChunkStore> store)
      : node_id_(std::move(node_id)), tags_(std::move(tags)), store_(std::move(store)) {}

  std::string id() const override { return node_id_ + "/ost0"; }
  std::string node_id() const override { return node_id_; }
  NodeCapabilities capabilities() const override { return {node_id_, tags_}; }
  // Stores `bytes`; refuses them when they do not hash to `chunk_id`.
  bool put(const std::string& chunk_id, const std::string& bytes, std::string& error) override;
  bool get(const std::string& chunk_id, std::string& bytes, std::string& error) override {
    return store_->get(chunk_id, bytes, error);
  }
  bool has(const std::string& chunk_id) override { return store_->has(chunk_id); }
  bool remove(const std::string& chunk_id, std::string& error) override {
    return store_->remove(chunk_id, error);
  }

 private:
  std::string node_id_;
  std::vector<std::string> tags_;
  std::shared_ptr<ChunkStore> store_;
};

}  // namespace ostrel::clusterfs
