#include "transport.h"

#include "certificates.h"

#include <boost/asio.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <limits>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

namespace collector {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = net::ip::tcp;
using steady = std::chrono::steady_clock;

bool same_header_name(const std::string& a, const std::string& b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
        return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
    });
}

std::string http_request::header(const std::string& name) const
{
    for (const auto& h : headers)
        if (same_header_name(h.first, name))
            return h.second;
    return {};
}

int http_request::header_count(const std::string& name) const
{
    return int(
        std::count_if(headers.begin(), headers.end(), [&](const auto& h) { return same_header_name(h.first, name); }));
}

std::string http_request::query(const std::string& key) const
{
    // The library separates every parameter with '?': "/dtta?type=usage?x=1".
    for (std::size_t at = target.find('?'); at != std::string::npos; at = target.find_first_of("?&", at + 1)) {
        if (target.compare(at + 1, key.size() + 1, key + "=") == 0) {
            const std::size_t start = at + key.size() + 2;
            return target.substr(start, target.find_first_of("?&", start) - start);
        }
    }
    return {};
}

handler simple_handler(std::function<simple_response(const http_request&, const std::string& body)> f)
{
    return [f = std::move(f)](exchange& ex) {
        std::string body;
        const auto state = ex.read_body([&](const char* data, std::size_t size) { body.append(data, size); });
        if (state != exchange::body_state::complete) {
            const bool large = state == exchange::body_state::too_large;
            ex.send(large ? 413 : 400, "application/json",
                std::string(R"({"status":"failed","result":")") + (large ? "body too large" : "body incomplete") +
                    "\"}");
            return;
        }
        const simple_response r = f(ex.request(), body);
        ex.send(r.status, r.content_type, r.body, r.headers);
    };
}

struct http_server::impl {
    transport_options options;
    handler on_request;
    net::io_context accept_context;
    tcp::acceptor acceptor{accept_context};
    std::thread accepting;
    int port = 0;

    struct live {
        int fd = -1;
    };
    std::mutex mutex;
    std::condition_variable changed;
    std::set<live*> sessions;
    std::size_t active = 0;
    bool stopping = false;

    void accept_loop();
    void work();                                // a worker thread: serves the connections handed to it, one at a time
    std::deque<std::unique_ptr<live>> waiting;  // accepted, not yet taken up by a worker
    std::vector<std::thread> workers;
    std::size_t idle = 0;
    tcp protocol = tcp::v4();
    void serve(tcp::socket socket, net::io_context& context, live& state);
    void leave(live* l)
    {
        std::lock_guard<std::mutex> lock(mutex);
        sessions.erase(l);
    }
};

