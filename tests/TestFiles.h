// Scratch folders and whole-file reads and writes for tests that work with files.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

namespace sr::test {

// An empty folder of the build tree's test area, `area`/`name`, emptied if it existed.
inline std::filesystem::path freshDirectory(const std::string& area, const std::string& name) {
    const std::filesystem::path dir = std::filesystem::path(SR_TEST_TMP) / area / name;
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    return dir;
}

inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline std::filesystem::path writeFile(const std::filesystem::path& path, std::string_view bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), std::streamsize(bytes.size()));
    return path;
}

} // namespace sr::test
