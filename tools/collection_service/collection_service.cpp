#include "collection_service.h"

#include <httplib.h>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <string_view>
#include <thread>
#include <type_traits>

namespace fs = std::filesystem;
using steady = std::chrono::steady_clock;

namespace collection {

const char* const kTestAppId = "3c9d0a7e51b24f68e0a7c2d9b4f6e183";
const char* const kReleaseAppId = "a0f4c9e27d5b3816c4e9a7d2f05b68c1";

namespace {

bool same_name(const std::string& a, const std::string& b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

// A certificate for `key`, named `common_name`, valid ten years, signed by `issuer_key` as
// `issuer` (by the key itself when there is no issuer): a local authority, or a server
// certificate for 127.0.0.1 and localhost.
X509* issue_certificate(EVP_PKEY* key, const char* common_name, X509* issuer, EVP_PKEY* issuer_key,
                        bool authority)
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

// P-256 keys. The server's certificate comes from a local authority whose certificate is written
// as ca.pem (its key is thrown away) for clients to trust, or is self-signed.
bool create_certificates(const std::string& dir, bool self_signed)
{
    EVP_PKEY* key = EVP_EC_gen("P-256");
    EVP_PKEY* authority_key = self_signed ? nullptr : EVP_EC_gen("P-256");
    X509* authority = self_signed || !authority_key
                          ? nullptr
                          : issue_certificate(authority_key, "information_api local authority", nullptr,
                                              authority_key, true);
    X509* cert = !key || (!self_signed && !authority)
                     ? nullptr
                     : issue_certificate(key, "127.0.0.1", authority, self_signed ? key : authority_key, false);
    bool ok = cert && (self_signed || write_certificate(dir + "/ca.pem", authority)) &&
              write_certificate(dir + "/cert.pem", cert);
    if (ok) {
        // The key is private from its first byte on: created 0600, never readable by others.
        const std::string key_path = dir + "/key.pem";
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

std::string fresh_id()
{
    static std::mt19937_64 generator{std::random_device{}()};
    static std::mutex mutex;
    std::lock_guard<std::mutex> lock(mutex);
    char text[25];
    std::snprintf(text, sizeof text, "%08x%016llx", unsigned(generator()),
                  static_cast<unsigned long long>(generator()));
    return text;
}

std::string answer(const std::string& status, const std::string& result)
{
    return R"({"status":")" + status + R"(","result":)" + result + "}";
}

std::string quoted(const std::string& text)
{
    return "\"" + text + "\"";
}

// A request's text reduced to letters, digits, '_', '-' and the characters in `extra`: whatever a
// client sends, it cannot name a folder or climb out of one.
std::string reduced(const std::string& text, const char* extra)
{
    std::string out;
    for (const char c : text)
        if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
            c == '-' || (c != '\0' && std::strchr(extra, c)))
            out += c;
    return out;
}

std::string query_value(const std::string& target, const std::string& key)
{
    const auto at = target.find(key + "=");
    if (at == std::string::npos)
        return {};
    const auto start = at + key.size() + 1;
    return target.substr(start, target.find_first_of("?&", start) - start);
}

// A body being written to disk while it arrives. It becomes a stored record or upload only once
// the service accepted the request; a refused or broken one leaves nothing behind.
class spool_file {
public:
    spool_file() = default;
    spool_file(const spool_file&) = delete;
    spool_file& operator=(const spool_file&) = delete;
    ~spool_file()
    {
        if (path_.empty())
            return;
        out_.close();
        std::error_code ec;
        fs::remove(path_, ec);
    }

    void open(const fs::path& folder)
    {
        std::error_code ec;
        fs::create_directories(folder, ec);
        path_ = folder / fresh_id();
        out_.open(path_, std::ios::binary);
    }
    bool is_open() const { return out_.is_open(); }
    void write(const char* data, std::size_t length) { out_.write(data, std::streamsize(length)); }

    // Moves the complete file to `target`, never over an existing file; false when it could not
    // be written or moved.
    bool keep_as(const fs::path& target)
    {
        out_.close();
        std::error_code ec;
        fs::create_directories(target.parent_path(), ec);
        if (out_.fail() || (fs::create_hard_link(path_, target, ec), ec))
            return false;
        fs::remove(path_, ec);
        path_.clear();
        return true;
    }

private:
    fs::path path_;
    std::ofstream out_;
};

// Waits until `sock` is ready for `events`; false once `until` passed or the server stopped
// listening (then nobody waits for this connection any more).
bool wait_ready(int sock, short events, steady::time_point until, const std::atomic<int>& listening)
{
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - steady::now()).count();
        if (left <= 0 || listening == INVALID_SOCKET)
            return false;
        pollfd p{sock, events, 0};
        const int n = ::poll(&p, 1, int(std::min<long long>(left, 100)));  // looks at stop() often
        if (n > 0)
            return true;  // POLLHUP and POLLERR too: the next call on the socket reports them
        if (n < 0 && errno != EINTR)
            return false;
    }
}

// One connection on a non-blocking socket, plain or TLS. Reads end at the request's deadline,
// each write waits at most write_timeout for room.
class connection final : public httplib::Stream {
public:
    connection(int sock, SSL* ssl, steady::time_point deadline, steady::duration write_timeout,
               const std::atomic<int>& listening)
        : sock_(sock), ssl_(ssl), deadline_(deadline), write_timeout_(write_timeout), listening_(listening)
    {
    }

