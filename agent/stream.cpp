/*
 * The bare socket of stream.h; tls.cpp has the other kind.
 */
#include "stream.h"

#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <unistd.h>

namespace agent {

unique_fd &unique_fd::operator=(unique_fd &&other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) {
            close(fd_);
        }
        fd_ = other.release();
    }
    return *this;
}

unique_fd::~unique_fd() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

bool accept_lacks_means(int error) noexcept {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

namespace {

class plain_stream final : public stream {
  public:
    explicit plain_stream(unique_fd socket) : socket_(std::move(socket)) {}

    int fd() const override {
        return socket_.get();
    }
    io_result handshake() override {
        return {io_state::done, 0};
    }
    io_result read(std::span<uint8_t> into) override {
        const ssize_t size = recv(fd(), into.data(), into.size(), 0);
        return size == 0 ? io_result{io_state::closed, 0} : result(size, io_state::wait_read);
    }
    io_result write(std::span<const uint8_t> from) override {
        return result(send(fd(), from.data(), from.size(), MSG_NOSIGNAL), io_state::wait_write);
    }
    std::string text() const override {
        return std::strerror(error_);
    }

  private:
    io_result result(ssize_t size, io_state otherwise) {
        if (size >= 0) {
            return {io_state::done, static_cast<size_t>(size)};
        }
        error_ = errno;
        const bool again = error_ == EAGAIN || error_ == EWOULDBLOCK || error_ == EINTR;
        return {again ? otherwise : io_state::failed, 0};
    }

    unique_fd socket_;
    int error_ = 0;
};

} // namespace

std::unique_ptr<stream> stream_plain(unique_fd socket) {
    return std::make_unique<plain_stream>(std::move(socket));
}

} // namespace agent
