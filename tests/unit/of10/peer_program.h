/*
 * Runs a program of the distribution on a file that a test wrote. Nothing is installed here: where the program lacks,
 * the test says so and ends with exit status 77, which CTest shows as skipped.
 */
#ifndef KR_TESTS_OF10_PEER_PROGRAM_H
#define KR_TESTS_OF10_PEER_PROGRAM_H

#include "of10/of10.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace of10_test {

inline void require_program(const std::string &name, const char *package) {
    const char *const path = std::getenv("PATH");
    std::istringstream folders(path != nullptr ? path : "/usr/bin:/bin");
    for (std::string folder; std::getline(folders, folder, ':');)
        if (access((folder + "/" + name).c_str(), X_OK) == 0)
            return;
    std::printf("skipped: %s is not installed (Debian package %s)\n", name.c_str(), package);
    std::exit(77);
}

/* A directory of the test's own, gone with it. */
class scratch_directory {
  public:
    scratch_directory() {
        std::string name = (std::filesystem::temp_directory_path() / "of10-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr)
            ADD_FAILURE() << "no temporary directory like " << name;
        path_ = name;
    }
    ~scratch_directory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    scratch_directory(const scratch_directory &) = delete;
    scratch_directory &operator=(const scratch_directory &) = delete;

    std::string file(const std::string &name, of10::byte_view content) const {
        const std::filesystem::path path = path_ / name;
        std::ofstream out(path, std::ios::binary);
        out.write(reinterpret_cast<const char *>(content.data()), static_cast<std::streamsize>(content.size()));
        if (!out.flush())
            ADD_FAILURE() << "could not write " << path;
        return path.string();
    }

  private:
    std::filesystem::path path_;
};

/* What the program prints; fails the test when the program does. */
inline std::string output_of(const std::string &command) {
    FILE *const pipe = popen((command + " 2>/dev/null").c_str(), "r");
    if (pipe == nullptr) {
        ADD_FAILURE() << "could not run " << command;
        return {};
    }
    std::string text;
    char some[4096];
    for (size_t size; (size = std::fread(some, 1, sizeof(some), pipe)) > 0;)
        text.append(some, size);
    EXPECT_EQ(pclose(pipe), 0) << command << "\n" << text;
    return text;
}

} // namespace of10_test

#endif
