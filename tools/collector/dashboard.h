// The dashboard: pages and a JSON API over the record store, on a listener of its own. Every
// record field comes from a desktop the service does not control: the API hands it out as JSON
// text and the pages show it as text only.
#pragma once

#include "store.h"
#include "transport.h"

#include <memory>
#include <string>

namespace collector {

struct dashboard_options {
    std::string data_dir;  // attachments are kept under files/uploads/
    // Listening beyond loopback: every request but the sign-in page and the static files needs
    // `token`, as "Authorization: Bearer <token>" or the cookie the sign-in sets.
    bool require_token = false;
    std::string token;
    bool tls = false;                                                      // the cookie is then marked Secure
    std::string chart_js = "/usr/share/javascript/chart.js/chart.min.js";  // Debian's libjs-chart.js
};

class dashboard {
public:
    dashboard(record_store& store, dashboard_options options);
    void handle(exchange& ex);  // a transport handler; safe to call from several threads at once

    struct reply {
        int status = 200;
        std::string type = "application/json";
        std::string body;
        header_list headers;
    };

private:
    reply route(exchange& ex);
    reply summary(const std::string& query);
    reply records(const std::string& query);
    void send_export(exchange& ex, const std::string& query);
    reply attachment(const std::string& dfs_id);
    reply login(exchange& ex);
    bool authorised(const http_request& request) const;
    void send(exchange& ex, const reply& r) const;

    record_store& store_;
    dashboard_options options_;
};

// 127.0.0.0/8, ::1 or "localhost".
bool is_loopback_host(const std::string& host);

// The token in data_dir/dashboard.token, created (0600, 32 random bytes as hex) when missing.
// Empty, with the reason in `error`, when it can be neither read nor made.
std::string dashboard_token(const std::string& data_dir, std::string& error);

// A dashboard listening on `address` ("ADDR:PORT", port 0: the system picks one), with TLS when
// `tls` is set. Prints "dashboard on <url>" and writes the URL to data_dir/dashboard_url.
class dashboard_listener {
public:
    dashboard_listener(
        record_store& store, const std::string& data_dir, std::shared_ptr<boost::asio::ssl::context> tls);
    bool start(const std::string& address, std::string& error);
    std::string url() const { return url_; }
    // Stops accepting and finishes the requests in flight: call it before the store goes.
    void stop();

private:
    std::string data_dir_;
    std::shared_ptr<boost::asio::ssl::context> tls_;
    record_store& store_;
    std::unique_ptr<dashboard> dashboard_;
    std::unique_ptr<http_server> server_;
    std::string url_;
};

}  // namespace collector
