/*
 * TLS streams over OpenSSL: version 1.2 or later, and a peer without a certificate of the configured CA is turned away
 * on both sides. A module of its own, so that a daemon without TLS does not carry OpenSSL along.
 */
#include <cerrno>
#include <cstring>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include "stream.h"

namespace agent {
namespace {

std::string openssl_text() {
    const unsigned long error = ERR_get_error();
    ERR_clear_error();
    char text[256] = "unknown error";
    if (error != 0) {
        ERR_error_string_n(error, text, sizeof text);
    }
    return text;
}

class tls_stream final : public stream {
  public:
    tls_stream(unique_fd socket, SSL *ssl) : socket_(std::move(socket)), ssl_(ssl) {}
    ~tls_stream() override {
        SSL_free(ssl_);
    }
    tls_stream(const tls_stream &) = delete;
    tls_stream &operator=(const tls_stream &) = delete;

    int fd() const override {
        return socket_.get();
    }
    io_result handshake() override {
        ERR_clear_error();
        return result(SSL_do_handshake(ssl_), 0);
    }
    io_result read(std::span<uint8_t> into) override {
        ERR_clear_error();
        size_t size = 0;
        const int done = SSL_read_ex(ssl_, into.data(), into.size(), &size);
        return result(done, size);
    }
    io_result write(std::span<const uint8_t> from) override {
        ERR_clear_error();
        size_t size = 0;
        const int done = SSL_write_ex(ssl_, from.data(), from.size(), &size);
        return result(done, size);
    }
    bool has_pending() const override {
        return SSL_pending(ssl_) > 0;
    }
    std::string text() const override {
        return text_;
    }
    std::string peer() const override {
        X509 *const certificate = SSL_get0_peer_certificate(ssl_);
        char name[128] = "";
        if (certificate != nullptr) {
            X509_NAME_get_text_by_NID(X509_get_subject_name(certificate), NID_commonName, name, sizeof name);
        }
        return name;
    }

  private:
    io_result result(int done, size_t size) {
        if (done == 1) {
            return {io_state::done, size};
        }
        switch (SSL_get_error(ssl_, done)) {
        case SSL_ERROR_WANT_READ:
            return {io_state::wait_read, 0};
        case SSL_ERROR_WANT_WRITE:
            return {io_state::wait_write, 0};
        case SSL_ERROR_ZERO_RETURN:
            return {io_state::closed, 0};
        case SSL_ERROR_SYSCALL:
            text_ = errno != 0 ? std::strerror(errno) : "the connection broke off";
            return {io_state::failed, 0};
        default:
            describe_failure();
            return {io_state::failed, 0};
        }
    }

    void describe_failure() {
        const long verdict = SSL_get_verify_result(ssl_);
        text_ = openssl_text();
        if (verdict != X509_V_OK) {
            text_ += std::string(" (") + X509_verify_cert_error_string(verdict) + ")";
        }
    }

    unique_fd socket_;
    SSL *ssl_;
    std::string text_;
};

bool context_load(SSL_CTX *context, const tls_files &files, std::string *why) {
    struct load {
        const char *what;
        const std::string &path;
        int done;
    };
    const load loads[] = {
        {"certificate", files.certificate, SSL_CTX_use_certificate_chain_file(context, files.certificate.c_str())},
        {"private key", files.private_key,
         SSL_CTX_use_PrivateKey_file(context, files.private_key.c_str(), SSL_FILETYPE_PEM)},
        {"CA certificate", files.ca_certificate,
         SSL_CTX_load_verify_locations(context, files.ca_certificate.c_str(), nullptr)},
    };
    for (const load &one : loads) {
        if (one.done != 1) {
            *why = std::string("the ") + one.what + " " + one.path + " can't be used: " + openssl_text();
            return false;
        }
    }
    if (SSL_CTX_check_private_key(context) != 1) {
        *why = "private key and certificate do not belong together";
        return false;
    }
    SSL_CTX_set_client_CA_list(context, SSL_load_client_CA_file(files.ca_certificate.c_str()));
    return true;
}

class openssl_context final : public tls_context {
  public:
    explicit openssl_context(SSL_CTX *context) : context_(context) {}
    ~openssl_context() override {
        SSL_CTX_free(context_);
    }
    openssl_context(const openssl_context &) = delete;
    openssl_context &operator=(const openssl_context &) = delete;

    std::unique_ptr<stream> wrap(unique_fd socket, bool is_server) const override {
        SSL *const ssl = SSL_new(context_);
        if (ssl == nullptr || SSL_set_fd(ssl, socket.get()) != 1) {
            SSL_free(ssl);
            return nullptr;
        }
        if (is_server) {
            SSL_set_accept_state(ssl);
        } else {
            SSL_set_connect_state(ssl);
        }
        return std::make_unique<tls_stream>(std::move(socket), ssl);
    }

  private:
    SSL_CTX *context_;
};

} // namespace

extern "C" __attribute__((visibility("default"))) tls_context *krsdn_tls_open(const tls_files &files,
                                                                              std::string *why) {
    SSL_CTX *const context = SSL_CTX_new(TLS_method());
    if (context == nullptr) {
        *why = openssl_text();
        return nullptr;
    }
    auto opened = std::make_unique<openssl_context>(context);
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    return context_load(context, files, why) ? opened.release() : nullptr;
}

} // namespace agent
