// Fuzzes the patch reader with arbitrary delta files against a fixed basis, asking for every
// output at once: the new file, its hash, its signature and a reverse delta.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "delta/delta-file-reader.h"

namespace {

struct Workspace {
    Workspace() {
        char templ[] = "/tmp/tarnbridge-fuzz-patch-XXXXXX";
        if (::mkdtemp(templ) == nullptr) std::abort();
        dir = templ;
        std::string basis(10000, '\0');
        uint32_t x = 12345;
        for (char& c : basis) {
            x = x * 1103515245u + 12345u;
            c = static_cast<char>(x >> 24);
        }
        write(path("basis"), basis);
    }
    ~Workspace() {
        for (const char* name : {"basis", "delta", "new", "new.sig", "reverse"}) {
            ::unlink(path(name).c_str());
        }
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
    // An odd first byte puts the magic in front, so the commands get explored without the
    // fuzzer having to find the magic first.
    std::string delta;
    if (size > 0 && (data[0] & 1) != 0) {
        delta.assign("\x72\x73\x02\x36", 4);
        delta.append(reinterpret_cast<const char*>(data) + 1, size - 1);
    } else {
        delta.assign(reinterpret_cast<const char*>(data), size);
    }
    Workspace::write(ws.path("delta"), delta);
    DeltaFileReader reader;
    reader.setFile(ws.path("delta").c_str(), ws.path("basis").c_str());
    reader.setNewFile(ws.path("new").c_str());
    reader.setReverseDeltaFile(ws.path("reverse").c_str());
    ustring hash;
    reader.setHashString(hash);
    reader.setSignature(ws.path("new.sig").c_str(), 2048, 8);
    int result = reader.readFile();
    // A delta that ended properly must have given a reverse delta that restores the basis.
    if (result == 0 && reader.getPatchResult() == 0) {
        DeltaFileReader back;
        back.setFile(ws.path("reverse").c_str(), ws.path("new").c_str());
        back.setNewFile(ws.path("delta").c_str());
        if (back.readFile() != 0 || back.getPatchResult() != 0) std::abort();
    }
    return 0;
}
