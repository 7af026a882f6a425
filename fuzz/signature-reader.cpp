// Fuzzes the delta writer with arbitrary signature files: a fixed new file is diffed against
// them, and whatever delta comes out must be well-formed for the patch reader.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "delta/delta-file-reader.h"
#include "delta/file-reader.h"

namespace {

struct Workspace {
    Workspace() {
        char templ[] = "/tmp/tarnbridge-fuzz-signature-XXXXXX";
        if (::mkdtemp(templ) == nullptr) std::abort();
        dir = templ;
        // Repetitive content, so that signatures the fuzzer builds from it can match.
        std::string content;
        for (int i = 0; i < 300; ++i) content += "block " + std::to_string(i % 7) + " of text; ";
        write(path("new"), content + content);
        write(path("basis"), content);
    }
    ~Workspace() {
        for (const char* name : {"new", "basis", "sig", "delta", "out"})
            ::unlink(path(name).c_str());
        ::rmdir(dir.c_str());
    }
    std::string path(const char* name) const { return dir + "/" + name; }
    static void write(const std::string& path, const std::string& bytes) {
        FILE* f = std::fopen(path.c_str(), "wb");
        if (f == nullptr) std::abort();
        std::fwrite(bytes.data(), 1, bytes.size(), f);
        std::fclose(f);
    }
    std::string dir;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Workspace ws;
    std::string sig;
    if (size > 0 && (data[0] & 1) != 0) {
        sig.assign("\x72\x73\x01\x36", 4);
        sig.append(reinterpret_cast<const char*>(data) + 1, size - 1);
    } else {
        sig.assign(reinterpret_cast<const char*>(data), size);
    }
    Workspace::write(ws.path("sig"), sig);
    SimpleFileReader reader;
    reader.setFile(ws.path("new").c_str());
    reader.setDelta(ws.path("delta").c_str(), ws.path("sig").c_str());
    if (reader.readFile() != 0) return 0;
    // Copies may point anywhere the signature claimed, but the commands themselves must
    // read back to the end: a reader stop for a bad code or a cut would be a writer bug.
    DeltaFileReader patch;
    patch.setFile(ws.path("delta").c_str(), ws.path("basis").c_str());
    patch.setNewFile(ws.path("out").c_str());
    patch.readFile();
    if (patch.getPatchResult() == FileReader::ERROR_FILE_FORMAT) std::abort();
    return 0;
}