    bool handshake() { return transfer(POLLIN, deadline_, [this] { return SSL_accept(ssl_); }) > 0; }

    bool is_readable() const override
    {
        return (ssl_ && SSL_pending(ssl_) > 0) || wait_ready(sock_, POLLIN, deadline_, listening_);
    }
    bool is_writable() const override
    {
        return wait_ready(sock_, POLLOUT, steady::now() + write_timeout_, listening_);
    }
    ssize_t read(char* data, std::size_t size) override
    {
        const int n = int(std::min<std::size_t>(size, INT_MAX));
        return transfer(POLLIN, deadline_, [&]() -> ssize_t {
            return ssl_ ? SSL_read(ssl_, data, n) : ::recv(sock_, data, std::size_t(n), 0);
        });
    }
    ssize_t write(const char* data, std::size_t size) override
    {
        const int n = int(std::min<std::size_t>(size, INT_MAX));
        return transfer(POLLOUT, steady::now() + write_timeout_, [&]() -> ssize_t {
            return ssl_ ? SSL_write(ssl_, data, n) : ::send(sock_, data, std::size_t(n), MSG_NOSIGNAL);
        });
    }
    void get_remote_ip_and_port(std::string& ip, int& port) const override { address(::getpeername, ip, port); }
    void get_local_ip_and_port(std::string& ip, int& port) const override { address(::getsockname, ip, port); }
    socket_t socket() const override { return sock_; }

    // Half-closes and reads what the client still sends until it closes or `until`: closing with
    // unread bytes resets the connection, and the client could lose an answer given early (413).
    void linger(steady::time_point until)
    {
        ::shutdown(sock_, SHUT_WR);
        char ignored[16 * 1024];
        while (wait_ready(sock_, POLLIN, until, listening_)) {
            const ssize_t n = ::recv(sock_, ignored, sizeof ignored, 0);
            if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR))
                break;
        }
    }

private:
    // Runs `op` until it moves bytes, waiting for what TLS or the socket asks for meanwhile.
    template <class Op>
    ssize_t transfer(short events, steady::time_point until, Op op) const
    {
        for (;;) {
            ERR_clear_error();
            const ssize_t n = op();
            if (n > 0)
                return n;
            if (ssl_) {
                const int error = SSL_get_error(ssl_, int(n));
                if (error == SSL_ERROR_ZERO_RETURN)
                    return 0;
                if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE)
                    return -1;
                events = error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
            } else if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
                return n;
            }
            if (!wait_ready(sock_, events, until, listening_))
                return -1;
        }
    }

    void address(int (*get)(int, sockaddr*, socklen_t*), std::string& ip, int& port) const
    {
        sockaddr_storage addr{};
        socklen_t length = sizeof addr;
        char host[NI_MAXHOST], service[NI_MAXSERV];
        if (get(sock_, reinterpret_cast<sockaddr*>(&addr), &length) == 0 &&
            getnameinfo(reinterpret_cast<sockaddr*>(&addr), length, host, sizeof host, service,
                        sizeof service, NI_NUMERICHOST | NI_NUMERICSERV) == 0) {
            ip = host;
            port = std::atoi(service);
        }
    }

    int sock_;
    SSL* ssl_;
    steady::time_point deadline_;
    steady::duration write_timeout_;
    const std::atomic<int>& listening_;
};

