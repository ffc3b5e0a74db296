#pragma once

#include <cstdio>
#include <functional>
#include <optional>
#include <string>

#include "kernel/kernel_config.h"

namespace ostrel::kernel::cli {

enum class Action { run, list_modules, version, exit };

struct ParseOutcome {
  Action action = Action::run;
  int exit_status = 0;  // for Action::exit
  KernelConfig config;
};

// The value of an environment variable when it is set (perhaps empty).
using EnvLookup = std::function<std::optional<std::string>(const char*)>;

// Turns the environment and the command line into a KernelConfig. Messages
// (usage, unknown option, bad --auth) go to `err`; nothing else is printed.
ParseOutcome parse(int argc, const char* const* argv, const EnvLookup& env, std::FILE* err);

// The usage text with the program name substituted.
void print_usage(const char* argv0, std::FILE* err);

}  // namespace ostrel::kernel::cli