namespace {

// Runs one asynchronous operation of a connection to its end on the connection's own context:
// the connection's thread waits, the stream's deadline bounds the wait.
template <class Initiate> beast::error_code run(net::io_context& context, Initiate&& initiate)
{
    beast::error_code result = net::error::would_block;
    initiate([&result](beast::error_code ec, auto&&...) { result = ec; });
    context.restart();
    context.run();
    return result;
}

template <class Stream> class session final : public exchange {
public:
    session(http_server::impl& server, net::io_context& context, Stream& stream)
        : server_(server), context_(context), stream_(stream)
    {}

    void serve()
    {
        const auto deadline = steady::now() + server_.options.request_deadline;
        auto& lowest = beast::get_lowest_layer(stream_);
        lowest.expires_at(deadline);
        if constexpr (!std::is_same_v<Stream, beast::tcp_stream>) {
            if (run(context_, [&](auto h) { stream_.async_handshake(net::ssl::stream_base::server, h); }))
                return;
        }
        parser_.header_limit(64 * 1024);
        // Counted here instead: an answer (413) beats a cut connection. (Boost 1.74 compares a
        // length with boost::none as larger, so "no limit" is the largest number.)
        parser_.body_limit(std::numeric_limits<std::uint64_t>::max());
        if (run(context_, [&](auto h) { http::async_read_header(stream_, buffer_, parser_, h); }))
            return;
        const auto& head = parser_.get();
        request_.method = std::string(head.method_string());
        request_.target = std::string(head.target());
        request_.path = request_.target.substr(0, request_.target.find('?'));
        for (const auto& field : head)
            request_.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
        server_.on_request(*this);
        if (!answered_ && !aborted_)
            send(500, "application/json", R"({"status":"failed","result":"no answer"})", {});
        if (aborted_)
            return;
        // Read what the client still sends until it stops (a second at most), then close: closing
        // with unread bytes resets the connection, and the client could lose an answer given early.
        lowest.expires_at(std::min(deadline, steady::now() + std::chrono::seconds(1)));
        char ignored[16 * 1024];
        if constexpr (!std::is_same_v<Stream, beast::tcp_stream>) {
            if (!parser_.is_done())
                while (!run(context_, [&](auto h) { stream_.async_read_some(net::buffer(ignored), h); })) {
                }
            run(context_, [&](auto h) { stream_.async_shutdown(h); });
        } else {
            beast::error_code ec;
            lowest.socket().shutdown(tcp::socket::shutdown_send, ec);
            while (!run(context_, [&](auto h) { lowest.async_read_some(net::buffer(ignored), h); })) {
            }
        }
    }

    const http_request& request() const override { return request_; }

    body_state read_body(const std::function<void(const char*, std::size_t)>& consume) override
    {
        const std::uint64_t limit = server_.options.body_limit;
        if (parser_.content_length() && *parser_.content_length() > limit)
            return body_state::too_large;  // not a byte of it is read
        std::uint64_t total = 0;
        char chunk[64 * 1024];
        while (!parser_.is_done()) {
            parser_.get().body().data = chunk;
            parser_.get().body().size = sizeof chunk;
            beast::error_code ec = run(context_, [&](auto h) { http::async_read(stream_, buffer_, parser_, h); });
            if (ec == http::error::need_buffer)
                ec = {};
            const std::size_t got = sizeof chunk - parser_.get().body().size;
            total += got;
            if (total > limit)
                return body_state::too_large;
            if (got)
                consume(chunk, got);
            if (ec)
                return body_state::incomplete;
        }
        return body_state::complete;
    }

    bool send(int status, const std::string& content_type, const std::string& body, const header_list& headers) override
    {
        std::string whole = head(status, content_type, body.size(), headers) + body;  // one write, one TLS record
        return write(whole.data(), whole.size());
    }

    bool send_head(
        int status, const std::string& content_type, std::uint64_t length, const header_list& headers) override
    {
        const std::string text = head(status, content_type, length, headers);
        return write(text.data(), text.size());
    }

    bool send_piece(const char* data, std::size_t size) override { return size == 0 || write(data, size); }

    void abort(bool reset) override
    {
        aborted_ = answered_ = true;
        auto& socket = beast::get_lowest_layer(stream_).socket();
        beast::error_code ec;
        if (reset)
            socket.set_option(net::socket_base::linger(true, 0), ec);  // the close resets
    }

    int status() const override { return status_; }

private:
    std::string head(int status, const std::string& content_type, std::uint64_t length, const header_list& headers)
    {
        answered_ = true;
        status_ = status;
        std::string text = "HTTP/1.1 " + std::to_string(status) + " " +
                           std::string(http::obsolete_reason(http::status(status))) + "\r\n";
        for (const auto& h : headers)
            text += h.first + ": " + h.second + "\r\n";
        if (!content_type.empty())
            text += "Content-Type: " + content_type + "\r\n";
        return text + "Content-Length: " + std::to_string(length) + "\r\nConnection: close\r\n\r\n";
    }

    bool write(const char* data, std::size_t size)
    {
        if (failed_)
            return false;
        beast::get_lowest_layer(stream_).expires_after(server_.options.write_timeout);
        failed_ = bool(run(context_, [&](auto h) { net::async_write(stream_, net::buffer(data, size), h); }));
        return !failed_;
    }

    http_server::impl& server_;
    net::io_context& context_;
    Stream& stream_;
    beast::flat_buffer buffer_;
    http::request_parser<http::buffer_body> parser_;
    http_request request_;
    bool answered_ = false, aborted_ = false, failed_ = false;
    int status_ = 0;
};

}  // namespace

void http_server::impl::serve(tcp::socket socket, net::io_context& context, live& state)
{
    if (options.tls) {
        beast::ssl_stream<beast::tcp_stream> stream(std::move(socket), *options.tls);
        attach_socket(stream.native_handle(), state.fd);
        session<beast::ssl_stream<beast::tcp_stream>> s(*this, context, stream);
        s.serve();
        leave(&state);  // before the socket closes: stop() must not reach a number reused since
    } else {
        beast::tcp_stream stream(std::move(socket));
        session<beast::tcp_stream> s(*this, context, stream);
        s.serve();
        leave(&state);
    }
}