// The packaged server bounds each recv only, so a client trickling a byte every few seconds held
// one of its threads forever. This one serves one request per connection and gives the client
// request_deadline for all of it: handshake, head and body.
template <class Base>
class deadline_server final : public Base {
public:
    template <class... Args>
    explicit deadline_server(std::chrono::milliseconds deadline, Args&&... args)
        : Base(std::forward<Args>(args)...), deadline_(deadline)
    {
    }

private:
    bool process_and_close_socket(socket_t sock) override
    {
        const steady::time_point deadline = steady::now() + deadline_;
        ::fcntl(sock, F_SETFL, ::fcntl(sock, F_GETFL) | O_NONBLOCK);
        SSL* ssl = nullptr;
        if constexpr (std::is_same_v<Base, httplib::SSLServer>) {
            ssl = SSL_new(this->ssl_context());
            if (ssl)
                SSL_set_fd(ssl, sock);
        }
        const auto write_timeout = std::chrono::seconds(this->write_timeout_sec_) +
                                   std::chrono::microseconds(this->write_timeout_usec_);
        connection conn(sock, ssl, deadline, write_timeout, this->svr_sock_);
        const bool tls = std::is_same_v<Base, httplib::SSLServer>;
        bool ok = false;
        if (this->svr_sock_ != INVALID_SOCKET && (!tls || (ssl && conn.handshake()))) {
            bool closed = false;
            ok = this->process_request(conn, true, closed, [ssl](httplib::Request& req) { req.ssl = ssl; });
        }
        if (ssl) {
            if (ok)
                SSL_shutdown(ssl);
            SSL_free(ssl);
        }
        conn.linger(std::min(deadline, steady::now() + std::chrono::seconds(1)));
        ::close(sock);
        return ok;
    }

    std::chrono::milliseconds deadline_;
};

// Starts a thread when a connection arrives and none is idle, up to `most`: each test starts its
// own service, and the packaged pool starts all of its threads at once and never more.
class growing_pool final : public httplib::TaskQueue {
public:
    explicit growing_pool(std::size_t most) : most_(std::max<std::size_t>(most, 1)) {}

    // Called by the accepting thread only, as is shutdown(): threads_ needs no lock.
    void enqueue(std::function<void()> job) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        jobs_.push_back(std::move(job));
        if (idle_ < jobs_.size() && threads_.size() < most_)
            threads_.emplace_back([this] { work(); });
        else
            ready_.notify_one();
    }

    void shutdown() override
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            shutting_down_ = true;
        }
        ready_.notify_all();
        for (std::thread& t : threads_)
            t.join();
    }

private:
    void work()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            ++idle_;
            ready_.wait(lock, [this] { return !jobs_.empty() || shutting_down_; });
            --idle_;
            if (jobs_.empty())
                return;
            std::function<void()> job = std::move(jobs_.front());
            jobs_.pop_front();
            lock.unlock();
            job();
            lock.lock();
        }
    }

    const std::size_t most_;
    std::vector<std::thread> threads_;
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<std::function<void()>> jobs_;
    std::size_t idle_ = 0;
    bool shutting_down_ = false;
};

}  // namespace

std::string received_request::header(const std::string& name) const
{
    for (const auto& h : headers)
        if (same_name(h.first, name))
            return h.second;
    return {};
}

bool received_request::has_header(const std::string& name) const
{
    return header_count(name) > 0;
}

int received_request::header_count(const std::string& name) const
{
    return int(std::count_if(headers.begin(), headers.end(),
                             [&](const auto& h) { return same_name(h.first, name); }));
}

// A request while the service reads it: besides what is kept for inspection, what the real answer
// needs of a body it does not keep (its first and last non-blank bytes) and the copy on disk.
struct incoming {
    enum class body_state { complete, too_large, incomplete };
    received_request request;
    body_state body = body_state::complete;
    char first = 0, last = 0;
    spool_file spool;  // the record's body or the upload's file part, when the service stores them
};

