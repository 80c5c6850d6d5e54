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
    net::io_context io;
    net::executor_work_guard<net::io_context::executor_type> keep_running{io.get_executor()};
    // Accepts are started from the accepting strand only: one at a time.
    tcp::acceptor acceptor{net::make_strand(io)};
    std::vector<std::thread> io_threads;
    int port = 0;

    struct live {
        int fd = -1;
    };
    std::mutex mutex;
    std::condition_variable changed;
    std::set<live*> sessions;
    std::size_t active = 0;
    bool stopping = false, accept_pending = false;

    // Handlers run on threads of their own: they may wait (for a commit, a script's delay).
    std::deque<std::function<void()>> jobs;
    std::condition_variable job_ready;
    std::vector<std::thread> workers;
    std::size_t idle = 0;
    bool workers_end = false;

    void accept_next();  // on the accepting strand
    void take(tcp::socket socket);
    void run_handler(std::function<void()> job);
    void work();
    // A connection is over: stop() no longer reaches its socket, and a place is free.
    void ended(live* l)
    {
        std::lock_guard<std::mutex> lock(mutex);
        sessions.erase(l);
        if (active-- == options.max_connections)
            net::post(acceptor.get_executor(), [this] { accept_next(); });
        changed.notify_all();
    }
};

namespace {

// One connection. The network waits (handshake, head, a small body, the close) are asynchronous
// on the server's few I/O threads; the handler runs on a handler thread, where the exchange's
// reads and writes wait for their asynchronous operation on the connection's strand.
template <class Stream>
class connection final : public exchange, public std::enable_shared_from_this<connection<Stream>> {
    static constexpr bool tls = !std::is_same_v<Stream, beast::tcp_stream>;
    // Bodies announced up to this size are read before the handler runs.
    static constexpr std::uint64_t kPrefetch = 64 * 1024;

public:
    template <class... Args>
    connection(http_server::impl& server, Args&&... args) : server_(server), stream_(std::forward<Args>(args)...)
    {
        state_.fd = lowest().socket().native_handle();
    }
    http_server::impl::live* state() { return &state_; }
    net::any_io_executor get_executor() { return stream_.get_executor(); }

    void start()  // on the strand, as every step below but the handler
    {
        deadline_ = steady::now() + server_.options.request_deadline;
        lowest().expires_at(deadline_);
        if constexpr (tls) {
            attach_socket(stream_.native_handle(), state_.fd);
            stream_.async_handshake(net::ssl::stream_base::server,
                [self = this->shared_from_this()](beast::error_code ec) { ec ? self->finish() : self->read_head(); });
        } else {
            read_head();
        }
    }

    const http_request& request() const override { return request_; }

