// fault-fs.h: a FileSystem wrapper for tests. It forwards to the real file system
// and, on request, fails the Nth call of an operation, or the Nth operation of any
// kind, with a chosen error (a full disk, a refused rename), pretends a volume folds case
// or has another type, and reports other device numbers for a subtree. Header-only;
// install it for a scope with ScopedFileSystem.
#pragma once

#include <cctype>
#include <cerrno>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "platform/fs.h"

namespace tbtest {

enum class FsOp {
    kLstat,
    kStat,
    kOpenDir,
    kMkdir,
    kRemoveFile,
    kRemoveDir,
    kRenameReplace,
    kRenameNoReplace,
    kSetMtime,
    kTruncate,
    kOpen,
    kSyncDir,
    kVolumeInfo,
    kAccess,
    kTrash,
    kFileRead,
    kFileWrite,
    kFileSync,
    kFileClose,
    kFileSeek,
    kFileTruncate,
    kFileSize,
    kFileSetMode,
};

class FaultFileSystem : public platform::FileSystem {
  public:
    explicit FaultFileSystem(platform::FileSystem& inner = platform::default_file_system())
        : m_inner(inner) {}

    // The `nth` call of `op` from now on (1 is the next) fails with `err`; with
    // `sticky`, every call after it fails too.
    void FailNth(FsOp op, int nth, int err, bool sticky = false) {
        std::lock_guard<std::mutex> g(m_mu);
        m_rules[op] = Rule{m_calls[op] + nth, err, sticky};
    }
    void Heal(FsOp op) {
        std::lock_guard<std::mutex> g(m_mu);
        m_rules.erase(op);
    }
    // The `nth` operation of any kind from now on (1 is the next) fails with `err`.
    void FailNthOfAll(int nth, int err) {
        std::lock_guard<std::mutex> g(m_mu);
        m_any = Rule{m_total + nth, err, false};
    }
    void HealAll() {
        std::lock_guard<std::mutex> g(m_mu);
        m_rules.clear();
        m_any.reset();
    }
    // Operations of every kind so far, and how many of them were made to fail.
    int TotalCalls() {
        std::lock_guard<std::mutex> g(m_mu);
        return m_total;
    }
    int Failed() {
        std::lock_guard<std::mutex> g(m_mu);
        return m_failed;
    }
    int Calls(FsOp op) {
        std::lock_guard<std::mutex> g(m_mu);
        return m_calls[op];
    }
    // Pretends every volume folds case: lookups find names that differ only in
    // (ASCII) case, and volume_info says so.
    void ForceCaseFolding(bool on) { m_fold = on; }
    // Pretends every volume is of this kind.
    void ForceVolume(const platform::VolumeInfo& vol) { m_volume = vol; }
    // lstat and stat of `prefix` and everything below it report `device`.
    void FakeDevice(const std::string& prefix, uint64_t device) {
        m_device_prefix = prefix;
        m_device = device;
    }