struct collection_service::impl {
    service_options options;
    std::string error;
    std::string data_dir;
    bool own_data_dir = false;
    std::unique_ptr<httplib::Server> server;
    std::thread listener;
    int port = 0;

    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::vector<received_request> received;
    script current_script;
    std::uint64_t release_generation = 0;
    bool stopping = false;
    std::atomic<int> stored{0};

    void read(const httplib::Request& req, const httplib::ContentReader* reader, incoming& in);
    void record(const received_request& request);
    std::optional<reply> run_script(const received_request& request);
    reply real_answer(incoming& in);
    bool serve_file(const fs::path& path, httplib::Response& res);
    bool wait_released();  // false when the service is stopping
    void respond(const reply& r, httplib::Response& res);
    void handle(const httplib::Request& req, httplib::Response& res,
                const httplib::ContentReader* reader);
    void answer_request(incoming& in, httplib::Response& res);
};

void collection_service::impl::read(const httplib::Request& req, const httplib::ContentReader* reader,
                                    incoming& in)
{
    received_request& request = in.request;
    request.at = std::chrono::steady_clock::now();
    request.method = req.method;
    request.target = req.target;
    request.path = req.target.substr(0, req.target.find('?'));
    for (const auto& h : req.headers)
        request.headers.emplace_back(h.first, h.second);
    if (!reader)
        return;
    if (req.get_header_value<std::uint64_t>("Content-Length") > options.max_body_size) {
        in.body = incoming::body_state::too_large;  // refused before a byte of it is read
        return;
    }
    const auto accept = [&](std::string& kept, const char* data, std::size_t length) {
        request.body_size += length;
        if (request.body_size > options.max_body_size) {
            in.body = incoming::body_state::too_large;
            return false;
        }
        if (kept.size() < options.keep_limit)
            kept.append(data, std::min(length, options.keep_limit - kept.size()));
        return true;
    };
    const fs::path spool_folder = fs::path(data_dir) / "incoming";
    bool read_all;
    if (req.is_multipart_form_data()) {
        std::size_t spooled = std::string::npos;  // the first "file" part, the one an upload stores
        read_all = (*reader)(
            [&](const httplib::MultipartFormData& part) {
                request.parts.push_back({part.name, part.filename, part.content_type, {}, 0});
                if (options.store_received && part.name == "file" && !in.spool.is_open()) {
                    in.spool.open(spool_folder);
                    spooled = request.parts.size() - 1;
                }
                return true;
            },
            [&](const char* data, std::size_t length) {
                received_part& part = request.parts.back();
                part.size += length;
                if (request.parts.size() - 1 == spooled)
                    in.spool.write(data, length);
                return accept(part.content, data, length);
            });
    } else {
        if (options.store_received)
            in.spool.open(spool_folder);
        read_all = (*reader)([&](const char* data, std::size_t length) {
            const std::string_view chunk(data, length);
            const auto first = chunk.find_first_not_of(" \t\r\n");
            if (first != std::string_view::npos) {
                in.first = in.first ? in.first : chunk[first];
                in.last = chunk[chunk.find_last_not_of(" \t\r\n")];
            }
            if (in.spool.is_open())
                in.spool.write(data, length);
            return accept(request.body, data, length);
        });
    }
    if (!read_all && in.body == incoming::body_state::complete)
        in.body = incoming::body_state::incomplete;  // shorter than announced, or malformed
}

void collection_service::impl::record(const received_request& request)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (options.keep_requests)
        received.push_back(request);
    changed.notify_all();
}

std::optional<reply> collection_service::impl::run_script(const received_request& request)
{
    script s;
    {
        std::lock_guard<std::mutex> lock(mutex);
        s = current_script;
    }
    return s ? s(request) : std::nullopt;
}