    body_state read_body(const std::function<void(const char*, std::size_t)>& consume) override
    {
        const std::uint64_t limit = server_.options.body_limit;
        if (parser_.content_length() && *parser_.content_length() > limit)
            return body_state::too_large;  // not a byte of it is read
        if (prefetched_) {
            if (!body_.empty())
                consume(body_.data(), body_.size());
            return prefetch_complete_ ? body_state::complete : body_state::incomplete;
        }
        std::uint64_t total = 0;
        char chunk[64 * 1024];
        while (!parser_.is_done()) {
            parser_.get().body().data = chunk;
            parser_.get().body().size = sizeof chunk;
            beast::error_code ec = await([&](auto h) { http::async_read(stream_, buffer_, parser_, h); });
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

    void send(int status, const std::string& content_type, const std::string& body, const header_list& headers) override
    {
        if (failed_ || sent_)
            return;
        sent_ = queued_ = true;
        answer_ = head(status, content_type, body.size(), headers) + body;  // one write, one TLS record
        net::post(stream_.get_executor(), [self = this->shared_from_this()] {
            self->lowest().expires_after(self->server_.options.write_timeout);
            net::async_write(self->stream_, net::buffer(self->answer_), [self](beast::error_code, std::size_t) {
                self->queued_ = false;
                if (self->handled_)
                    self->close();
            });
        });
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
        auto& socket = lowest().socket();
        beast::error_code ec;
        if (reset)
            socket.set_option(net::socket_base::linger(true, 0), ec);  // the close resets
    }

    int status() const override { return status_; }

private:
    beast::tcp_stream& lowest() { return beast::get_lowest_layer(stream_); }

    void read_head()
    {
        parser_.header_limit(64 * 1024);
        // Counted here instead: an answer (413) beats a cut connection. (Boost 1.74 compares a
        // length with boost::none as larger, so "no limit" is the largest number.)
        parser_.body_limit(std::numeric_limits<std::uint64_t>::max());
        http::async_read_header(
            stream_, buffer_, parser_, [self = this->shared_from_this()](beast::error_code ec, std::size_t) {
                ec ? self->finish() : self->take_head();
            });
    }

    void take_head()
    {
        const auto& head = parser_.get();
        request_.method = std::string(head.method_string());
        request_.target = std::string(head.target());
        request_.path = request_.target.substr(0, request_.target.find('?'));
        for (const auto& field : head)
            request_.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
        const auto length = parser_.content_length();
        if (parser_.is_done() || !length || *length > std::min(kPrefetch, server_.options.body_limit))
            return hand_over();
        body_.resize(*length);
        parser_.get().body().data = body_.data();
        parser_.get().body().size = body_.size();
        http::async_read(
            stream_, buffer_, parser_, [self = this->shared_from_this()](beast::error_code ec, std::size_t) {
                self->body_.resize(self->body_.size() - self->parser_.get().body().size);
                self->prefetched_ = true;
                self->prefetch_complete_ = !ec && self->parser_.is_done();
                self->hand_over();
            });
    }

    void hand_over()
    {
        if (server_.options.early && parser_.is_done()) {
            handled_ = true;  // the answer's write closes the connection
            if (server_.options.early(this->shared_from_this()))
                return;
            handled_ = false;
        }
        server_.run_handler([self = this->shared_from_this()] {
            self->server_.on_request(*self);
            if (!self->answered_ && !self->aborted_)
                self->send(500, "application/json", R"({"status":"failed","result":"no answer"})", {});
            net::post(self->stream_.get_executor(), [self] {
                self->handled_ = true;
                if (!self->queued_)
                    self->close();  // otherwise once the answer is written
            });
        });
    }

    // Reads what the client still sends until it stops (a second at most), then closes: closing
    // with unread bytes resets the connection, and the client could lose an answer given early.
    void close()
    {
        if (aborted_)
            return finish();
        lowest().expires_at(std::min(deadline_, steady::now() + std::chrono::seconds(1)));
        if constexpr (tls) {
            if (parser_.is_done())
                return shut_down();
            drain(&connection::shut_down);
        } else {
            beast::error_code ec;
            lowest().socket().shutdown(tcp::socket::shutdown_send, ec);
            drain(&connection::finish);
        }
    }

    void drain(void (connection::*then)())
    {
        ignored_.resize(16 * 1024);
        stream_.async_read_some(
            net::buffer(ignored_), [self = this->shared_from_this(), then](beast::error_code ec, std::size_t) {
                ec ? ((*self).*then)() : self->drain(then);
            });
    }

    void shut_down()
    {
        if constexpr (tls)
            stream_.async_shutdown([self = this->shared_from_this()](beast::error_code) { self->finish(); });
    }

    void finish()
    {
        server_.ended(&state_);  // before the socket closes: stop() must not reach a number reused since
        beast::error_code ec;
        lowest().socket().close(ec);
    }

    // Runs one asynchronous operation on the connection's strand and waits for its end.
    template <class Initiate> beast::error_code await(Initiate&& initiate)
    {
        beast::error_code result = net::error::would_block;
        bool done = false;
        net::dispatch(stream_.get_executor(), [&] {
            initiate([&](beast::error_code ec, auto&&...) {
                std::lock_guard<std::mutex> lock(wait_mutex_);
                result = ec;
                done = true;
                waited_.notify_one();
            });
        });
        std::unique_lock<std::mutex> lock(wait_mutex_);
        waited_.wait(lock, [&] { return done; });
        return result;
    }

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
        if (failed_ || sent_)
            return false;
        failed_ = bool(await([&](auto h) {
            lowest().expires_after(server_.options.write_timeout);
            net::async_write(stream_, net::buffer(data, size), h);
        }));
        return !failed_;
    }

    http_server::impl& server_;
    Stream stream_;
    http_server::impl::live state_;
    steady::time_point deadline_;
    beast::flat_buffer buffer_;
    http::request_parser<http::buffer_body> parser_;
    http_request request_;
    std::string body_, ignored_, answer_;
    bool prefetched_ = false, prefetch_complete_ = false;
    bool answered_ = false, aborted_ = false, failed_ = false;
    bool sent_ = false;     // send() was called (on the handler's thread)
    bool queued_ = false;   // its answer waits to be written (on the strand): the connection closes after it
    bool handled_ = false;  // the handler has returned
    int status_ = 0;
    std::mutex wait_mutex_;
    std::condition_variable waited_;
};

}  // namespace

void http_server::impl::accept_next()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (stopping || accept_pending || active >= options.max_connections)
            return;
        accept_pending = true;
    }
    acceptor.async_accept(net::make_strand(io), [this](beast::error_code ec, tcp::socket socket) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            accept_pending = false;
            changed.notify_all();
        }
        if (!ec)
            take(std::move(socket));
        if (ec !=
            net::error::operation_aborted)  // otherwise closed; e.g. too many open files: the next may fare better
            accept_next();
    });
}