    int lstat(const char* path, platform::NodeInfo& out, int* err) override {
        if (Check(FsOp::kLstat, err)) return -1;
        int rc = m_inner.lstat(Resolve(path).c_str(), out, err);
        if (rc == 0) Redevice(path, out);
        return rc;
    }
    int stat(const char* path, platform::NodeInfo& out, int* err) override {
        if (Check(FsOp::kStat, err)) return -1;
        int rc = m_inner.stat(Resolve(path).c_str(), out, err);
        if (rc == 0) Redevice(path, out);
        return rc;
    }
    int open_dir(const char* path, bool no_follow, std::unique_ptr<platform::DirReader>& out,
                 int* err) override {
        if (Check(FsOp::kOpenDir, err)) return -1;
        return m_inner.open_dir(Resolve(path).c_str(), no_follow, out, err);
    }
    int mkdir(const char* path, uint32_t mode, int* err) override {
        if (Check(FsOp::kMkdir, err)) return -1;
        return m_inner.mkdir(path, mode, err);
    }
    int remove_file(const char* path, int* err) override {
        if (Check(FsOp::kRemoveFile, err)) return -1;
        return m_inner.remove_file(Resolve(path).c_str(), err);
    }
    int remove_dir(const char* path, int* err) override {
        if (Check(FsOp::kRemoveDir, err)) return -1;
        return m_inner.remove_dir(Resolve(path).c_str(), err);
    }
    int rename_replace(const char* from, const char* to, int* err) override {
        if (Check(FsOp::kRenameReplace, err)) return -1;
        return m_inner.rename_replace(Resolve(from).c_str(), to, err);
    }
    int rename_noreplace(const char* from, const char* to, int* err) override {
        if (Check(FsOp::kRenameNoReplace, err)) return -1;
        return m_inner.rename_noreplace(Resolve(from).c_str(), to, err);
    }
    int set_mtime(const char* path, int64_t mtime, int* err) override {
        if (Check(FsOp::kSetMtime, err)) return -1;
        return m_inner.set_mtime(Resolve(path).c_str(), mtime, err);
    }
    int truncate(const char* path, uint64_t size, int* err) override {
        if (Check(FsOp::kTruncate, err)) return -1;
        return m_inner.truncate(Resolve(path).c_str(), size, err);
    }
    int open(const char* path, int flags, std::unique_ptr<platform::File>& out, int* err) override {
        if (Check(FsOp::kOpen, err)) return -1;
        std::unique_ptr<platform::File> real;
        if (m_inner.open(Resolve(path).c_str(), flags, real, err) != 0) return -1;
        out = std::make_unique<FaultFile>(*this, std::move(real));
        return 0;
    }
    int sync_dir(const char* path, int* err) override {
        if (Check(FsOp::kSyncDir, err)) return -1;
        return m_inner.sync_dir(Resolve(path).c_str(), err);
    }
    int volume_info(const char* path, platform::VolumeInfo& out, int* err) override {
        if (Check(FsOp::kVolumeInfo, err)) return -1;
        if (m_inner.volume_info(Resolve(path).c_str(), out, err) != 0) return -1;
        if (m_volume) out = *m_volume;
        if (m_fold) out.folds_case = true;
        return 0;
    }
    int access(const char* path, int how, int* err) override {
        if (Check(FsOp::kAccess, err)) return -1;
        return m_inner.access(Resolve(path).c_str(), how, err);
    }
    int move_to_trash(const char* path, int* err) override {
        if (Check(FsOp::kTrash, err)) return -1;
        return m_inner.move_to_trash(path, err);
    }

  private:
    struct Rule {
        int at;  // the call number that fails first
        int err;
        bool sticky;
        bool Hits(int n) const { return n == at || (sticky && n > at); }
    };

    class FaultFile : public platform::File {
      public:
        FaultFile(FaultFileSystem& fs, std::unique_ptr<platform::File> real)
            : m_fs(fs), m_real(std::move(real)) {}
        int64_t read(void* buf, size_t n, int* err) override {
            if (m_fs.Check(FsOp::kFileRead, err)) return -1;
            return m_real->read(buf, n, err);
        }
        int64_t write(const void* buf, size_t n, int* err) override {
            if (m_fs.Check(FsOp::kFileWrite, err)) return -1;
            return m_real->write(buf, n, err);
        }
        int64_t seek(int64_t offset, int* err) override {
            if (m_fs.Check(FsOp::kFileSeek, err)) return -1;
            return m_real->seek(offset, err);
        }
        int truncate(uint64_t size, int* err) override {
            if (m_fs.Check(FsOp::kFileTruncate, err)) return -1;
            return m_real->truncate(size, err);
        }
        int size(uint64_t& out, int* err) override {
            if (m_fs.Check(FsOp::kFileSize, err)) return -1;
            return m_real->size(out, err);
        }
        int set_mode(uint32_t mode, int* err) override {
            if (m_fs.Check(FsOp::kFileSetMode, err)) return -1;
            return m_real->set_mode(mode, err);
        }
        int sync(int* err) override {
            if (m_fs.Check(FsOp::kFileSync, err)) return -1;
            return m_real->sync(err);
        }
        int lock_conflict(bool for_write, int* err) override {
            return m_real->lock_conflict(for_write, err);
        }
        int close(int* err) override {
            if (m_fs.Check(FsOp::kFileClose, err)) {
                m_real->close(nullptr);
                return -1;
            }
            return m_real->close(err);
        }

