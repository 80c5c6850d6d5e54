#include "protocol.h"

#include "data_folder.h"
#include "store_engine.h"

#include <openssl/evp.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>

namespace fs = std::filesystem;

namespace collector {

namespace {

bool ends_with(const std::string& text, const std::string& tail)
{
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

}  // namespace

std::string json_text(const std::string& text)
{
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\')
            out += '\\', out += c;
        else if (static_cast<unsigned char>(c) < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else
            out += c;
    }
    return out + "\"";
}

namespace {

// A parameter of a header value: `filename` of `form-data; name="file"; filename="a.zip"`.
std::string header_parameter(const std::string& value, const std::string& key)
{
    std::size_t at = 0;
    while ((at = value.find(';', at)) != std::string::npos) {
        std::size_t start = value.find_first_not_of(" \t", at + 1);
        at = start;
        if (start == std::string::npos || value.compare(start, key.size() + 1, key + "=") != 0)
            continue;
        start += key.size() + 1;
        if (start < value.size() && value[start] == '"') {
            const std::size_t end = value.find('"', start + 1);
            return value.substr(start + 1, end == std::string::npos ? std::string::npos : end - start - 1);
        }
        return value.substr(start, value.find(';', start) - start);
    }
    return {};
}

// The file an upload's bytes are kept in until they are complete, hashed as they arrive; then
// moved to files/uploads/<2 hex>/<sha256>, once per content. Removed when not kept.
class spool {
public:
    explicit spool(const fs::path& data_dir) : data_dir_(data_dir), hash_(EVP_MD_CTX_new())
    {
        EVP_DigestInit_ex(hash_, EVP_sha256(), nullptr);
        std::error_code ec;
        fs::create_directories(data_dir / data_folder::kIncoming, ec);
        path_ = data_dir / data_folder::kIncoming / fresh_dfs_id();
        fd_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        ok_ = fd_ >= 0;
    }
    ~spool()
    {
        if (fd_ >= 0)
            ::close(fd_);
        if (!path_.empty())
            ::unlink(path_.c_str());
        EVP_MD_CTX_free(hash_);
    }
    void write(const char* data, std::size_t size)
    {
        EVP_DigestUpdate(hash_, data, size);
        size_ += size;
        while (ok_ && size > 0) {
            const ssize_t n = ::write(fd_, data, size);
            ok_ = n > 0;
            const std::size_t written = n > 0 ? std::size_t(n) : 0;
            data += written;
            size -= written;
        }
    }
    // Durable under its content's name; returns that name (empty on failure).
    std::string keep()
    {
        unsigned char digest[32];
        EVP_DigestFinal_ex(hash_, digest, nullptr);
        char hex[65];
        for (int i = 0; i < 32; ++i)
            std::snprintf(hex + 2 * i, 3, "%02x", digest[i]);
        if (!ok_ || ::fsync(fd_) != 0)
            return {};
        const fs::path folder = data_dir_ / data_folder::kUploads / std::string(hex, 2);
        std::error_code ec;
        fs::create_directories(folder, ec);
        if (::rename(path_.c_str(), (folder / hex).c_str()) != 0)
            return {};
        path_.clear();
        const int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        const bool synced = dir >= 0 && ::fsync(dir) == 0;
        if (dir >= 0)
            ::close(dir);
        return synced ? hex : std::string();
    }
    std::uint64_t size() const { return size_; }

private:
    fs::path data_dir_, path_;
    EVP_MD_CTX* hash_;
    int fd_ = -1;
    bool ok_ = false;
    std::uint64_t size_ = 0;
};

class record_upload final : public protocol::incoming {
public:
    record_upload(record_store* store, std::string app_id, std::string kind, bool allowed)
        : store_(store), app_id_(std::move(app_id)), kind_(std::move(kind)), allowed_(allowed)
    {}
    void feed(const char* data, std::size_t size) override
    {
        if (allowed_)
            body_.append(data, size);
    }
    answer finish(exchange::body_state) override
    {
        answer a;
        new_record record;
        if (!acceptable(record, a))
            return a;
        std::exception_ptr error;
        try {
            store_->add(record);
        } catch (const store_error&) {
            error = std::current_exception();
        }
        return stored(error);
    }
    void finish_async(exchange::body_state, std::function<void(const answer&)> done) override
    {
        answer a;
        new_record record;
        if (!acceptable(record, a))
            return done(a);
        store_->add_async(
            std::move(record), [done = std::move(done)](std::exception_ptr error) { done(stored(error)); });
    }

private:
    // False with the answer when the record is refused, or is answered without a store.
    bool acceptable(new_record& record, answer& a)
    {
        if (!allowed_)
            a.body = failure_body("unknown application id");
        else if (!make_record(app_id_, kind_, std::move(body_), record))
            a.body = failure_body("record is not a JSON object");
        else if (store_)
            return true;
        else
            a.body = kStored;
        return false;
    }
    static answer stored(const std::exception_ptr& error)
    {
        answer a;
        try {
            if (error)
                std::rethrow_exception(error);
            a.body = kStored;
        } catch (const record_rejected& e) {  // its content, not the database: sending it again won't help
            a.body = failure_body("record refused by the database: " + std::string(e.what()));
        } catch (const store_error& e) {
            a.status = 503;
            a.body = failure_body("cannot store the record now: " + std::string(e.what()));
        }
        return a;
    }
    static constexpr const char* kStored = R"({"status":"success","result":"stored"})";

