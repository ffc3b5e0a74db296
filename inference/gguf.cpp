#include "inference/gguf.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace ostrel::inference::gguf {
namespace {

constexpr std::uint64_t kMaxTensors = 16777216;
constexpr std::uint64_t kMaxKeys = 1048576;
constexpr std::uint64_t kMaxStringLength = 16777216;
constexpr std::uint64_t kMaxArrayReadElements = 64;

enum ValueType : std::uint32_t {
  kU8 = 0,
  kI8 = 1,
  kU16 = 2,
  kI16 = 3,
  kU32 = 4,
  kI32 = 5,
  kF32 = 6,
  kBool = 7,
  kString = 8,
  kArray = 9,
  kU64 = 10,
  kI64 = 11,
  kF64 = 12,
};

// Block size (elements) and block bytes of each ggml type, by number.
struct TypeLayout {
  const char* name;
  std::uint32_t block;
  std::uint32_t bytes;
};
constexpr TypeLayout kTypes[] = {
    {"F32", 1, 4},        {"F16", 1, 2},       {"Q4_0", 32, 18},     {"Q4_1", 32, 20},
    {nullptr, 0, 0},      {nullptr, 0, 0},     {"Q5_0", 32, 22},     {"Q5_1", 32, 24},
    {"Q8_0", 32, 34},     {"Q8_1", 32, 36},    {"Q2_K", 256, 84},    {"Q3_K", 256, 110},
    {"Q4_K", 256, 144},   {"Q5_K", 256, 176},  {"Q6_K", 256, 210},   {"Q8_K", 256, 292},
    {"IQ2_XXS", 256, 66}, {"IQ2_XS", 256, 74}, {"IQ3_XXS", 256, 98}, {"IQ1_S", 256, 50},
    {"IQ4_NL", 32, 18},   {"IQ3_S", 256, 110}, {"IQ2_S", 256, 82},   {"IQ4_XS", 256, 136},
    {"I8", 1, 1},         {"I16", 1, 2},       {"I32", 1, 4},        {"I64", 1, 8},
    {"F64", 1, 8},        {"IQ1_M", 256, 56},  {"BF16", 1, 2},
};

std::uint64_t saturating_mul(std::uint64_t a, std::uint64_t b) {
  if (a != 0 && b > UINT64_MAX / a) return UINT64_MAX;
  return a * b;
}

std::uint64_t tensor_bytes(const TensorInfo& t) {
  if (t.dtype >= std::size(kTypes) || !kTypes[t.dtype].name) return 0;
  std::uint64_t elements = 1;
  for (std::uint32_t i = 0; i < t.n_dims; ++i) elements = saturating_mul(elements, t.shape[i]);
  const TypeLayout& l = kTypes[t.dtype];
  return saturating_mul((elements + l.block - 1) / l.block, l.bytes);
}

}  // namespace

const char* dtype_name(std::uint32_t dtype) {
  if (dtype < std::size(kTypes) && kTypes[dtype].name) return kTypes[dtype].name;
  return "unknown";
}

struct GGUFFile::Cursor {
  const unsigned char* base;
  std::uint64_t pos;
  std::uint64_t size;

  bool read(void* dst, std::uint64_t n) {
    if (n > size - pos) return false;
    std::memcpy(dst, base + pos, n);
    pos += n;
    return true;
  }
  bool skip(std::uint64_t n) {
    if (n > size - pos) return false;
    pos += n;
    return true;
  }
  template <typename T>
  bool get(T& v) {
    return read(&v, sizeof v);
  }
  // A u64 length then that many bytes.
  bool string(std::string& out) {
    std::uint64_t len = 0;
    if (!get(len) || len > kMaxStringLength || len > size - pos) return false;
    out.assign(reinterpret_cast<const char*>(base + pos), len);
    pos += len;
    return true;
  }
};

GGUFFile::~GGUFFile() { close(); }

void GGUFFile::close() {
  if (base_) ::munmap(const_cast<unsigned char*>(base_), size_);
  if (fd_ >= 0) ::close(fd_);
  base_ = nullptr;
  fd_ = -1;
  size_ = 0;
}

