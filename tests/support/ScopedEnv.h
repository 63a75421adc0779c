// Sets (or, with nullopt, unsets) an environment variable for a scope, and
// puts back what was there before.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace corvanth::test {

class cScopedEnv {
 public:
  cScopedEnv(char const* name, std::optional<std::string> const& value) : mName(name) {
    if (char const* old = std::getenv(name)) mOld = old;
    value ? ::setenv(name, value->c_str(), 1) : ::unsetenv(name);
  }
  ~cScopedEnv() { mOld ? ::setenv(mName.c_str(), mOld->c_str(), 1) : ::unsetenv(mName.c_str()); }
  cScopedEnv(cScopedEnv const&) = delete;
  cScopedEnv& operator=(cScopedEnv const&) = delete;

 private:
  std::string mName;
  std::optional<std::string> mOld;
};

}  // namespace corvanth::test