void http_server::impl::take(tcp::socket socket)
{
    beast::error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);  // a streamed answer's pieces leave at once
    const auto begin = [this](auto c) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (stopping)
                return;                   // closed unserved
            sessions.insert(c->state());  // known to stop() from here on
            ++active;
        }
        net::dispatch(c->get_executor(), [c] { c->start(); });
    };
    if (options.tls)
        begin(
            std::make_shared<connection<beast::ssl_stream<beast::tcp_stream>>>(*this, std::move(socket), *options.tls));
    else
        begin(std::make_shared<connection<beast::tcp_stream>>(*this, std::move(socket)));
}

void http_server::impl::run_handler(std::function<void()> job)
{
    std::lock_guard<std::mutex> lock(mutex);
    jobs.push_back(std::move(job));
    if (idle < jobs.size())  // a thread for each handler at once, kept for the next ones
        workers.emplace_back([this] { work(); });
    else
        job_ready.notify_one();
}

void http_server::impl::work()
{
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        ++idle;
        job_ready.wait(lock, [&] { return !jobs.empty() || workers_end; });
        --idle;
        if (jobs.empty())
            return;
        std::function<void()> job = std::move(jobs.front());
        jobs.pop_front();
        lock.unlock();
        job();
        job = nullptr;  // the connection it holds is let go outside the lock
        lock.lock();
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
    net::post(d.acceptor.get_executor(), [&d] { d.accept_next(); });
    // Half the cores, at least one: the handshakes are their work, and they never wait; the other
    // half is the handlers', the store's and the database's. More threads than that only hand
    // work to each other (measured: 15% more CPU per record with two threads on two cores).
    for (unsigned i = 0; i < std::max(1u, std::thread::hardware_concurrency() / 2); ++i)
        d.io_threads.emplace_back([&d] { d.io.run(); });
    return true;
}

int http_server::port() const { return d_->port; }

void http_server::stop(bool abort_all)
{
    impl& d = *d_;
    {
        std::lock_guard<std::mutex> lock(d.mutex);
        d.stopping = true;
    }
    net::post(d.acceptor.get_executor(), [&d] {
        beast::error_code ec;
        d.acceptor.close(ec);
    });
    std::unique_lock<std::mutex> lock(d.mutex);
    // Otherwise every connection taken up is served to its end, which the request deadline bounds.
    if (abort_all)
        for (impl::live* l : d.sessions)
            ::shutdown(l->fd, SHUT_RDWR);
    d.changed.wait(lock, [&] { return d.active == 0 && !d.accept_pending; });
    d.workers_end = true;
    d.job_ready.notify_all();
    lock.unlock();
    d.keep_running.reset();
    for (std::thread& t : d.io_threads)
        if (t.joinable())
            t.join();
    for (std::thread& t : d.workers)
        if (t.joinable())
            t.join();
}

}  // namespace collector
