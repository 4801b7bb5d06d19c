// SPDX-License-Identifier: MIT
#ifndef CARDDEV_TESTS_TEMP_FOLDER_H
#define CARDDEV_TESTS_TEMP_FOLDER_H

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include <stdlib.h>
#include <unistd.h>

// A folder that is gone, with its files, when the test is over.
class TempFolder {
public:
    TempFolder()
    {
        std::string name = (std::filesystem::temp_directory_path() / "carddev-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("cannot make a folder for temporary files");
        }
        path_ = name;
    }
    ~TempFolder() { std::filesystem::remove_all(path_); }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    std::string Path(const std::string& name) const { return path_ + "/" + name; }

    // A file of that many zero bytes, without blocks on the disk.
    std::string Sparse(const std::string& name, uint64_t bytes) const
    {
        const std::string path = Text(name, "");
        if (truncate64(path.c_str(), static_cast<off64_t>(bytes)) != 0) {
            throw std::runtime_error("cannot make " + path + " that long");
        }
        return path;
    }

    std::string Text(const std::string& name, const std::string& text) const
    {
        std::ofstream file(Path(name), std::ios::binary);
        file << text;
        if (!file.flush()) {
            throw std::runtime_error("cannot write " + Path(name));
        }
        return Path(name);
    }

private:
    std::string path_;
};

// `length` bytes of a file from `position` on; fewer where it ends.
inline std::string FileBytes(const std::string& path, uint64_t position, size_t length)
{
    std::ifstream file(path, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(position));
    std::string bytes(length, '\0');
    file.read(bytes.data(), static_cast<std::streamsize>(length));
    bytes.resize(static_cast<size_t>(file.gcount()));
    return bytes;
}

#endif