void http_server::impl::accept_loop()
{
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(mutex);
            changed.wait(lock, [&] { return stopping || active < options.max_connections; });
            if (stopping)
                return;
        }
        std::optional<tcp::socket> accepted;
        accept_context.restart();
        acceptor.async_accept([&](beast::error_code ec, tcp::socket s) {
            if (!ec)
                accepted.emplace(std::move(s));
        });
        accept_context.run();
        std::lock_guard<std::mutex> lock(mutex);
        if (!accepted) {
            if (stopping)
                return;
            continue;  // e.g. too many open files: the next connection may fare better
        }
        beast::error_code ignored;
        accepted->set_option(tcp::no_delay(true), ignored);  // a streamed answer's pieces leave at once
        auto state = std::make_unique<live>();
        state->fd = accepted->release(ignored);  // to a worker's own context
        sessions.insert(state.get());            // known to stop() from here on
        waiting.push_back(std::move(state));
        ++active;
        if (idle < waiting.size())  // a thread per connection at once, kept for the next ones
            workers.emplace_back([this] { work(); });
        changed.notify_all();
    }
}

void http_server::impl::work()
{
    net::io_context context(1);
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        ++idle;
        changed.wait(lock, [&] { return !waiting.empty() || (stopping && active == 0); });
        --idle;
        if (waiting.empty())
            return;
        std::unique_ptr<live> state = std::move(waiting.front());
        waiting.pop_front();
        lock.unlock();
        tcp::socket socket(context);
        beast::error_code ec;
        if (socket.assign(protocol, state->fd, ec); ec)
            ::close(state->fd);  // served as a closed socket: every operation fails at once
        serve(std::move(socket), context, *state);
        context.restart();
        lock.lock();
        --active;
        changed.notify_all();
    }
}

http_server::http_server(transport_options options, handler h) : d_(std::make_unique<impl>())
{
    d_->options = std::move(options);
    d_->on_request = std::move(h);
}

http_server::~http_server() { stop(true); }

bool http_server::start(std::string& error)
{
    impl& d = *d_;
    beast::error_code ec;
    const auto address = net::ip::make_address(d.options.host, ec);
    if (ec) {
        error = "cannot listen on " + d.options.host + ": not an IP address";
        return false;
    }
    const tcp::endpoint endpoint(address, static_cast<unsigned short>(d.options.port));
    d.protocol = endpoint.protocol();
    d.acceptor.open(endpoint.protocol(), ec);
    if (!ec)
        d.acceptor.set_option(net::socket_base::reuse_address(true), ec);
    if (!ec)
        d.acceptor.bind(endpoint, ec);
    if (!ec)
        d.acceptor.listen(1024, ec);  // the library opens one connection per request, many at once
    if (ec) {
        error = "cannot listen on " + d.options.host + ":" + std::to_string(d.options.port) + ": " + ec.message();
        return false;
    }
    d.port = d.acceptor.local_endpoint().port();
    d.accepting = std::thread([&d] { d.accept_loop(); });
    return true;
}

int http_server::port() const { return d_->port; }

void http_server::stop(bool abort_all)
{
    impl& d = *d_;
    {
        std::lock_guard<std::mutex> lock(d.mutex);
        d.stopping = true;
        d.changed.notify_all();
    }
    net::post(d.accept_context, [&d] {
        beast::error_code ec;
        d.acceptor.close(ec);
    });
    if (d.accepting.joinable())
        d.accepting.join();
    beast::error_code ec;
    d.acceptor.close(ec);  // when the loop had ended before the close it was sent ran
    std::unique_lock<std::mutex> lock(d.mutex);
    // Otherwise every connection taken up is served to its end, which the request deadline bounds.
    if (abort_all)
        for (impl::live* l : d.sessions)
            ::shutdown(l->fd, SHUT_RDWR);
    d.changed.wait(lock, [&] { return d.active == 0; });
    d.changed.notify_all();  // the idle workers end
    lock.unlock();
    for (std::thread& t : d.workers)
        if (t.joinable())
            t.join();
}

}  // namespace collector
