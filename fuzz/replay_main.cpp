// Replays the committed inputs of a target: each file in the directory that is named. It fails when
// the target does, and when there is nothing to replay.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size);

int main(int argc, char** argv) {
    int replayed = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            std::cout << entry.path().filename().string() << std::endl;
            std::ifstream file(entry.path(), std::ios::binary);
            const std::string bytes((std::istreambuf_iterator<char>(file)),
                                    std::istreambuf_iterator<char>());
            if (!file) {
                std::cerr << "cannot be read\n";
                return 1;
            }
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                                   bytes.size());
            ++replayed;
        }
    }
    std::cout << replayed << " inputs replayed" << std::endl;
    return replayed > 0 ? 0 : 1;
}
