/*
 * A connected byte stream to a controller: a socket, bare or under TLS. Non-blocking; it reports what it could do and
 * what it waits for, and knows neither messages nor the loop.
 */
#ifndef KR_AGENT_STREAM_H
#define KR_AGENT_STREAM_H

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "clock.h"

namespace agent {

class unique_fd {
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(unique_fd &&other) noexcept : fd_(other.release()) {}
    unique_fd &operator=(unique_fd &&other) noexcept;
    ~unique_fd();

    int get() const {
        return fd_;
    }
    explicit operator bool() const {
        return fd_ >= 0;
    }
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

  private:
    int fd_ = -1;
};

/* Whether accepting failed for a lack that may pass: of descriptors, or of memory. A listener that is looked at all the
 * same is ready again at once. */
bool accept_lacks_means(int error) noexcept;
inline constexpr nanoseconds accept_pause = second_ns / 4;

enum class io_state : uint8_t {
    done,       // `size` bytes went through
    wait_read,  // nothing did: try again when the descriptor is readable
    wait_write, // the same when it is writable
    closed,     // the peer has closed in good order
    failed,     // text() says why
};

struct io_result {
    io_state state;
    size_t size;
};

class stream {
  public:
    virtual ~stream() = default;

    virtual int fd() const = 0;
    /* Until this is done nothing can be read or written. */
    virtual io_result handshake() = 0;
    virtual io_result read(std::span<uint8_t> into) = 0;
    virtual io_result write(std::span<const uint8_t> from) = 0;
    /* Bytes that were received already and wait inside: the descriptor does not show them. */
    virtual bool has_pending() const {
        return false;
    }
    /* Why the last operation failed. */
    virtual std::string text() const = 0;
    /* What is known of the peer, for the log: a certificate's name. */
    virtual std::string peer() const {
        return {};
    }
};

std::unique_ptr<stream> stream_plain(unique_fd socket);

/* ---- TLS ------------------------------------------------------------------------------------------------------- */

struct tls_files {
    std::string private_key, certificate, ca_certificate; // PEM
};

/* Keys and trust for all TLS connections of the daemon. Both sides have to show a certificate of the given CA. */
class tls_context {
  public:
    virtual ~tls_context() = default;

    /* `is_server`: the side that was connected to. Null: there is no memory. */
    virtual std::unique_ptr<stream> wrap(unique_fd socket, bool is_server) const = 0;
};

/*
 * Null, and why, if a file can't be read or key and certificate do not belong together. TLS is a module of its own,
 * loaded here: without it the daemon is a megabyte and a half smaller.
 */
std::unique_ptr<tls_context> tls_context_open(const tls_files &files, std::string *why);

/* The one symbol of that module; a plain pointer, for the caller to own. */
inline constexpr const char *tls_module_symbol = "krsdn_tls_open";
using tls_module_open = tls_context *(const tls_files &files, std::string *why);

} // namespace agent

#endif