bool GGUFFile::open(const std::string& path, std::string& error) {
  close();
  version = 0;
  tensor_count = kv_count = 0;
  metadata.clear();
  architecture.clear();
  alignment = 32;
  parameter_count = context_length = embedding_length = block_count = 0;
  tensors.clear();
  data_offset = 0;
  fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd_ < 0) {
    error = "open: " + std::string(std::strerror(errno));
    return false;
  }
  struct stat st {};
  if (::fstat(fd_, &st) != 0) {
    error = "fstat: " + std::string(std::strerror(errno));
    close();
    return false;
  }
  if (st.st_size <= 23) {
    error = "file too small to be GGUF";
    close();
    return false;
  }
  void* map = ::mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE, fd_, 0);
  if (map == MAP_FAILED) {
    error = "mmap: " + std::string(std::strerror(errno));
    close();
    return false;
  }
  base_ = static_cast<const unsigned char*>(map);
  size_ = static_cast<std::uint64_t>(st.st_size);
  if (!parse_(error)) {
    close();
    return false;
  }
  return true;
}

bool GGUFFile::read_scalar_(Cursor& c, std::uint32_t type, std::string& out) {
  char buf[64];
  switch (type) {
    case kU8: {
      std::uint8_t v;
      if (!c.get(v)) return false;
      out = std::to_string(v);
      return true;
    }
    case kI8: {
      std::int8_t v;
      if (!c.get(v)) return false;
      out = std::to_string(v);
      return true;
    }
    case kU16: {
      std::uint16_t v;
      if (!c.get(v)) return false;
      out = std::to_string(v);
      return true;
    }
    case kI16: {
      std::int16_t v;
      if (!c.get(v)) return false;
      out = std::to_string(v);
      return true;
    }
    case kU32: {
      std::uint32_t v;
      if (!c.get(v)) return false;
      out = std::to_string(v);
      return true;
    }
    case kI32: {
      std::int32_t v;
      if (!c.get(v)) return false;
      out = std::to_string(v);
      return true;
    }
    case kU64: {
      std::uint64_t v;
      if (!c.get(v)) return false;
      out = std::to_string(v);
      return true;
    }
    case kI64: {
      std::int64_t v;
      if (!c.get(v)) return false;
      out = std::to_string(v);
      return true;
    }
    case kF32: {
      float v;
      if (!c.get(v)) return false;
      std::snprintf(buf, sizeof buf, "%f", static_cast<double>(v));
      out = buf;
      return true;
    }
    case kF64: {
      double v;
      if (!c.get(v)) return false;
      std::snprintf(buf, sizeof buf, "%f", v);
      out = buf;
      return true;
    }
    case kBool: {
      std::uint8_t v;
      if (!c.get(v)) return false;
      out = v ? "true" : "false";
      return true;
    }
    case kString:
      return c.string(out);
    default:
      return false;
  }
}

bool GGUFFile::skip_value_(Cursor& c, std::uint32_t type) {
  switch (type) {
    case kU8:
    case kI8:
    case kBool:
      return c.skip(1);
    case kU16:
    case kI16:
      return c.skip(2);
    case kU32:
    case kI32:
    case kF32:
      return c.skip(4);
    case kU64:
    case kI64:
    case kF64:
      return c.skip(8);
    case kString: {
      std::uint64_t len = 0;
      return c.get(len) && c.skip(len);
    }
    case kArray: {
      std::uint32_t elem = 0;
      std::uint64_t count = 0;
      // Nested arrays are refused: they would let a file drive the recursion.
      if (!c.get(elem) || !c.get(count) || elem > kF64 || elem == kArray) return false;
      // Fixed-size elements are skipped in one step (bounded by what is left).
      std::uint64_t fixed = elem == kU8 || elem == kI8 || elem == kBool    ? 1
                            : elem == kU16 || elem == kI16                 ? 2
                            : elem == kU32 || elem == kI32 || elem == kF32 ? 4
                            : elem == kU64 || elem == kI64 || elem == kF64 ? 8
                                                                           : 0;
      if (fixed) return count <= (c.size - c.pos) / fixed && c.skip(count * fixed);
      for (std::uint64_t i = 0; i < count; ++i) {
        if (!skip_value_(c, elem)) return false;
      }
      return true;
    }
    default:
      return false;
  }
}

