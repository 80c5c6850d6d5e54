// Certificates: the server's TLS identity. Either a real certificate and key given by their
// files, or one issued by a local authority kept in the data folder for development.
#pragma once

#include <memory>
#include <string>

namespace boost::asio::ssl {
class context;
}

namespace collector {

// Makes dir/cert.pem and dir/key.pem (0600) for 127.0.0.1 and localhost, issued by a local
// authority whose certificate is dir/ca.pem (its key is thrown away) or self-signed, unless
// they are there already. False, with the reason in `error`, when they cannot be made.
bool ensure_local_certificates(const std::string& dir, bool self_signed, std::string& error);

// The SHA-256 of the certificate's public key (SubjectPublicKeyInfo), base64: what a client
// pins. Empty when the file holds no certificate.
std::string public_key_pin(const std::string& cert_file);

struct tls_settings {
    std::string cert_file, key_file;
    bool tls13_only = false;  // refuse every protocol below TLS 1.3
    // Acknowledge every TLS record at once instead of Linux's delayed acknowledgement (40 ms):
    // Qt's client writes a request's head and body as two records and would wait for it.
    bool prompt_ack = false;
};
// Tells a connection's TLS state (an SSL*) its socket, for prompt_ack.
void attach_socket(void* ssl, int fd);

// A server context for `settings`; null, with the reason in `error`, when the files do not load.
std::shared_ptr<boost::asio::ssl::context> make_tls_context(const tls_settings& settings, std::string& error);

}  // namespace collector
