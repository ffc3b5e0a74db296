// A module manifest as an operator (or anyone who can write modules.d/)
// leaves it: the YAML reader, the definition and its validation, and the
// settings it declares resolved with the defaults it gives.
#include <yaml-cpp/yaml.h>

#include "kernel/boot/config_view.h"
#include "kernel/boot/manifest.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(ostrel::fuzz::as_text(data, size));
  // As the loader reads a directory: a YAML syntax error leaves as the YAML
  // library's exception and lands among the failures; anything else must not.
  ostrel::kernel::module_loader::LoadResult r;
  try {
    r = ostrel::kernel::module_loader::load_from_string(text, "fuzz.module.yaml");
  } catch (const YAML::Exception&) {
    return 0;
  }
  if (!r.ok) return 0;
  ostrel::kernel::module_loader::validate(r.definition);
  unsigned applied = 0;
  ostrel::kernel::ConfigView view =
      ostrel::kernel::config_overlay::resolve(r.definition, {}, applied, nullptr);
  (void)view;
  return 0;
}