// What the real service answers.
reply collection_service::impl::real_answer(incoming& in)
{
    reply r;
    const received_request& request = in.request;
    const std::string& path = request.path;
    const auto ends_with = [&](const std::string& tail) {
        return path.size() >= tail.size() && path.compare(path.size() - tail.size(), tail.size(), tail) == 0;
    };
    if (request.method == "POST" && ends_with("/dtta")) {
        const std::string app_id = request.header("X-Auth-AppID");
        std::string kind = reduced(query_value(request.target, "type"), "");
        if (kind.empty())
            kind = "untyped";
        if (app_id != kTestAppId && app_id != kReleaseAppId) {
            r.body = answer("failed", quoted("unknown application id"));
        } else if (in.first != '{' || in.last != '}') {
            r.body = answer("failed", quoted("record is not a JSON object"));
        } else {
            const int n = ++stored;
            const fs::path file = fs::path(data_dir) / "received" / (std::to_string(n) + "-" + kind + ".json");
            if (options.store_received && !in.spool.keep_as(file))
                r.body = answer("failed", quoted("cannot store the record"));
            else
                r.body = answer("success", quoted("stored " + kind + " record " + std::to_string(n)));
        }
        return r;
    }
    if (request.method == "POST" && ends_with("/up")) {
        const auto file = std::find_if(request.parts.begin(), request.parts.end(),
                                       [](const received_part& p) { return p.name == "file"; });
        if (file == request.parts.end()) {
            r.body = answer("failed", quoted("no file part"));
            return r;
        }
        // The name as the client's system shows it, without its folders; the id in front keeps
        // it from ever being "." or "..".
        const std::string dfs_id = fresh_id();
        const std::string name = reduced(file->filename.substr(file->filename.find_last_of("/\\") + 1), ".");
        const fs::path stored_as = fs::path(data_dir) / "uploads" / (std::to_string(++stored) + "-" + dfs_id + "-" + name);
        if (options.store_received && !in.spool.keep_as(stored_as))
            r.body = answer("failed", quoted("cannot store the file"));
        else
            r.body = answer("success", R"({"dfs_id":")" + dfs_id + "\"}");
        return r;
    }
    r.status = 404;
    r.content_type = "text/html";
    r.body = "<html><body><h1>404 Not Found</h1></body></html>";
    return r;
}

bool collection_service::impl::serve_file(const fs::path& relative, httplib::Response& res)
{
    for (const auto& piece : relative)
        if (piece == "..") {
            res.status = 403;
            return true;
        }
    const fs::path path = fs::path(data_dir) / relative;
    std::error_code ec;
    if (!fs::is_regular_file(path, ec))
        return false;
    const std::size_t size = std::size_t(fs::file_size(path, ec));
    auto file = std::make_shared<std::ifstream>(path, std::ios::binary);
    res.status = 200;  // set before the body is sent, for whoever is told of the answer
    const bool json = path.extension() == ".json";
    res.set_content_provider(
        size, json ? "application/json" : "application/octet-stream",
        [file](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
            char chunk[64 * 1024];
            file->seekg(std::streamoff(offset));
            file->read(chunk, std::streamsize(std::min(length, sizeof chunk)));
            return file->gcount() > 0 && sink.write(chunk, std::size_t(file->gcount()));
        });
    return true;
}

bool collection_service::impl::wait_released()
{
    std::unique_lock<std::mutex> lock(mutex);
    const std::uint64_t generation = release_generation;
    changed.wait(lock, [&] { return stopping || release_generation != generation; });
    return !stopping;
}

void collection_service::impl::respond(const reply& r, httplib::Response& res)
{
    res.status = r.status;
    for (const auto& h : r.headers)
        res.set_header(h.first.c_str(), h.second);
    if (r.silent) {
        wait_released();
        // Close the connection without an answer: the provider fails before writing a byte.
        res.set_content_provider(1, r.content_type, [](std::size_t, std::size_t, httplib::DataSink&) {
            return false;
        });
        return;
    }
    if (r.delay.count() > 0) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_for(lock, r.delay, [&] { return stopping; });
    }
    if (!r.reset_midway && r.chunk_size == 0) {
        res.set_content(r.body, r.content_type.c_str());
        return;
    }
    auto body = std::make_shared<std::string>(r.body);
    const std::size_t stop_at = r.reset_midway ? body->size() / 2 : body->size();
    const std::size_t chunk = r.chunk_size ? r.chunk_size : 64 * 1024;
    const auto pause = r.chunk_pause;
    res.set_content_provider(
        body->size(), r.content_type,
        [body, stop_at, chunk, pause](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
            if (offset >= stop_at)
                return false;  // drops the connection with the answer half sent
            if (offset > 0 && pause.count() > 0)
                std::this_thread::sleep_for(pause);
            const std::size_t n = std::min({length, chunk, stop_at - offset});
            return sink.write(body->data() + offset, n);
        });
}

