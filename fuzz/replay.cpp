// Runs a fuzz target over each file of the folders that are given, and names it before.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "target.h"

int main(int argc, char **argv) {
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
            std::ifstream file(entry.path(), std::ios::binary);
            const std::string bytes{std::istreambuf_iterator<char>(file), {}};
            puts(entry.path().c_str());
            fflush(stdout);  // it is read after a crash
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
            ++count;
        }
    }
    printf("%d inputs\n", count);
    return count > 0 ? 0 : 1;
}
