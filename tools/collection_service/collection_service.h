// The collector's test double: the collector's transport, protocol and certificates (and, when
// asked to keep what it accepts, its SQLite store) with request inspection and misbehaviour on
// top. The tests and benchmarks start one in-process; information_devserver serves one with its
// switches. It is never part of information_collector's own path.
#pragma once

#include "tools/collector/app_ids.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace collection {

// One part of a multipart/form-data body as the service parsed it.
struct received_part {
    std::string name;
    std::string filename;
    std::string content_type;
    std::string content;     // the part's bytes (kept up to service_options::keep_limit)
    std::uint64_t size = 0;  // the part's full size
};

// One request as it arrived.
struct received_request {
    std::string method;
    std::string target;  // path and query exactly as on the request line: "/dtta?type=usage"
    std::string path;    // the target up to its first '?'
    std::vector<std::pair<std::string, std::string>> headers;  // in the order received
    std::string body;  // the body's bytes (kept up to service_options::keep_limit)
    std::uint64_t body_size = 0;
    std::vector<received_part> parts;  // filled for multipart/form-data bodies
    std::chrono::steady_clock::time_point at;

    // First value of a header, case-insensitive name; empty when absent.
    std::string header(const std::string& name) const;
    bool has_header(const std::string& name) const;
    // How often a header occurs (case-insensitive name).
    int header_count(const std::string& name) const;
};

// What the service does with one request.
struct reply {
    int status = 200;
    std::string content_type = "application/json";
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;  // extra response headers
    std::chrono::milliseconds delay{0};                        // wait this long before answering
    bool silent = false;                       // accept the request and never answer (until release_silent/stop)
    bool reset_midway = false;                 // send the headers and half the body, then reset the connection
    std::size_t chunk_size = 0;                // > 0: send the body in chunks of this size, flushed one by one
    std::chrono::milliseconds chunk_pause{0};  // pause between chunks
};

struct service_options {
    bool tls = true;          // HTTPS; false: plain HTTP
    bool tls13_only = false;  // refuse every protocol below TLS 1.3 (a TLS 1.2 client fails)
    // The server's certificate names 127.0.0.1 and localhost. It comes from a local authority
    // whose certificate is data_dir/ca.pem, for clients to trust; or it is self-signed.
    bool self_signed = false;
    std::string host = "127.0.0.1";
    int port = 0;  // 0: the system picks one
    // Holds cert.pem, key.pem and ca.pem (created on first start, reused after) and the files served:
    // data_dir/software/<name>/interface.json and data_dir/files/<path> (installers), and what
    // store_received keeps. Empty: a private temporary directory removed with the service.
    std::string data_dir;
    std::size_t keep_limit = 16u << 20;  // bytes of a body or part kept for inspection
    // A larger body is answered 413 and stored nowhere; one announced larger is not even read.
    std::uint64_t max_body_size = 64ull << 20;
    // The whole request (TLS handshake, head and body) must have arrived within this time after
    // the service took up its connection; otherwise the connection is closed unanswered.
    std::chrono::milliseconds request_deadline{30000};
    // Acknowledge every TLS record at once instead of Linux's delayed acknowledgement (40 ms).
    // Qt's client does not disable Nagle and writes a request's head and body as two records, so
    // against a delaying server each HTTPS upload waits 40 ms for the body to leave.
    bool prompt_ack = false;
    // Connections served at most at once (silent ones hold one each), a thread each.
    std::size_t threads = 1024;
    // Keep what the service accepted as information_collector does: records in the SQLite store
    // data_dir/records.sqlite3, files under data_dir/files/uploads/ by their SHA-256 (written to
    // data_dir/incoming/ while they arrive). Otherwise it checks and answers, and keeps nothing.
    bool store_received = false;
    bool keep_requests = true;  // keep every request for received(); false: only count them
    // Called once a request has been answered, with the status sent (from a serving thread).
    std::function<void(const received_request&, int status)> on_answer;
};

class collection_service {
public:
    // Decides a request's answer; std::nullopt means "answer like the real service".
    using script = std::function<std::optional<reply>(const received_request&)>;

    explicit collection_service(service_options options = {});
    ~collection_service();  // stop()
    collection_service(const collection_service&) = delete;
    collection_service& operator=(const collection_service&) = delete;

    bool start();                      // binds and serves on a background thread; false on failure
    void stop();                       // ends silent requests, stops serving, joins; idempotent
    const std::string& error() const;  // why start() failed
    int port() const;
    std::string base_url() const;  // "https://127.0.0.1:<port>" (http:// without TLS)
    const std::string& data_dir() const;
    // The SHA-256 of the server's public key (SubjectPublicKeyInfo), base64: what a client pins.
    std::string public_key_pin() const;

    void set_script(script s);        // replaces the previous script; empty: real behaviour
    void answer_all(const reply& r);  // every request gets r
    void release_silent();            // silent requests end now: the connection is closed

    std::vector<received_request> received() const;
    std::size_t received_count() const;
    bool wait_for_requests(std::size_t count, std::chrono::milliseconds timeout) const;
    void clear_received();

private:
    struct impl;
    std::unique_ptr<impl> d_;
};

// The application ids the real service accepts in X-Auth-AppID.
using collector::kReleaseAppId;
using collector::kTestAppId;

}  // namespace collection
