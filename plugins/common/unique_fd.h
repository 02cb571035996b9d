/* A file descriptor that closes itself. */
#ifndef KR_PLUGIN_UNIQUE_FD_H
#define KR_PLUGIN_UNIQUE_FD_H

#include <unistd.h>

#include <utility>

namespace kr_plugin {

class unique_fd {
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(unique_fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    unique_fd &operator=(unique_fd &&other) noexcept {
        reset(std::exchange(other.fd_, -1));
        return *this;
    }
    ~unique_fd() {
        reset();
    }

    void reset(int fd = -1) noexcept {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = fd;
    }
    int get() const noexcept {
        return fd_;
    }
    explicit operator bool() const noexcept {
        return fd_ >= 0;
    }

  private:
    int fd_ = -1;
};

} // namespace kr_plugin

#endif