void collection_service::impl::handle(const httplib::Request& req, httplib::Response& res,
                                      const httplib::ContentReader* reader)
{
    incoming in;
    read(req, reader, in);
    record(in.request);
    answer_request(in, res);
    if (options.on_answer)
        options.on_answer(in.request, res.status);
}

void collection_service::impl::answer_request(incoming& in, httplib::Response& res)
{
    const received_request& request = in.request;
    if (in.body != incoming::body_state::complete) {
        // Before any script: no answer can be based on a body that is cut or was never read.
        const bool too_large = in.body == incoming::body_state::too_large;
        reply refusal;
        refusal.status = too_large ? 413 : 400;
        const std::string why = too_large ? "body larger than " + std::to_string(options.max_body_size) + " bytes"
                                          : "body incomplete";
        refusal.body = answer("failed", quoted(why));
        respond(refusal, res);
        return;
    }
    const std::optional<reply> scripted = run_script(request);
    if (!scripted && request.method == "GET") {
        const std::string& path = request.path;
        const bool servable = path.rfind("/software/", 0) == 0 || path.rfind("/files/", 0) == 0;
        if (servable && serve_file(fs::path(path.substr(1)), res))
            return;
    }
    respond(scripted ? *scripted : real_answer(in), res);
}

collection_service::collection_service(service_options options) : d_(std::make_unique<impl>())
{
    d_->options = std::move(options);
}

collection_service::~collection_service()
{
    stop();
    if (d_->own_data_dir) {
        std::error_code ec;
        fs::remove_all(d_->data_dir, ec);
    }
}

