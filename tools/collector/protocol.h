// The protocol: what the library's requests mean and what it reads as success or refusal.
//   POST .../dtta?type=KIND      a record (a JSON object) from an allowed application id
//   POST .../up                  a multipart upload; its "file" part is kept, answered by a dfs_id
//   GET /software/NAME/interface.json, GET /files/PATH   files served from the data folder
// "success" is answered only once the store holds the record durably; a store that cannot be
// reached is answered 503, and the library keeps the record to send it again.
#pragma once

#include "store.h"
#include "transport.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace collector {

// A multipart/form-data body read as it arrives, whatever size its pieces come in.
class multipart_reader {
public:
    struct part_head {
        std::string name, filename, content_type;
    };
    // `boundary` from the request's Content-Type; false from start() when there is none.
    bool start(const std::string& content_type);
    // Feeds the next bytes; calls on_part at each part's start, on_data with its bytes.
    // False once the body is malformed.
    bool feed(const char* data, std::size_t size);
    bool finished() const { return state_ == state::done; }

    std::function<void(const part_head&)> on_part;
    std::function<void(const char*, std::size_t)> on_data;

private:
    enum class state { delimiter, after_delimiter, head, data, done, broken };
    bool step();
    std::string delimiter_;
    std::string pending_ = "\r\n";  // the first delimiter has no line break before it
    state state_ = state::delimiter;
};

struct protocol_options {
    std::string data_dir;              // files/ and software/ are served from it; uploads are kept in files/uploads/
    std::vector<std::string> app_ids;  // accepted in X-Auth-AppID
};

// What the protocol answers to one request.
struct answer {
    int status = 200;
    std::string content_type = "application/json";
    std::string body;
};
std::string failure_body(const std::string& why);  // {"status":"failed","result":"why"}
std::string json_text(const std::string& text);    // a JSON string holding `text`

class protocol {
public:
    // Without a store, records and uploads are checked and answered but kept nowhere.
    protocol(protocol_options options, record_store* store);

    // One request's body on its way in: fed piece by piece, then answered.
    class incoming {
    public:
        virtual ~incoming() = default;
        virtual void feed(const char* data, std::size_t size) = 0;
        // The answer once the whole body arrived (`state` says whether it did).
        virtual answer finish(exchange::body_state state) = 0;
        // The same answer, handed to `done` (on another thread, or at once) without waiting for
        // the store. (This default waits in finish().)
        virtual void finish_async(exchange::body_state state, std::function<void(const answer&)> done)
        {
            done(finish(state));
        }
    };
    // Null for requests without a body to keep (GET, unknown paths): answer() those.
    std::unique_ptr<incoming> begin(const http_request& request);
    // Answers a request begin() returned null for: serves a file or says 404.
    void answer_directly(exchange& ex);

    void handle(exchange& ex);  // the whole request: begin, read, finish, send
    // A record whose body is in already, answered without waiting: on the server's I/O thread
    // (transport_options::early). False for every other request.
    bool answer_early(const std::shared_ptr<exchange>& ex);

    const protocol_options& options() const { return options_; }

private:
    bool allowed(const http_request& request) const;
    protocol_options options_;
    record_store* store_;
};

// A fresh 24-character id for an uploaded file.
std::string fresh_dfs_id();

}  // namespace collector
