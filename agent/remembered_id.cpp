/*
 * One line of sixteen hexadecimal digits, written beside its place and moved there.
 */
#include "remembered_id.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>

#include <unistd.h>

#include "log.h"

namespace agent {
namespace {

constexpr size_t digit_count = 16;

struct file_close {
    void operator()(FILE *file) const {
        std::fclose(file);
    }
};
using open_file = std::unique_ptr<FILE, file_close>;

} // namespace

std::optional<uint64_t> remembered_id::read() const {
    const open_file file(path_.empty() ? nullptr : std::fopen(path_.c_str(), "re"));
    if (file == nullptr) {
        if (!path_.empty() && errno != ENOENT) {
            log(log_level::warning, "%s: %s", path_.c_str(), std::strerror(errno));
        }
        return {};
    }
    char text[digit_count + 2] = {}; // and the end of the line
    const size_t size = std::fread(text, 1, sizeof text, file.get());
    uint64_t id = 0;
    const auto [end, error] = std::from_chars(text, text + digit_count, id, 16);
    if (size != digit_count + 1 || error != std::errc() || end != text + digit_count || *end != '\n' || id == 0) {
        log(log_level::warning, "%s: 16 hexadecimal digits are expected; another datapath id is chosen", path_.c_str());
        return {};
    }
    return id;
}

void remembered_id::write(uint64_t id) const {
    if (path_.empty()) {
        return;
    }
    const std::string fresh = path_ + ".new";
    bool is_good = false;
    {
        const open_file file(std::fopen(fresh.c_str(), "we"));
        is_good = file != nullptr && std::fprintf(file.get(), "%016llx\n", static_cast<unsigned long long>(id)) > 0 &&
                  std::fflush(file.get()) == 0 && fsync(fileno(file.get())) == 0;
    }
    if (!is_good || std::rename(fresh.c_str(), path_.c_str()) != 0) {
        log(log_level::warning, "the datapath id can't be remembered: %s: %s", path_.c_str(), std::strerror(errno));
        unlink(fresh.c_str());
    }
}

} // namespace agent
