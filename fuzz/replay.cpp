// SPDX-License-Identifier: MIT
//
// In the place of the fuzzer where there is none: each input of the files and folders that
// are named, once. So what the fuzzer has found is part of every suite.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

std::vector<std::string> Files(int argc, char** argv)
{
    std::vector<std::string> files;
    for (int i = 1; i < argc; i++) {
        if (!std::filesystem::is_directory(argv[i])) {
            files.emplace_back(argv[i]);
            continue;
        }
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            files.push_back(entry.path().string());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::vector<uint8_t> Bytes(const std::string& name)
{
    std::ifstream file(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace

extern "C" int LLVMFuzzerRunDriver(int* argc, char*** argv,
                                   int (*test)(const uint8_t* data, size_t size))
{
    const std::vector<std::string> files = Files(*argc, *argv);
    for (const std::string& name : files) {
        // The last line says which one it was, should it be the last.
        std::fprintf(stderr, "%s\n", name.c_str());
        const std::vector<uint8_t> input = Bytes(name);
        test(input.data(), input.size());
    }
    std::fprintf(stderr, "%zu inputs\n", files.size());
    return files.empty() ? 1 : 0;
}