    record_store* store_;
    std::string app_id_, kind_, body_;
    bool allowed_;
};

class file_upload final : public protocol::incoming {
public:
    file_upload(record_store* store, const fs::path& data_dir, const http_request& request, bool allowed)
        : store_(store), data_dir_(data_dir), app_id_(request.header("X-Auth-AppID")), allowed_(allowed)
    {
        well_formed_ = reader_.start(request.header("Content-Type"));
        reader_.on_part = [this](const multipart_reader::part_head& head) {
            in_file_ = head.name == "file" && !found_;
            if (in_file_) {
                found_ = true;
                filename_ = head.filename.substr(head.filename.find_last_of("/\\") + 1);
                if (store_ && allowed_)
                    spool_ = std::make_unique<spool>(data_dir_);
            }
        };
        reader_.on_data = [this](const char* data, std::size_t size) {
            if (in_file_ && spool_)
                spool_->write(data, size);
        };
    }
    void feed(const char* data, std::size_t size) override { well_formed_ = well_formed_ && reader_.feed(data, size); }
    answer finish(exchange::body_state) override
    {
        answer a;
        if (!allowed_) {
            a.body = failure_body("unknown application id");
            return a;
        }
        if (!found_ || !well_formed_) {
            a.body = failure_body(found_ ? "malformed multipart body" : "no file part");
            return a;
        }
        new_attachment attachment;
        attachment.dfs_id = fresh_dfs_id();
        attachment.app_id = app_id_;
        attachment.filename = filename_;
        if (spool_) {
            attachment.size = spool_->size();
            attachment.sha256 = spool_->keep();
            try {
                if (attachment.sha256.empty())
                    throw store_error("cannot write the file");
                store_->add(attachment);
            } catch (const store_error& e) {
                a.status = 503;
                a.body = failure_body("cannot store the file now: " + std::string(e.what()));
                return a;
            }
        }
        a.body = R"({"status":"success","result":{"dfs_id":")" + attachment.dfs_id + "\"}}";
        return a;
    }

private:
    record_store* store_;
    fs::path data_dir_;
    std::string app_id_, filename_;
    bool allowed_, well_formed_ = false, in_file_ = false, found_ = false;
    multipart_reader reader_;
    std::unique_ptr<spool> spool_;
};

}  // namespace

std::string failure_body(const std::string& why) { return R"({"status":"failed","result":)" + json_text(why) + "}"; }

std::string fresh_dfs_id()
{
    static std::mt19937_64 generator{std::random_device{}()};
    static std::mutex mutex;
    std::lock_guard<std::mutex> lock(mutex);
    char text[25];
    std::snprintf(
        text, sizeof text, "%08x%016llx", unsigned(generator()), static_cast<unsigned long long>(generator()));
    return text;
}

bool multipart_reader::start(const std::string& content_type)
{
    const std::string boundary = header_parameter(content_type, "boundary");
    delimiter_ = "\r\n--" + boundary;
    return content_type.rfind("multipart/form-data", 0) == 0 && !boundary.empty();
}

bool multipart_reader::feed(const char* data, std::size_t size)
{
    if (state_ == state::broken)
        return false;
    if (state_ == state::done)
        return true;  // the epilogue is ignored
    pending_.append(data, size);
    while (step()) {
    }
    return state_ != state::broken;
}

// Consumes what it can of pending_; false when it needs more bytes (or is done or broken).
bool multipart_reader::step()
{
    switch (state_) {
    case state::delimiter: {  // the preamble up to the first delimiter
        const std::size_t at = pending_.find(delimiter_);
        if (at == std::string::npos) {
            if (pending_.size() > delimiter_.size())
                pending_.erase(0, pending_.size() - delimiter_.size());
            return false;
        }
        pending_.erase(0, at + delimiter_.size());
        state_ = state::after_delimiter;
        return true;
    }
    case state::after_delimiter:
        if (pending_.size() < 2)
            return false;
        if (pending_.compare(0, 2, "--") == 0)
            state_ = state::done;
        else
            state_ = pending_.compare(0, 2, "\r\n") == 0 ? state::head : state::broken;
        pending_.erase(0, 2);
        return state_ == state::head;
    case state::head: {
        const std::size_t end = pending_.find("\r\n\r\n");
        if (end == std::string::npos) {
            if (pending_.size() > 16 * 1024)
                state_ = state::broken;
            return false;
        }
        part_head head;
        std::size_t line = 0;
        while (line < end) {
            const std::size_t eol = std::min(pending_.find("\r\n", line), end);
            const std::string text = pending_.substr(line, eol - line);
            const std::size_t colon = text.find(':');
            const std::string name = text.substr(0, colon);
            std::string value = colon == std::string::npos ? "" : text.substr(colon + 1);
            value.erase(0, value.find_first_not_of(" \t"));
            if (same_header_name(name, "Content-Disposition")) {
                head.name = header_parameter(value, "name");
                head.filename = header_parameter(value, "filename");
            } else if (same_header_name(name, "Content-Type")) {
                head.content_type = value;
            }
            line = eol + 2;
        }
        pending_.erase(0, end + 4);
        if (on_part)
            on_part(head);
        state_ = state::data;
        return true;
    }
    case state::data: {
        const std::size_t at = pending_.find(delimiter_);
        const std::size_t take = at != std::string::npos                ? at
                                 : pending_.size() >= delimiter_.size() ? pending_.size() - delimiter_.size() + 1
                                                                        : 0;
        if (take && on_data)
            on_data(pending_.data(), take);
        pending_.erase(0, at != std::string::npos ? at + delimiter_.size() : take);
        if (at == std::string::npos)
            return false;
        state_ = state::after_delimiter;
        return true;
    }
    case state::done:
    case state::broken:
        return false;
    }
    return false;
}

protocol::protocol(protocol_options options, record_store* store) : options_(std::move(options)), store_(store) {}

bool protocol::allowed(const http_request& request) const
{
    const std::string id = request.header("X-Auth-AppID");
    return std::find(options_.app_ids.begin(), options_.app_ids.end(), id) != options_.app_ids.end();
}

std::unique_ptr<protocol::incoming> protocol::begin(const http_request& request)
{
    if (request.method != "POST")
        return nullptr;
    if (ends_with(request.path, "/dtta")) {
        // The kind names no file: whatever a client sends, it stays a column's text.
        std::string kind = request.query("type");
        if (kind.empty())
            kind = "untyped";
        return std::make_unique<record_upload>(store_, request.header("X-Auth-AppID"), kind, allowed(request));
    }
    if (ends_with(request.path, "/up"))  // existing hosts send files under any application id
        return std::make_unique<file_upload>(store_, options_.data_dir, request, true);
    return nullptr;
}

void protocol::answer_directly(exchange& ex)
{
    const http_request& request = ex.request();
    const std::string& path = request.path;
    const bool served_file = path.rfind("/files/", 0) == 0 && path.rfind("/files/uploads/", 0) != 0;
    const bool servable = request.method == "GET" && (path.rfind("/software/", 0) == 0 || served_file);
    if (servable) {
        const fs::path relative(path.substr(1));
        if (std::any_of(relative.begin(), relative.end(), [](const fs::path& piece) { return piece == ".."; })) {
            ex.send(403, "text/html", "<html><body><h1>403 Forbidden</h1></body></html>");
            return;
        }
        const fs::path file = fs::path(options_.data_dir) / relative;
        std::ifstream in(file, std::ios::binary);
        std::error_code ec;
        if (in && fs::is_regular_file(file, ec)) {
            const std::uint64_t size = fs::file_size(file, ec);
            if (!ex.send_head(200, file.extension() == ".json" ? "application/json" : "application/octet-stream", size))
                return;
            char chunk[64 * 1024];
            while (in.read(chunk, sizeof chunk) || in.gcount() > 0)
                if (!ex.send_piece(chunk, std::size_t(in.gcount())))
                    return;
            return;
        }
    }
    ex.send(404, "text/html", "<html><body><h1>404 Not Found</h1></body></html>");
}

bool protocol::answer_early(const std::shared_ptr<exchange>& ex)
{
    const http_request& request = ex->request();
    if (request.method != "POST" || !ends_with(request.path, "/dtta"))
        return false;  // files are read and written on a handler's thread
    std::unique_ptr<incoming> in = begin(request);
    ex->read_body([&](const char* data, std::size_t size) { in->feed(data, size); });
    in->finish_async(
        exchange::body_state::complete, [ex](const answer& a) { ex->send(a.status, a.content_type, a.body); });
    return true;
}

void protocol::handle(exchange& ex)
{
    std::unique_ptr<incoming> in = begin(ex.request());
    if (!in) {
        ex.read_body([](const char*, std::size_t) {});
        answer_directly(ex);
        return;
    }
    const exchange::body_state state = ex.read_body([&](const char* data, std::size_t size) { in->feed(data, size); });
    if (state != exchange::body_state::complete) {
        const bool large = state == exchange::body_state::too_large;
        ex.send(large ? 413 : 400, "application/json",
            failure_body(large ? "body larger than the limit" : "body incomplete"));
        return;
    }
    const answer a = in->finish(state);
    ex.send(a.status, a.content_type, a.body);
}

}  // namespace collector
