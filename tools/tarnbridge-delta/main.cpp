// tarnbridge-delta: signatures, deltas, patches and MD4 hashes of files from the command line,
// with the same engine the daemon uses. Outputs are written under a temporary name in the
// target's folder and renamed into place only when complete.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "delta/delta-file-reader.h"
#include "delta/file-reader.h"
#include "delta/rs-constant.h"

namespace {

constexpr int EXIT_USAGE = 2;
constexpr int EXIT_INTERRUPTED = 130;

int g_abort = 0;

void onSignal(int) {
    std::atomic_ref<int>(g_abort).store(1, std::memory_order_relaxed);
}

void installSignalHandlers() {
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &action, nullptr);
}

void fail(const std::string& message) {
    std::fprintf(stderr, "tarnbridge-delta: %s\n", message.c_str());
}

int usage() {
    std::fprintf(stderr,
                 "usage: tarnbridge-delta signature BASIS SIGNATURE\n"
                 "       tarnbridge-delta delta [--realign] SIGNATURE NEWFILE DELTA\n"
                 "       tarnbridge-delta patch BASIS DELTA NEWFILE [REVERSE-DELTA]\n"
                 "       tarnbridge-delta hash FILE\n"
                 "Signatures use blocks of 2048 bytes and 8 bytes of MD4 per block.\n"
                 "--realign finds old blocks again after inserts and deletes, as the daemon\n"
                 "does with delta_realign = true; without it the delta is the daemon's default.\n");
    return EXIT_USAGE;
}

std::string quoted(const std::string& path) {
    return "'" + path + "'";
}

// An output file that appears under its final name only when commit() succeeds; until then
// it lives under a unique temporary name in the same folder, removed on destruction.
class PendingOutput {
  public:
    explicit PendingOutput(std::string path) : m_final(std::move(path)) {}
    ~PendingOutput() {
        if (!m_temp.empty()) ::unlink(m_temp.c_str());
    }
    PendingOutput(const PendingOutput&) = delete;
    PendingOutput& operator=(const PendingOutput&) = delete;

    bool create() {
        std::string templ = m_final + ".tmp-XXXXXX";
        int fd = ::mkstemp(templ.data());
        if (fd < 0) {
            fail("cannot create a file next to " + quoted(m_final) + ": " + std::strerror(errno));
            return false;
        }
        ::close(fd);
        m_temp = templ;
        return true;
    }

    bool commit() {
        mode_t mask = ::umask(0);
        ::umask(mask);
        ::chmod(m_temp.c_str(), 0666 & ~mask);
        if (::rename(m_temp.c_str(), m_final.c_str()) != 0) {
            fail("cannot rename the finished output to " + quoted(m_final) + ": " +
                 std::strerror(errno));
            return false;
        }
        m_temp.clear();
        return true;
    }

    const std::string& temp() const { return m_temp; }
    const std::string& final() const { return m_final; }

  private:
    std::string m_final;
    std::string m_temp;
};

// Opens `path` to check that it is a readable regular file; reads up to `length` bytes of
// its start into `head` when asked. Reports and returns false otherwise.
bool checkInput(const std::string& path, uint8_t* head = nullptr, size_t length = 0,
                size_t* got = nullptr) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        fail("cannot read " + quoted(path) + ": " + std::strerror(errno));
        return false;
    }
    struct stat st;
    bool ok = ::fstat(fd, &st) == 0 && !S_ISDIR(st.st_mode);
    if (!ok) fail("cannot read " + quoted(path) + ": " + std::strerror(ok ? errno : EISDIR));
    if (ok && head != nullptr) {
        ssize_t n = ::read(fd, head, length);
        ok = n >= 0;
        if (!ok) fail("cannot read " + quoted(path) + ": " + std::strerror(errno));
        *got = ok ? static_cast<size_t>(n) : 0;
    }
    ::close(fd);
    return ok;
}

bool checkSignature(const std::string& path) {
    uint8_t header[RSConstant::SIGNATURE_HEADER_SIZE];
    size_t got = 0;
    if (!checkInput(path, header, sizeof header, &got)) return false;
    if (got < sizeof header) {
        fail(quoted(path) + " is not a signature file: it is too short for the header");
        return false;
    }
    size_t block_size = 0;
    size_t hash_size = 0;
    switch (RSConstant::parseSignatureHeader(header, block_size, hash_size)) {
        case RSConstant::SIG_OK:
            return true;
        case RSConstant::SIG_BAD_MAGIC:
            fail(quoted(path) + " is not a signature file (wrong magic number)");
            return false;
        case RSConstant::SIG_BAD_BLOCK_SIZE:
            fail(quoted(path) + " is a malformed signature: its block size is 0");
            return false;
        case RSConstant::SIG_BAD_HASH_SIZE:
            fail(quoted(path) + " is a malformed signature: its hash size is not 1 to 16");
            return false;
    }
    return false;
}

