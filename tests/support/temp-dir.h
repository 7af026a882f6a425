// temp-dir.h: a temporary folder for one test, removed with everything in it when
// the test ends. Header-only so any test binary can use it.
#pragma once

#include <ftw.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "support/files.h"

class TempDir {
  public:
    TempDir() {
        const char* base = std::getenv("TMPDIR");
        std::string templ = std::string(base && *base ? base : "/tmp") + "/tarnbridge-test-XXXXXX";
        if (::mkdtemp(templ.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        m_path = templ;
    }
    ~TempDir() { ::nftw(m_path.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

    // Writes `content` to path()/name, replacing it.
    void write(const std::string& name, const std::string& content) const {
        WriteFile(m_path + "/" + name, content);
    }

  private:
    static int remove_entry(const char* path, const struct stat*, int, struct FTW*) {
        ::chmod(path, 0700);  // a test may have taken permissions away
        ::remove(path);
        return 0;
    }
    std::string m_path;
};
