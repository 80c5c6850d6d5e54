#include "certificates.h"
#include "data_folder.h"

#include <boost/asio/ssl.hpp>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <random>

namespace fs = std::filesystem;

namespace collector {
namespace {

// A certificate for `key`, named `common_name`, valid ten years, signed by `issuer_key` as
// `issuer` (by the key itself when there is no issuer): a local authority, or a server
// certificate for 127.0.0.1 and localhost.
X509* issue_certificate(EVP_PKEY* key, const char* common_name, X509* issuer, EVP_PKEY* issuer_key, bool authority)
{
    X509* cert = X509_new();
    if (!cert)
        return nullptr;
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), long(std::random_device{}() & 0x7fffffff));
    X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert), 10L * 365 * 24 * 3600);
    X509_set_pubkey(cert, key);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(cert), "CN", MBSTRING_ASC,
        reinterpret_cast<const unsigned char*>(common_name), -1, -1, 0);
    X509_set_issuer_name(cert, X509_get_subject_name(issuer ? issuer : cert));
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer ? issuer : cert, cert, nullptr, nullptr, 0);
    bool ok = true;
    const auto extend = [&](int nid, const char* value) {
        X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
        ok = ok && extension && X509_add_ext(cert, extension, -1);
        X509_EXTENSION_free(extension);
    };
    if (authority) {
        extend(NID_basic_constraints, "critical,CA:TRUE");
        extend(NID_key_usage, "critical,keyCertSign,cRLSign");
    } else {
        extend(NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost");
    }
    if (!ok || !X509_sign(cert, issuer_key, EVP_sha256())) {
        X509_free(cert);
        return nullptr;
    }
    return cert;
}

bool write_certificate(const std::string& path, X509* cert)
{
    FILE* file = std::fopen(path.c_str(), "w");
    const bool ok = file && PEM_write_X509(file, cert);
    if (file)
        std::fclose(file);
    return ok;
}

bool create_certificates(const std::string& dir, bool self_signed)
{
    EVP_PKEY* key = EVP_EC_gen("P-256");
    EVP_PKEY* authority_key = self_signed ? nullptr : EVP_EC_gen("P-256");
    X509* authority =
        self_signed || !authority_key
            ? nullptr
            : issue_certificate(authority_key, "information_api local authority", nullptr, authority_key, true);
    X509* cert = !key || (!self_signed && !authority)
                     ? nullptr
                     : issue_certificate(key, "127.0.0.1", authority, self_signed ? key : authority_key, false);
    bool ok = cert && (self_signed || write_certificate(data_folder::path(dir, data_folder::kAuthority), authority)) &&
              write_certificate(data_folder::path(dir, data_folder::kCertificate), cert);
    if (ok) {
        // The key is private from its first byte on: created 0600, never readable by others.
        const std::string key_path = data_folder::path(dir, data_folder::kKey);
        std::remove(key_path.c_str());
        const int key_fd = ::open(key_path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        FILE* k = key_fd >= 0 ? ::fdopen(key_fd, "w") : nullptr;
        if (key_fd >= 0 && !k)
            ::close(key_fd);
        ok = k && PEM_write_PrivateKey(k, key, nullptr, nullptr, 0, nullptr, nullptr);
        if (k)
            std::fclose(k);
    }
    X509_free(cert);
    X509_free(authority);
    EVP_PKEY_free(authority_key);
    EVP_PKEY_free(key);
    return ok;
}

// Where a connection's socket is kept in its TLS state (the TLS engine reads from memory, not
// from the socket, and keeps its own pointer as the application data).
int socket_index()
{
    static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
}

}  // namespace

void attach_socket(void* ssl, int fd)
{
    SSL_set_ex_data(static_cast<SSL*>(ssl), socket_index(), reinterpret_cast<void*>(std::intptr_t(fd) + 1));
}

bool ensure_local_certificates(const std::string& dir, bool self_signed, std::string& error)
{
    std::error_code ec;
    const auto present = [&](const char* name) { return fs::exists(data_folder::path(dir, name), ec); };
    if (present(data_folder::kCertificate) && present(data_folder::kKey) &&
        (self_signed || present(data_folder::kAuthority)))
        return true;
    if (create_certificates(dir, self_signed))
        return true;
    error = "cannot create a certificate in " + dir;
    return false;
}

std::string public_key_pin(const std::string& cert_file)
{
    std::string pin;
    FILE* file = std::fopen(cert_file.c_str(), "r");
    X509* cert = file ? PEM_read_X509(file, nullptr, nullptr, nullptr) : nullptr;
    unsigned char* der = nullptr;
    const int length = cert ? i2d_PUBKEY(X509_get0_pubkey(cert), &der) : -1;
    unsigned char digest[32], text[64];
    if (length > 0 && EVP_Digest(der, std::size_t(length), digest, nullptr, EVP_sha256(), nullptr))
        pin.assign(reinterpret_cast<char*>(text), std::size_t(EVP_EncodeBlock(text, digest, sizeof digest)));
    OPENSSL_free(der);
    X509_free(cert);
    if (file)
        std::fclose(file);
    return pin;
}

std::shared_ptr<boost::asio::ssl::context> make_tls_context(const tls_settings& settings, std::string& error)
{
    auto context = std::make_shared<boost::asio::ssl::context>(boost::asio::ssl::context::tls_server);
    SSL_CTX* ctx = context->native_handle();
    SSL_CTX_set_options(ctx, SSL_OP_NO_SSLv2 | SSL_OP_NO_SSLv3 | SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1);
    // The library opens a fresh connection, without resumption, for every request: a session
    // cache or tickets would only cost their upkeep.
    SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_num_tickets(ctx, 0);
    if (SSL_CTX_use_certificate_chain_file(ctx, settings.cert_file.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(ctx, settings.key_file.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_check_private_key(ctx) != 1) {
        error = "cannot use the certificate " + settings.cert_file + " with the key " + settings.key_file;
        return nullptr;
    }
    if (settings.tls13_only)
        SSL_CTX_set_min_proto_version(ctx, TLS1_3_VERSION);
    if (settings.prompt_ack)
        SSL_CTX_set_msg_callback(ctx, [](int write_p, int, int content_type, const void*, size_t, SSL* ssl, void*) {
            if (!write_p && content_type == SSL3_RT_HEADER) {
                int yes = 1;  // not sticky: renewed for every record read
                const int fd = int(reinterpret_cast<std::intptr_t>(SSL_get_ex_data(ssl, socket_index()))) - 1;
                if (fd >= 0)
                    setsockopt(fd, IPPROTO_TCP, TCP_QUICKACK, &yes, sizeof yes);
            }
        });
    return context;
}

}  // namespace collector