bool GGUFFile::parse_(std::string& error) {
  Cursor c{base_, 0, size_};
  char magic[4];
  c.read(magic, 4);
  if (std::memcmp(magic, "GGUF", 4) != 0) {
    error = "bad magic (not a GGUF file)";
    return false;
  }
  if (!c.get(version)) {
    error = "version truncated";
    return false;
  }
  if (version != 2 && version != 3) {
    error = "unsupported GGUF version " + std::to_string(version);
    return false;
  }
  if (!c.get(tensor_count)) {
    error = "tensor count truncated";
    return false;
  }
  if (!c.get(kv_count)) {
    error = "kv count truncated";
    return false;
  }
  if (tensor_count > kMaxTensors || kv_count > kMaxKeys) {
    error = "implausible counts in header";
    return false;
  }

  for (std::uint64_t i = 0; i < kv_count; ++i) {
    std::string key;
    if (!c.string(key)) {
      error = "kv key " + std::to_string(i) + " truncated";
      return false;
    }
    std::uint32_t type = 0;
    if (!c.get(type)) {
      error = "kv type " + std::to_string(i) + " truncated";
      return false;
    }
    if (type > kF64) {
      error = "kv type " + std::to_string(i) + " invalid (" + std::to_string(type) + ")";
      return false;
    }
    std::string value;
    if (type == kArray) {
      std::uint32_t elem = 0;
      std::uint64_t count = 0;
      std::uint64_t header_pos = c.pos;
      if (!c.get(elem) || !c.get(count)) {
        error = "array header truncated";
        return false;
      }
      if (elem > kF64 || elem == kArray) {
        error = "kv '" + key + "': unsupported array element type " + std::to_string(elem);
        return false;
      }
      if (count <= kMaxArrayReadElements) {
        value = "[";
        for (std::uint64_t k = 0; k < count; ++k) {
          std::string item;
          if (!read_scalar_(c, elem, item)) {
            error = "array element truncated";
            return false;
          }
          value += (k ? ", " : "") + item;
        }
        value += "]";
      } else {
        c.pos = header_pos;
        if (!skip_value_(c, kArray)) {
          error = "array element truncated";
          return false;
        }
        value = "[array len=" + std::to_string(count) + " type=" + std::to_string(elem) + "]";
      }
    } else if (!read_scalar_(c, type, value)) {
      error = "value for '" + key + "' truncated";
      return false;
    }
    metadata[key] = value;
  }

  auto number = [&](const std::string& key) -> std::uint64_t {
    auto it = metadata.find(key);
    if (it == metadata.end()) return 0;
    return std::strtoull(it->second.c_str(), nullptr, 10);
  };
  if (auto it = metadata.find("general.architecture"); it != metadata.end()) {
    architecture = it->second;
  }
  std::uint64_t declared_alignment = number("general.alignment");
  alignment = declared_alignment ? declared_alignment : 32;
  if (!architecture.empty()) {
    context_length = number(architecture + ".context_length");
    embedding_length = number(architecture + ".embedding_length");
    block_count = number(architecture + ".block_count");
  }

  std::uint64_t summed_parameters = 0;
  tensors.reserve(std::min<std::uint64_t>(tensor_count, 65536));
  for (std::uint64_t i = 0; i < tensor_count; ++i) {
    TensorInfo t;
    if (!c.string(t.name)) {
      error = "tensor " + std::to_string(i) + " name truncated";
      return false;
    }
    if (!c.get(t.n_dims)) {
      error = "tensor n_dims truncated";
      return false;
    }
    if (t.n_dims > 8) {
      error = "implausible tensor n_dims";
      return false;
    }
    std::uint64_t elements = 1;
    for (std::uint32_t d = 0; d < t.n_dims; ++d) {
      if (!c.get(t.shape[d])) {
        error = "tensor shape truncated";
        return false;
      }
      elements = saturating_mul(elements, t.shape[d]);
    }
    if (!c.get(t.dtype)) {
      error = "tensor dtype truncated";
      return false;
    }
    if (!c.get(t.offset)) {
      error = "tensor offset truncated";
      return false;
    }
    t.bytes = tensor_bytes(t);
    summed_parameters += elements;
    tensors.push_back(std::move(t));
  }
  data_offset = (c.pos + alignment - 1) / alignment * alignment;
  std::uint64_t declared_parameters = number("general.parameter_count");
  parameter_count = declared_parameters ? declared_parameters : summed_parameters;
  std::stable_sort(tensors.begin(), tensors.end(),
                   [](const TensorInfo& a, const TensorInfo& b) { return a.offset < b.offset; });
  return true;
}

}  // namespace ostrel::inference::gguf
