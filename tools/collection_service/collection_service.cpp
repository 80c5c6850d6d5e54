#include "collection_service.h"

#include "tools/collector/certificates.h"
#include "tools/collector/data_folder.h"
#include "tools/collector/protocol.h"
#include "tools/collector/store.h"
#include "tools/collector/transport.h"

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <thread>

namespace fs = std::filesystem;

namespace collection {

std::string received_request::header(const std::string& name) const
{
    for (const auto& h : headers)
        if (collector::same_header_name(h.first, name))
            return h.second;
    return {};
}

bool received_request::has_header(const std::string& name) const { return header_count(name) > 0; }

int received_request::header_count(const std::string& name) const
{
    return int(std::count_if(
        headers.begin(), headers.end(), [&](const auto& h) { return collector::same_header_name(h.first, name); }));
}

struct collection_service::impl {
    service_options options;
    std::string error;
    std::string data_dir;
    bool own_data_dir = false;
    int port = 0;
    std::unique_ptr<collector::record_store> store;
    std::unique_ptr<collector::protocol> protocol;
    std::unique_ptr<collector::http_server> server;

    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::vector<received_request> received;
    script current_script;
    std::uint64_t release_generation = 0;
    bool stopping = false;

    void handle(collector::exchange& ex);
    void respond(const reply& r, collector::exchange& ex);
};

void collection_service::impl::handle(collector::exchange& ex)
{
    const collector::http_request& head = ex.request();
    received_request request;
    request.at = std::chrono::steady_clock::now();
    request.method = head.method;
    request.target = head.target;
    request.path = head.path;
    request.headers = head.headers;
    std::unique_ptr<collector::protocol::incoming> in = protocol->begin(head);
    // The parts as the service saw them, each kept up to keep_limit.
    collector::multipart_reader parts;
    const bool multipart = parts.start(head.header("Content-Type"));
    parts.on_part = [&](const collector::multipart_reader::part_head& p) {
        request.parts.push_back({p.name, p.filename, p.content_type, {}, 0});
    };
    parts.on_data = [&](const char* data, std::size_t size) {
        received_part& part = request.parts.back();
        part.size += size;
        if (part.content.size() < options.keep_limit)
            part.content.append(data, std::min(size, options.keep_limit - part.content.size()));
    };
    const auto state = ex.read_body([&](const char* data, std::size_t size) {
        request.body_size += size;
        if (multipart)
            parts.feed(data, size);
        else if (request.body.size() < options.keep_limit)
            request.body.append(data, std::min(size, options.keep_limit - request.body.size()));
        if (in)
            in->feed(data, size);
    });
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (options.keep_requests)
            received.push_back(request);
        changed.notify_all();
    }
    int status = 0;
    if (state != collector::exchange::body_state::complete) {
        // Before any script: no answer can be based on a body that is cut or was never read.
        const bool too_large = state == collector::exchange::body_state::too_large;
        reply refusal;
        refusal.status = too_large ? 413 : 400;
        refusal.body = collector::failure_body(
            too_large ? "body larger than " + std::to_string(options.max_body_size) + " bytes" : "body incomplete");
        respond(refusal, ex);
        status = refusal.status;
    } else {
        script s;
        {
            std::lock_guard<std::mutex> lock(mutex);
            s = current_script;
        }
        if (const std::optional<reply> scripted = s ? s(request) : std::nullopt) {
            respond(*scripted, ex);
            status = scripted->status;
        } else if (in) {
            const collector::answer a = in->finish(state);
            reply r;
            r.status = a.status, r.content_type = a.content_type, r.body = a.body;
            respond(r, ex);
            status = r.status;
        } else {
            protocol->answer_directly(ex);
            status = ex.status();
        }
    }
    if (options.on_answer)
        options.on_answer(request, status);
}

void collection_service::impl::respond(const reply& r, collector::exchange& ex)
{
    if (r.silent) {
        std::unique_lock<std::mutex> lock(mutex);
        const std::uint64_t generation = release_generation;
        changed.wait(lock, [&] { return stopping || release_generation != generation; });
        lock.unlock();
        ex.abort(false);  // closed without an answer
        return;
    }
    if (r.delay.count() > 0) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_for(lock, r.delay, [&] { return stopping; });
    }
    if (!r.reset_midway && r.chunk_size == 0) {
        ex.send(r.status, r.content_type, r.body, r.headers);
        return;
    }
    const std::size_t stop_at = r.reset_midway ? r.body.size() / 2 : r.body.size();
    const std::size_t chunk = r.chunk_size ? r.chunk_size : 64 * 1024;
    if (!ex.send_head(r.status, r.content_type, r.body.size(), r.headers))
        return;
    for (std::size_t offset = 0; offset < stop_at; offset += chunk) {
        if (offset > 0 && r.chunk_pause.count() > 0)
            std::this_thread::sleep_for(r.chunk_pause);  // the misbehaviour asked for: a slow server
        if (!ex.send_piece(r.body.data() + offset, std::min(chunk, stop_at - offset)))
            return;
    }
    if (r.reset_midway)
        ex.abort(true);  // the answer half sent
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
    if (!collector::data_folder::prepare(d.data_dir, d.error))
        return false;
    collector::transport_options transport;
    if (d.options.tls) {
        collector::tls_settings tls{collector::data_folder::path(d.data_dir, collector::data_folder::kCertificate),
            collector::data_folder::path(d.data_dir, collector::data_folder::kKey), d.options.tls13_only,
            d.options.prompt_ack};
        if (!collector::ensure_local_certificates(d.data_dir, d.options.self_signed, d.error) ||
            !(transport.tls = collector::make_tls_context(tls, d.error)))
            return false;
    }
    try {
        if (d.options.store_received && !d.store)
            d.store = collector::open_store(collector::data_folder::default_database(d.data_dir));
    } catch (const collector::store_error& e) {
        d.error = e.what();
        return false;
    }
    d.protocol = std::make_unique<collector::protocol>(
        collector::protocol_options{d.data_dir, {kTestAppId, kReleaseAppId}}, d.store.get());
    transport.host = d.options.host;
    transport.port = d.options.port;
    transport.request_deadline = d.options.request_deadline;
    transport.max_connections = std::max<std::size_t>(d.options.threads, 1);
    transport.body_limit = d.options.max_body_size;
    d.server = std::make_unique<collector::http_server>(transport, [&d](collector::exchange& ex) { d.handle(ex); });
    {
        std::lock_guard<std::mutex> lock(d.mutex);
        d.stopping = false;
    }
    if (!d.server->start(d.error))
        return false;
    d.port = d.server->port();
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
        d.server->stop(true);
}

std::string collection_service::public_key_pin() const
{
    return collector::public_key_pin(collector::data_folder::path(d_->data_dir, collector::data_folder::kCertificate));
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