bool checkDelta(const std::string& path) {
    uint8_t magic[RSConstant::DELTA_HEADER_SIZE];
    size_t got = 0;
    if (!checkInput(path, magic, sizeof magic, &got)) return false;
    if (got < sizeof magic || RSConstant::getBE32(magic) != RSConstant::MAGIC_DELTA) {
        fail(quoted(path) + " is not a delta file (wrong magic number)");
        return false;
    }
    return true;
}

// Turns a reader's result into the tool's exit status, with a message for failures.
int finish(int result, const std::string& what) {
    switch (result) {
        case 0:
            return 0;
        case FileReader::ERROR_ABORT:
            fail("interrupted; nothing was written");
            return EXIT_INTERRUPTED;
        case FileReader::ERROR_SYSTEM_CALL:
            fail("cannot read the input of " + what);
            return 1;
        case FileReader::ERROR_HANDLER_CALL:
            fail("cannot write " + what);
            return 1;
        default:
            fail(what + " failed with code " + std::to_string(result));
            return 1;
    }
}

int runSignature(const std::string& basis, const std::string& signature) {
    if (!checkInput(basis)) return 1;
    PendingOutput out(signature);
    if (!out.create()) return 1;
    SimpleFileReader reader;
    reader.setAbortFlag(&g_abort);
    reader.setFile(basis.c_str());
    reader.setSignature(out.temp().c_str(), RSConstant::DEFAULT_BLOCK_SIZE,
                        RSConstant::DEFAULT_HASH_SIZE);
    int status = finish(reader.readFile(), "signature " + quoted(signature));
    return status == 0 && !out.commit() ? 1 : status;
}

int runDelta(const std::string& signature, const std::string& newfile, const std::string& delta,
             DeltaMode mode) {
    if (!checkSignature(signature) || !checkInput(newfile)) return 1;
    PendingOutput out(delta);
    if (!out.create()) return 1;
    SimpleFileReader reader;
    reader.setAbortFlag(&g_abort);
    reader.setFile(newfile.c_str());
    reader.setDelta(out.temp().c_str(), signature.c_str(), mode);
    int status = finish(reader.readFile(), "delta " + quoted(delta));
    return status == 0 && !out.commit() ? 1 : status;
}

int runPatch(const std::string& basis, const std::string& delta, const std::string& newfile,
             const std::string& reverse) {
    if (!checkInput(basis) || !checkDelta(delta)) return 1;
    PendingOutput out(newfile);
    if (!out.create()) return 1;
    std::unique_ptr<PendingOutput> reverse_out;
    if (!reverse.empty()) {
        reverse_out = std::make_unique<PendingOutput>(reverse);
        if (!reverse_out->create()) return 1;
    }
    DeltaFileReader reader;
    reader.setAbortFlag(&g_abort);
    reader.setFile(delta.c_str(), basis.c_str());
    reader.setNewFile(out.temp().c_str());
    if (reverse_out) reader.setReverseDeltaFile(reverse_out->temp().c_str());
    int result = reader.readFile();
    int forward = reader.getPatchResult();
    if (result == 0 && forward != 0) {
        if (forward == FileReader::ERROR_ABORT) return finish(forward, "");
        if (forward == FileReader::ERROR_FILE_FORMAT) {
            fail(quoted(delta) + " is not a valid delta: it holds an unknown command");
        } else {
            fail(quoted(delta) + " is truncated or copies from beyond the end of " + quoted(basis));
        }
        return 1;
    }
    if (result == FileReader::ERROR_SYSTEM_CALL && reverse_out) {
        fail("cannot write reverse delta " + quoted(reverse));
        return 1;
    }
    int status = finish(result, "new file " + quoted(newfile));
    if (status != 0 || !out.commit()) return status != 0 ? status : 1;
    return reverse_out && !reverse_out->commit() ? 1 : 0;
}

int runHash(const std::string& file) {
    if (!checkInput(file)) return 1;
    SimpleFileReader reader;
    reader.setAbortFlag(&g_abort);
    reader.setFile(file.c_str());
    ustring hash;
    reader.setHashString(hash);
    int status = finish(reader.readFile(), "hash of " + quoted(file));
    if (status == 0) std::printf("%s\n", hash.c_str_utf8());
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty()) return usage();
    installSignalHandlers();
    const std::string& command = args[0];
    size_t operands = args.size() - 1;
    if (command == "signature" && operands == 2) return runSignature(args[1], args[2]);
    if (command == "delta") {
        bool realign = operands > 0 && args[1] == "--realign";
        if (operands != (realign ? 4u : 3u)) return usage();
        size_t at = realign ? 2 : 1;
        return runDelta(args[at], args[at + 1], args[at + 2],
                        realign ? DeltaMode::REALIGNED : DeltaMode::CHUNKED);
    }
    if (command == "patch" && (operands == 3 || operands == 4)) {
        return runPatch(args[1], args[2], args[3], operands == 4 ? args[4] : std::string());
    }
    if (command == "hash" && operands == 1) return runHash(args[1]);
    return usage();
}
