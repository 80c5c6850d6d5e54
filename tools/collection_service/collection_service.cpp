#include "collection_service.h"

#include <httplib.h>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <thread>

namespace fs = std::filesystem;

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

// A self-signed P-256 certificate for 127.0.0.1 and localhost, valid ten years.
bool create_certificate(const std::string& cert_path, const std::string& key_path)
{
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* cert = X509_new();
    bool ok = key && cert;
    if (ok) {
        X509_set_version(cert, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(cert), long(std::random_device{}() & 0x7fffffff));
        X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
        X509_gmtime_adj(X509_getm_notAfter(cert), 10L * 365 * 24 * 3600);
        X509_set_pubkey(cert, key);
        X509_NAME* name = X509_get_subject_name(cert);
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
        X509_set_issuer_name(cert, name);
        X509V3_CTX ctx;
        X509V3_set_ctx_nodb(&ctx);
        X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
        X509_EXTENSION* san = X509V3_EXT_conf_nid(nullptr, &ctx, NID_subject_alt_name,
                                                  "IP:127.0.0.1,DNS:localhost");
        ok = san && X509_add_ext(cert, san, -1) && X509_sign(cert, key, EVP_sha256());
        X509_EXTENSION_free(san);
    }
    if (ok) {
        FILE* c = std::fopen(cert_path.c_str(), "w");
        FILE* k = std::fopen(key_path.c_str(), "w");
        ok = c && k && PEM_write_X509(c, cert) &&
             PEM_write_PrivateKey(k, key, nullptr, nullptr, 0, nullptr, nullptr);
        if (c)
            std::fclose(c);
        if (k)
            std::fclose(k);
    }
    X509_free(cert);
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

bool looks_like_json_object(const std::string& body)
{
    const auto first = body.find_first_not_of(" \t\r\n");
    const auto last = body.find_last_not_of(" \t\r\n");
    return first != std::string::npos && body[first] == '{' && body[last] == '}';
}

std::string query_value(const std::string& target, const std::string& key)
{
    const auto at = target.find(key + "=");
    if (at == std::string::npos)
        return {};
    const auto start = at + key.size() + 1;
    return target.substr(start, target.find_first_of("?&", start) - start);
}

void write_file(const fs::path& path, const std::string& bytes)
{
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
}

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

    received_request read(const httplib::Request& req, const httplib::ContentReader* reader);
    void record(const received_request& request);
    std::optional<reply> run_script(const received_request& request);
    reply real_answer(const received_request& request);
    bool serve_file(const fs::path& path, httplib::Response& res);
    bool wait_released();  // false when the service is stopping
    void respond(const reply& r, httplib::Response& res);
    void handle(const httplib::Request& req, httplib::Response& res,
                const httplib::ContentReader* reader);
};

received_request collection_service::impl::read(const httplib::Request& req,
                                                const httplib::ContentReader* reader)
{
    received_request request;
    request.at = std::chrono::steady_clock::now();
    request.method = req.method;
    request.target = req.target;
    request.path = req.target.substr(0, req.target.find('?'));
    for (const auto& h : req.headers)
        request.headers.emplace_back(h.first, h.second);
    if (!reader)
        return request;
    const std::size_t keep = options.keep_limit;
    const auto keep_bytes = [keep](std::string& into, std::uint64_t& size, const char* data,
                                   std::size_t length) {
        if (into.size() < keep)
            into.append(data, std::min(length, keep - into.size()));
        size += length;
        return true;
    };
    if (req.is_multipart_form_data()) {
        (*reader)(
            [&](const httplib::MultipartFormData& part) {
                request.parts.push_back({part.name, part.filename, part.content_type, {}, 0});
                return true;
            },
            [&](const char* data, std::size_t length) {
                request.body_size += length;
                received_part& part = request.parts.back();
                return keep_bytes(part.content, part.size, data, length);
            });
    } else {
        (*reader)([&](const char* data, std::size_t length) {
            return keep_bytes(request.body, request.body_size, data, length);
        });
    }
    return request;
}

void collection_service::impl::record(const received_request& request)
{
    std::lock_guard<std::mutex> lock(mutex);
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
reply collection_service::impl::real_answer(const received_request& request)
{
    reply r;
    const std::string& path = request.path;
    const auto ends_with = [&](const std::string& tail) {
        return path.size() >= tail.size() && path.compare(path.size() - tail.size(), tail.size(), tail) == 0;
    };
    if (request.method == "POST" && ends_with("/dtta")) {
        const std::string app_id = request.header("X-Auth-AppID");
        const std::string type = query_value(request.target, "type");
        if (app_id != kTestAppId && app_id != kReleaseAppId) {
            r.body = answer("failed", quoted("unknown application id"));
        } else if (!looks_like_json_object(request.body)) {
            r.body = answer("failed", quoted("record is not a JSON object"));
        } else {
            const int n = ++stored;
            if (options.store_received)
                write_file(fs::path(data_dir) / "received" /
                               (std::to_string(n) + "-" + (type.empty() ? "untyped" : type) + ".json"),
                           request.body);
            r.body = answer("success", quoted("stored " + type + " record " + std::to_string(n)));
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
        const std::string dfs_id = fresh_id();
        if (options.store_received)
            write_file(fs::path(data_dir) / "uploads" /
                           (dfs_id + "-" + fs::path(file->filename).filename().string()),
                       file->content);
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
    const received_request request = read(req, reader);
    record(request);
    const std::optional<reply> scripted = run_script(request);
    if (!scripted && request.method == "GET") {
        const std::string& path = request.path;
        const bool servable = path.rfind("/software/", 0) == 0 || path.rfind("/files/", 0) == 0;
        if (servable && serve_file(fs::path(path.substr(1)), res))
            return;
    }
    respond(scripted ? *scripted : real_answer(request), res);
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
    if (d.options.tls) {
        const std::string cert = d.data_dir + "/cert.pem";
        const std::string key = d.data_dir + "/key.pem";
        if ((!fs::exists(cert) || !fs::exists(key)) && !create_certificate(cert, key)) {
            d.error = "cannot create a certificate in " + d.data_dir;
            return false;
        }
        const bool tls13_only = d.options.tls13_only;
        const bool prompt_ack = d.options.prompt_ack;
        d.server = std::make_unique<httplib::SSLServer>([=](SSL_CTX& ctx) {
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
        d.server = std::make_unique<httplib::Server>();
    }
    if (!d.server->is_valid()) {
        d.error = "cannot set up TLS with the certificate in " + d.data_dir;
        return false;
    }
    const std::size_t threads = d.options.threads;
    d.server->new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
    d.server->set_keep_alive_max_count(1);  // one request per connection, as the library sends
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
    d.server->Post(".*", [&d](const httplib::Request& req, httplib::Response& res,
                              const httplib::ContentReader& reader) { d.handle(req, res, &reader); });

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