bool collection_service::start()
{
    impl& d = *d_;
    d.data_dir = d.options.data_dir;
    if (d.data_dir.empty()) {
        std::string pattern = (fs::temp_directory_path() / "collection-XXXXXX").string();
        if (!mkdtemp(pattern.data())) {
            d.error = "cannot create a data directory";
            return false;
        }
        d.data_dir = pattern;
        d.own_data_dir = true;
    }
    std::error_code ec;
    fs::create_directories(d.data_dir, ec);
    fs::remove_all(fs::path(d.data_dir) / "incoming", ec);  // what a killed run left half-written
    // Records and uploads are numbered in arrival order, on from what an earlier run stored.
    for (const char* folder : {"received", "uploads"})
        for (const auto& entry : fs::directory_iterator(fs::path(d.data_dir) / folder, ec))
            d.stored = std::max(d.stored.load(), std::atoi(entry.path().filename().c_str()));
    if (d.options.tls) {
        const std::string cert = d.data_dir + "/cert.pem";
        const std::string key = d.data_dir + "/key.pem";
        const bool self_signed = d.options.self_signed;
        if ((!fs::exists(cert) || !fs::exists(key) || (!self_signed && !fs::exists(d.data_dir + "/ca.pem"))) &&
            !create_certificates(d.data_dir, self_signed)) {
            d.error = "cannot create a certificate in " + d.data_dir;
            return false;
        }
        const bool tls13_only = d.options.tls13_only;
        const bool prompt_ack = d.options.prompt_ack;
        const auto deadline = d.options.request_deadline;
        d.server = std::make_unique<deadline_server<httplib::SSLServer>>(deadline, [=](SSL_CTX& ctx) {
            if (prompt_ack)
                SSL_CTX_set_msg_callback(&ctx, [](int write_p, int, int content_type, const void*,
                                                  size_t, SSL* ssl, void*) {
                    if (!write_p && content_type == SSL3_RT_HEADER) {
                        int yes = 1;  // not sticky: renewed for every record read
                        setsockopt(SSL_get_fd(ssl), IPPROTO_TCP, TCP_QUICKACK, &yes, sizeof yes);
                    }
                });
            return SSL_CTX_use_certificate_chain_file(&ctx, cert.c_str()) == 1 &&
                   SSL_CTX_use_PrivateKey_file(&ctx, key.c_str(), SSL_FILETYPE_PEM) == 1 &&
                   (!tls13_only || SSL_CTX_set_min_proto_version(&ctx, TLS1_3_VERSION) == 1);
        });
    } else {
        d.server = std::make_unique<deadline_server<httplib::Server>>(d.options.request_deadline);
    }
    if (!d.server->is_valid()) {
        d.error = "cannot set up TLS with the certificate in " + d.data_dir;
        return false;
    }
    const std::size_t threads = d.options.threads;
    d.server->new_task_queue = [threads] { return new growing_pool(threads); };
    d.server->set_payload_max_length(std::size_t(std::min<std::uint64_t>(d.options.max_body_size, SIZE_MAX)));
    // The packaged cpp-httplib listens with a backlog of 5, and the library opens one connection
    // per request, up to a thousand at once: remember the socket to widen its backlog.
    int listening = -1;
    d.server->set_socket_options([&listening](int sock) {
        int yes = 1;
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        listening = sock;
    });
    d.server->Get(".*", [&d](const httplib::Request& req, httplib::Response& res) {
        d.handle(req, res, nullptr);
    });
    // Every body is read through the service, never whole into memory by the server.
    const auto with_body = [&d](const httplib::Request& req, httplib::Response& res,
                                const httplib::ContentReader& reader) { d.handle(req, res, &reader); };
    d.server->Post(".*", with_body).Put(".*", with_body).Patch(".*", with_body).Delete(".*", with_body);

    d.port = d.options.port == 0 ? d.server->bind_to_any_port(d.options.host)
                                 : (d.server->bind_to_port(d.options.host, d.options.port)
                                        ? d.options.port
                                        : -1);
    if (d.port <= 0) {
        d.error = "cannot listen on " + d.options.host + ":" + std::to_string(d.options.port);
        return false;
    }
    ::listen(listening, 1024);
    {
        std::lock_guard<std::mutex> lock(d.mutex);
        d.stopping = false;
    }
    d.listener = std::thread([&d] { d.server->listen_after_bind(); });
    // stop() only reaches a server whose accept loop runs; a stop right after start must too.
    while (!d.server->is_running())
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    return true;
}

void collection_service::stop()
{
    impl& d = *d_;
    {
        std::lock_guard<std::mutex> lock(d.mutex);
        d.stopping = true;
        d.changed.notify_all();
    }
    if (d.server)
        d.server->stop();
    if (d.listener.joinable())
        d.listener.join();
}

std::string collection_service::public_key_pin() const
{
    std::string pin;
    FILE* file = std::fopen((d_->data_dir + "/cert.pem").c_str(), "r");
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

const std::string& collection_service::error() const { return d_->error; }
int collection_service::port() const { return d_->port; }
const std::string& collection_service::data_dir() const { return d_->data_dir; }

std::string collection_service::base_url() const
{
    return (d_->options.tls ? "https://" : "http://") + d_->options.host + ":" + std::to_string(d_->port);
}

void collection_service::set_script(script s)
{
    std::lock_guard<std::mutex> lock(d_->mutex);
    d_->current_script = std::move(s);
}

void collection_service::answer_all(const reply& r)
{
    set_script([r](const received_request&) { return std::optional<reply>(r); });
}

void collection_service::release_silent()
{
    std::lock_guard<std::mutex> lock(d_->mutex);
    ++d_->release_generation;
    d_->changed.notify_all();
}

std::vector<received_request> collection_service::received() const
{
    std::lock_guard<std::mutex> lock(d_->mutex);
    return d_->received;
}

std::size_t collection_service::received_count() const
{
    std::lock_guard<std::mutex> lock(d_->mutex);
    return d_->received.size();
}

bool collection_service::wait_for_requests(std::size_t count, std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(d_->mutex);
    return d_->changed.wait_for(lock, timeout, [&] { return d_->received.size() >= count; });
}

void collection_service::clear_received()
{
    std::lock_guard<std::mutex> lock(d_->mutex);
    d_->received.clear();
}

}  // namespace collection
