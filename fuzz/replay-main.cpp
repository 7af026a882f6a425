// replay-main.cpp: runs a fuzz target's entry point once over every file of the folders (or
// the files) named on the command line, as the normal build's test of its corpus. A crash,
// a sanitizer report or an abort inside the target fails the run; so does finding no input.
#include <dirent.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

// The files a command-line argument names: itself, or the plain files of the folder.
std::vector<std::string> inputs_of(const std::string& arg) {
    std::vector<std::string> out;
    DIR* dir = ::opendir(arg.c_str());
    if (dir == nullptr) return {arg};
    while (const dirent* e = ::readdir(dir))
        if (e->d_type == DT_REG) out.push_back(arg + "/" + e->d_name);
    ::closedir(dir);
    std::sort(out.begin(), out.end());
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        for (const std::string& path : inputs_of(argv[i])) {
            std::ifstream in(path, std::ios::binary);
            if (!in) {
                std::fprintf(stderr, "replay: cannot read %s\n", path.c_str());
                return 1;
            }
            const std::string bytes((std::istreambuf_iterator<char>(in)), {});
            std::printf("replay: %s (%zu bytes)\n", path.c_str(), bytes.size());
            std::fflush(stdout);
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
            ++count;
        }
    }
    if (count == 0) {
        std::fprintf(stderr, "replay: no input\n");
        return 1;
    }
    std::printf("replay: %zu inputs, no failure\n", count);
    return 0;
}
