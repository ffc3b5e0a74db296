#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// The one check for names that reach the file system (tenants, namespaces,
// sessions, users, model and document files) and for identifiers clients
// choose. A name that passes can never leave the directory it is joined to.
namespace ostrel::base {

constexpr std::size_t kMaxNameLength = 128;
constexpr std::size_t kMaxTenantIdLength = 64;
constexpr std::size_t kMaxFilePathLength = 255;

// One path component: 1..max bytes of ASCII letters, digits and "._-:@+",
// not starting with '.' (so never "." or ".." and never hidden). False with
// a reason for the client.
bool safe_name(std::string_view name, std::string& error, std::size_t max = kMaxNameLength);

// A tenant id: 1..64 ASCII letters, digits, '_' and '-', starting with a
// letter or digit.
bool safe_tenant_id(std::string_view id, std::string& error);

// A tenant and a namespace that become two directory levels of a store
// (each a safe_name; the tenant at most 64 bytes). False with "invalid
// tenant: …" or "invalid namespace: …".
bool safe_scope(std::string_view tenant, std::string_view ns, std::string& error);

// A relative path of components separated by '/': each component valid UTF-8
// without control characters or '\', not empty, not starting with '.'; no
// leading '/'. For files whose names users choose (models, documents).
bool safe_file_path(std::string_view path, std::string& error,
                    std::size_t max = kMaxFilePathLength);

// An identifier that is not a path (request ids, backend ids, token ids):
// 1..max bytes of printable ASCII.
bool safe_id(std::string_view id, std::string& error, std::size_t max = kMaxNameLength);

}  // namespace ostrel::base
