// scoped-env.h: sets or clears one environment variable for the life of a test and
// puts the old value back after. Used to point the home trash and TMPDIR elsewhere.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>

class ScopedEnv {
  public:
    ScopedEnv(const char* name, const char* value) : m_name(name) {
        if (const char* old = std::getenv(name)) m_old = old;
        value != nullptr ? ::setenv(name, value, 1) : ::unsetenv(name);
    }
    ~ScopedEnv() { m_old ? ::setenv(m_name, m_old->c_str(), 1) : ::unsetenv(m_name); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

  private:
    const char* m_name;
    std::optional<std::string> m_old;
};
