#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "base/no_copy.h"

namespace ostrel::inference::gguf {

struct TensorInfo {
  std::string name;
  std::uint32_t n_dims = 0;
  std::uint64_t shape[8] = {};
  std::uint32_t dtype = 0;
  std::uint64_t offset = 0;  // relative to the data section
  std::uint64_t bytes = 0;   // from shape and type; 0 for an unknown type
};

// The published ggml name of a tensor type number, or "unknown".
const char* dtype_name(std::uint32_t dtype);

// A GGUF model file (versions 2 and 3) mapped read-only: header, metadata and
// tensor directory. Tensor data is never read, so only the header pages are
// touched. Not thread-safe; one owner.
class GGUFFile : private base::NoCopy {
 public:
  GGUFFile() = default;
  ~GGUFFile();

  // False with a reason on any problem; the object is then closed. Never throws.
  bool open(const std::string& path, std::string& error);
  void close();

  std::uint32_t version = 0;
  std::uint64_t tensor_count = 0;
  std::uint64_t kv_count = 0;
  std::map<std::string, std::string> metadata;  // every key, value rendered as text
  std::string architecture;
  std::uint64_t alignment = 32;
  std::uint64_t parameter_count = 0;
  std::uint64_t context_length = 0;
  std::uint64_t embedding_length = 0;
  std::uint64_t block_count = 0;
  std::vector<TensorInfo> tensors;  // sorted by offset
  std::uint64_t data_offset = 0;
  std::uint64_t file_size() const { return size_; }

 private:
  struct Cursor;
  bool read_scalar_(Cursor& c, std::uint32_t type, std::string& out);
  bool skip_value_(Cursor& c, std::uint32_t type);
  bool parse_(std::string& error);

  int fd_ = -1;
  const unsigned char* base_ = nullptr;
  std::uint64_t size_ = 0;
};

}  // namespace ostrel::inference::gguf
