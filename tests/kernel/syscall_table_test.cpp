#include "kernel/syscall_table.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <atomic>
#include <thread>

#include "kernel/syscall_access.h"

namespace ostrel::kernel {
namespace {

const identity::SourceCode kOwner{0x25, 0x01};

TEST(SyscallTable, FirstRegistrationWinsAndNameSpacesAreSeparate) {
  SyscallTable t;
  EXPECT_TRUE(t.register_syscall(kOwner, "x", [](std::string_view) {
    return SyscallResult{0, "{\"who\":\"first\"}"};
  }));
  EXPECT_FALSE(t.register_syscall(kOwner, "x", [](std::string_view) {
    return SyscallResult{0, "{\"who\":\"second\"}"};
  }));
  EXPECT_EQ(t.call(kOwner, "x", "{}").body, "{\"who\":\"first\"}");

  EXPECT_TRUE(t.register_streaming_syscall(kOwner, "x", [](std::string_view, SyscallEmit emit) {
    emit("a");
    emit("b");
    return 0;
  }));
  EXPECT_TRUE(t.has("x"));
  EXPECT_TRUE(t.has_streaming("x"));
  EXPECT_FALSE(t.has("y"));
  EXPECT_EQ(t.list().size(), 2u);

  std::string chunks;
  EXPECT_EQ(t.call_streaming(kOwner, "x", "{}",
                             [&](std::string_view c) {
                               chunks += c;
                               return true;
                             }),
            0);
  EXPECT_EQ(chunks, "ab");
}

TEST(SyscallTable, UnknownNamesAndThrowingHandlers) {
  SyscallTable t;
  SyscallResult r = t.call(kOwner, "nope", "{}");
  EXPECT_EQ(r.status, -1);
  EXPECT_EQ(r.body, "{\"error\":\"not_found\"}");
  bool called = false;
  EXPECT_EQ(t.call_streaming(kOwner, "nope", "{}",
                             [&](std::string_view) {
                               called = true;
                               return true;
                             }),
            -1);
  EXPECT_FALSE(called);

  t.register_syscall(kOwner, "throws", [](std::string_view) -> SyscallResult {
    throw std::runtime_error("handler failed");
  });
  EXPECT_THROW(t.call(kOwner, "throws", "{}"), std::runtime_error);
  // The table is still usable: the lock was not held while the handler ran.
  EXPECT_TRUE(t.register_syscall(kOwner, "after", [](std::string_view) {
    return SyscallResult{0, "{}"};
  }));
  EXPECT_EQ(t.call(kOwner, "after", "").status, 0);
}

TEST(SyscallTable, StreamingStopsWhenConsumerGoesAway) {
  SyscallTable t;
  std::atomic<int> produced{0};
  t.register_streaming_syscall(kOwner, "s", [&](std::string_view, SyscallEmit emit) {
    for (int i = 0; i < 100; ++i) {
      ++produced;
      if (!emit(std::to_string(i))) return -2;
    }
    return 0;
  });
  int received = 0;
  int status =
      t.call_streaming(kOwner, "s", "{}", [&](std::string_view) { return ++received < 3; });
  EXPECT_EQ(status, -2);
  EXPECT_EQ(received, 3);
  EXPECT_EQ(produced.load(), 3);
}

TEST(SyscallTable, HandlersMayCallAndRegisterReentrantly) {
  SyscallTable t;
  t.register_syscall(kOwner, "leaf", [](std::string_view args) {
    return SyscallResult{0, std::string(args)};
  });
  t.register_syscall(kOwner, "outer", [&t](std::string_view args) {
    // Registering from inside a handler takes the lock exclusively: it would
    // deadlock if call() still held it.
    t.register_syscall(kOwner, "late", [](std::string_view) { return SyscallResult{0, "1"}; });
    return t.call(kOwner, "leaf", args);
  });
  EXPECT_EQ(t.call(kOwner, "outer", "{\"n\":1}").body, "{\"n\":1}");
  EXPECT_TRUE(t.has("late"));

  // Many threads calling nested syscalls while others register new names.
  std::atomic<int> ok{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 6; ++i) {
    threads.emplace_back([&, i] {
      for (int j = 0; j < 500; ++j) {
        if (i % 2 == 0) {
          if (t.call(kOwner, "outer", "x").body == "x") ++ok;
        } else {
          t.register_syscall(kOwner, "n" + std::to_string(i) + "." + std::to_string(j),
                             [](std::string_view) {
                               return SyscallResult{0, "{}"};
                             });
        }
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(ok.load(), 3 * 500);
  EXPECT_EQ(t.list().size(), 3u + 3 * 500);
}

// Who may run a syscall from outside is what its registration declared;
// a registration that declared nothing is for administrators.
TEST(SyscallTable, AccessIsDeclaredWithTheRegistration) {
  SyscallTable t;
  auto noop = [](std::string_view) { return SyscallResult{0, "{}"}; };
  t.register_syscall(kOwner, "m.admin", noop);
  t.register_syscall(kOwner, "m.open", noop, SyscallAccess::open());
  t.register_syscall(kOwner, "m.read", noop, SyscallAccess::tenant("m.read"));
  t.register_streaming_syscall(
      kOwner, "m.stream", [](std::string_view, SyscallEmit) { return 0; },
      SyscallAccess::scoped("m.read"));

  Request viewer;
  viewer.auth_source = "capability";
  viewer.tenant = "acme";
  viewer.scopes = {"m.read"};
  Request admin = viewer;
  admin.tenant.clear();
  admin.scopes = {"admin.*"};
  auto allowed = [&t](const Request& who, const char* name, nlohmann::json& args) {
    Response res;
    const bool ok = authorize_syscall(t, who, name, args, res);
    EXPECT_EQ(ok, res.body.empty()) << name << " " << res.body;
    return ok;
  };
  nlohmann::json args = nlohmann::json::object();
  EXPECT_FALSE(allowed(viewer, "m.admin", args));
  EXPECT_FALSE(allowed(viewer, "never.registered", args));
  EXPECT_TRUE(allowed(admin, "m.admin", args));
  EXPECT_TRUE(allowed(viewer, "m.open", args));
  EXPECT_TRUE(allowed(viewer, "m.stream", args));
  // A tenant-bound caller acts for its own tenant only.
  EXPECT_TRUE(allowed(viewer, "m.read", args));
  EXPECT_EQ(args["tenant"], "acme");
  nlohmann::json other = {{"tenant", "globex"}};
  EXPECT_FALSE(allowed(viewer, "m.read", other));
  Request unscoped = viewer;
  unscoped.scopes = {"m.write"};
  EXPECT_FALSE(allowed(unscoped, "m.read", args));
  EXPECT_EQ(t.access("m.read").scope, "m.read");
  EXPECT_EQ(t.access("never.registered").kind, SyscallAccess::Kind::admin);
}

}  // namespace
}  // namespace ostrel::kernel