      private:
        FaultFileSystem& m_fs;
        std::unique_ptr<platform::File> m_real;
    };

    // Counts the call and says whether it must fail.
    bool Check(FsOp op, int* err) {
        bool failing = false;
        int code = 0;
        {
            std::lock_guard<std::mutex> g(m_mu);
            int n = ++m_calls[op];
            ++m_total;
            auto rule = m_rules.find(op);
            if (rule != m_rules.end() && rule->second.Hits(n)) {
                failing = true;
                code = rule->second.err;
            } else if (m_any && m_any->Hits(m_total)) {
                failing = true;
                code = m_any->err;
            }
            if (failing) ++m_failed;
        }
        if (failing && err != nullptr) *err = code;
        return failing;
    }

    void Redevice(const char* path, platform::NodeInfo& out) const {
        if (m_device_prefix.empty()) return;
        std::string p(path);
        if (p == m_device_prefix || p.rfind(m_device_prefix + "/", 0) == 0) out.device = m_device;
    }

    static bool SameWithoutCase(const std::string& a, const std::string& b) {
        if (a.size() != b.size()) return false;
        for (size_t i = 0; i < a.size(); ++i)
            if (std::tolower(static_cast<unsigned char>(a[i])) !=
                std::tolower(static_cast<unsigned char>(b[i])))
                return false;
        return true;
    }

    // On a pretend folding volume, each element that is missing as spelled is
    // replaced by a listed name that differs only in case.
    std::string Resolve(const char* path) {
        std::string p(path);
        if (!m_fold) return p;
        std::string out = p[0] == '/' ? "/" : "";
        for (size_t pos = 0; pos <= p.size();) {
            size_t slash = p.find('/', pos);
            size_t end = slash == std::string::npos ? p.size() : slash;
            std::string name = p.substr(pos, end - pos);
            pos = end + 1;
            if (name.empty()) continue;
            std::string listed = Listed(out.empty() ? "." : out, name);
            out += (out.empty() || out == "/") ? listed : "/" + listed;
        }
        return out;
    }

    std::string Listed(const std::string& dir, const std::string& name) {
        platform::NodeInfo node;
        std::string exact = (dir == "/" ? "" : dir) + "/" + name;
        if (m_inner.lstat(exact.c_str(), node, nullptr) == 0) return name;
        std::unique_ptr<platform::DirReader> reader;
        if (m_inner.open_dir(dir.c_str(), false, reader, nullptr) != 0) return name;
        platform::DirItem item;
        while (reader->next(item, false, nullptr) > 0)
            if (SameWithoutCase(item.name, name)) return item.name;
        return name;
    }

    platform::FileSystem& m_inner;
    std::mutex m_mu;
    std::map<FsOp, int> m_calls;
    std::map<FsOp, Rule> m_rules;
    std::optional<Rule> m_any;
    int m_total = 0;
    int m_failed = 0;
    bool m_fold = false;
    std::optional<platform::VolumeInfo> m_volume;
    std::string m_device_prefix;
    uint64_t m_device = 0;
};

// Installs a file system for the life of a scope, then puts back what was there.
class ScopedFileSystem {
  public:
    explicit ScopedFileSystem(platform::FileSystem& fs)
        : m_previous(platform::install_file_system(&fs)) {}
    ~ScopedFileSystem() { platform::install_file_system(m_previous); }
    ScopedFileSystem(const ScopedFileSystem&) = delete;
    ScopedFileSystem& operator=(const ScopedFileSystem&) = delete;

  private:
    platform::FileSystem* m_previous;
};

}  // namespace tbtest
