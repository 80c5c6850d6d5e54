// The transport: HTTP/1.1 over TLS (or plain TCP) on Boost.Beast. One request per connection, a
// deadline for the whole request (handshake, head and body), a bounded number of connections at
// once, bodies streamed to the handler in pieces and bounded in size. It knows nothing of what a
// request means: a handler decides. The network waits are asynchronous on I/O threads (half the
// cores); handlers run on threads of their own, where they may block (on a commit, say).
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace boost::asio::ssl {
class context;
}

namespace collector {

using header_list = std::vector<std::pair<std::string, std::string>>;

struct http_request {
    std::string method;
    std::string target;   // as on the request line: "/dtta?type=usage"
    std::string path;     // the target up to its first '?'
    header_list headers;  // in the order received
    // First value of a header, case-insensitive name; empty when absent.
    std::string header(const std::string& name) const;
    int header_count(const std::string& name) const;
    // The value of `key` in the query ("type" of "/dtta?type=usage"); empty when absent.
    std::string query(const std::string& key) const;
};

bool same_header_name(const std::string& a, const std::string& b);

// One request and its answer, as a handler sees it. A handler reads the body at most once, then
// answers with send() or with send_head() and send_piece(); abort() resets the connection.
// send() hands the whole answer over and returns at once; send_head() and send_piece() return
// once their bytes are written (false when they could not be), so a long answer keeps pace.
class exchange {
public:
    enum class body_state { complete, too_large, incomplete };
    virtual ~exchange() = default;
    virtual const http_request& request() const = 0;
    // Hands the body to `consume` piece by piece as it arrives. too_large: over the limit (when
    // announced so, not a byte is read); incomplete: the client stopped early or missed the deadline.
    virtual body_state read_body(const std::function<void(const char*, std::size_t)>& consume) = 0;
    virtual void send(
        int status, const std::string& content_type, const std::string& body, const header_list& headers = {}) = 0;
    virtual bool send_head(
        int status, const std::string& content_type, std::uint64_t length, const header_list& headers = {}) = 0;
    virtual bool send_piece(const char* data, std::size_t size) = 0;
    // Ends the connection unanswered, or with the answer cut where it is: `reset` sends a reset,
    // otherwise it closes.
    virtual void abort(bool reset) = 0;
    virtual int status() const = 0;  // the status sent; 0 before an answer
};

using handler = std::function<void(exchange&)>;

// A handler from a plain function of the request and its whole body (bodies over the server's
// limit are answered 413 before it is called).
struct simple_response {
    int status = 200;
    std::string content_type = "application/json";
    std::string body;
    header_list headers;
};
handler simple_handler(std::function<simple_response(const http_request&, const std::string& body)> f);

struct transport_options {
    std::string host = "127.0.0.1";
    int port = 0;                                    // 0: the system picks one
    std::shared_ptr<boost::asio::ssl::context> tls;  // null: plain HTTP
    // The whole request (handshake, head and body) must arrive within this time of the
    // connection being taken up; otherwise it is closed unanswered.
    std::chrono::milliseconds request_deadline{30000};
    std::chrono::milliseconds write_timeout{30000};  // for each write of the answer
    std::size_t max_connections = 1024;              // served at once; the rest wait in the listen queue
    std::uint64_t body_limit = 64ull << 20;
    // Optional: offered each request whose body (if any) is read already, on the I/O thread,
    // before the handler. It must not block: true when it took the request and will send() its
    // answer, from any thread; false hands the request on to the handler.
    std::function<bool(const std::shared_ptr<exchange>&)> early;
};

class http_server {
public:
    http_server(transport_options options, handler h);
    ~http_server();  // stop(true)
    http_server(const http_server&) = delete;
    http_server& operator=(const http_server&) = delete;

    bool start(std::string& error);  // binds, listens and serves on threads of its own
    int port() const;
    // Stops accepting. Every connection taken up is served to its end (within the request
    // deadline); with `abort_all` every connection is cut at once instead (a handler still runs
    // to its end, its writes fail). Idempotent.
    void stop(bool abort_all);

    struct impl;  // the connections reach it

private:
    std::unique_ptr<impl> d_;
};

}  // namespace collector
