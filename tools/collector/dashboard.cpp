#include "dashboard.h"

#include "data_folder.h"
#include "export.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>

static void load_dashboard_resources()
{
    Q_INIT_RESOURCE(dashboard);  // the pages are compiled into the static library
}

namespace collector {

namespace {

const char* const kCookie = "dashboard_token";
const std::int64_t kMostPerPage = 500;
const int kTopValues = 10;

// Sent with every answer: no inline script or style, nothing from another host, no framing,
// no guessing of content types.
const header_list kCommonHeaders = {
    {"Content-Security-Policy", "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
                                "connect-src 'self'; form-action 'self'; base-uri 'none'; frame-ancestors 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"Referrer-Policy", "no-referrer"},
    {"X-Frame-Options", "DENY"},
    {"Cache-Control", "no-store"},
};

std::string percent_decode(const std::string& text)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '+') {
            out += ' ';
        } else if (text[i] == '%' && i + 2 < text.size() && std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
                   std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            out += char(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

// "a=1&b=x%20y" as a map; the first of repeated names counts.
std::map<std::string, std::string> form_fields(const std::string& text)
{
    std::map<std::string, std::string> fields;
    std::stringstream pieces(text);
    for (std::string piece; std::getline(pieces, piece, '&');) {
        const std::size_t eq = piece.find('=');
        fields.emplace(
            percent_decode(piece.substr(0, eq)), eq == std::string::npos ? "" : percent_decode(piece.substr(eq + 1)));
    }
    return fields;
}

// Days since 1970-01-01 of a proleptic Gregorian date, and back (H. Hinnant's algorithms).
long days_from_civil(long y, unsigned m, unsigned d)
{
    y -= m <= 2;
    const long era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = unsigned(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + long(doe) - 719468;
}

std::string civil_from_days(long z)
{
    z += 719468;
    const long era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = unsigned(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    const unsigned d = doy - (153 * mp + 2) / 5 + 1;
    const unsigned m = mp < 10 ? mp + 3 : mp - 9;
    char text[32];
    std::snprintf(text, sizeof text, "%04ld-%02u-%02u", long(yoe) + era * 400 + (m <= 2), m, d);
    return text;
}

// "YYYY-MM-DD" as a day number; false unless it is one real date.
bool parse_day(const std::string& text, long& day)
{
    unsigned y, m, d;
    char tail;
    if (text.size() != 10 || std::sscanf(text.c_str(), "%4u-%2u-%2u%c", &y, &m, &d, &tail) != 3 || y < 1970 || m < 1 ||
        m > 12 || d < 1 || d > 31)
        return false;
    day = days_from_civil(long(y), m, d);
    return civil_from_days(day) == text;
}

long today() { return long(std::time(nullptr) / 86400); }

// A bound of the period: a day ("YYYY-MM-DD"; `until` then includes the whole day) or a moment
// ("YYYY-MM-DDThh:mm:ssZ"), as the store compares them.
bool parse_bound(const std::string& text, bool until, std::string& out)
{
    long day;
    if (text.empty() || (text.size() == 20 && parse_day(text.substr(0, 10), day) && text[10] == 'T' &&
                            text[19] == 'Z' && std::all_of(text.begin() + 11, text.end() - 1, [](char c) {
                                return std::isdigit(static_cast<unsigned char>(c)) || c == ':';
                            }))) {
        out = text;
        return true;
    }
    if (!parse_day(text, day))
        return false;
    out = civil_from_days(day + (until ? 1 : 0)) + "T00:00:00Z";
    return true;
}

QString qs(const std::string& s) { return QString::fromStdString(s); }

std::string json(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString();
}

bool parse_count(const std::string& text, std::int64_t& out)
{
    const auto is_digit = [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; };
    if (text.empty() || text.size() > 12 || !std::all_of(text.begin(), text.end(), is_digit))
        return false;
    out = std::stoll(text);
    return true;
}

struct asset {
    const char* path;
    const char* resource;
    const char* type;
};
const asset kAssets[] = {
    {"/", ":/dashboard/index.html", "text/html; charset=utf-8"},
    {"/records", ":/dashboard/records.html", "text/html; charset=utf-8"},
    {"/login", ":/dashboard/login.html", "text/html; charset=utf-8"},
    {"/static/dashboard.css", ":/dashboard/dashboard.css", "text/css; charset=utf-8"},
    {"/static/common.js", ":/dashboard/common.js", "text/javascript; charset=utf-8"},
    {"/static/overview.js", ":/dashboard/overview.js", "text/javascript; charset=utf-8"},
    {"/static/records.js", ":/dashboard/records.js", "text/javascript; charset=utf-8"},
};

}  // namespace

namespace {

dashboard::reply error_reply(int status, const std::string& why);

}  // namespace

dashboard::dashboard(record_store& store, dashboard_options options) : store_(store), options_(std::move(options))
{
    load_dashboard_resources();
}

void dashboard::handle(exchange& ex)
{
    try {
        const http_request& request = ex.request();
        if (request.method == "GET" && request.path == "/api/v1/export" && authorised(request)) {
            const std::size_t q = request.target.find('?');
            send_export(ex, q == std::string::npos ? "" : request.target.substr(q + 1));
            return;
        }
        send(ex, route(ex));
    } catch (const store_error& e) {
        if (ex.status() == 0)
            send(ex, {503, "application/json", json({{"error", qs(e.what())}}), {}});
    } catch (const std::exception& e) {  // one request fails, never the listener
        if (ex.status() == 0)
            send(ex, {500, "application/json", json({{"error", qs(e.what())}}), {}});
    }
}

dashboard::reply dashboard::route(exchange& ex)
{
    const http_request& request = ex.request();
    const std::string& path = request.path;
    const std::size_t q = request.target.find('?');
    const std::string query = q == std::string::npos ? "" : request.target.substr(q + 1);
    if (path == "/login" && request.method == "POST")
        return login(ex);
    if (request.method != "GET")  // nothing that changes data is reachable by GET; nothing else is offered
        return {405, "application/json", json({{"error", "method not allowed"}}), {{"Allow", "GET"}}};
    const bool open = path == "/login" || path.rfind("/static/", 0) == 0;  // no records in these
    if (!open && !authorised(request)) {
        if (path.rfind("/api/", 0) == 0)
            return {401, "application/json", json({{"error", "the dashboard token is needed"}}),
                {{"WWW-Authenticate", "Bearer"}}};
        return {303, "text/plain; charset=utf-8", "sign in first\n", {{"Location", "/login"}}};
    }
    if (path == "/api/v1/summary")
        return summary(query);
    if (path == "/api/v1/records")
        return records(query);
    if (path.rfind("/api/v1/attachments/", 0) == 0)
        return attachment(percent_decode(path.substr(20)));
    if (path == "/static/chart.min.js") {
        std::ifstream file(options_.chart_js, std::ios::binary);
        if (!file)
            return {404, "text/plain; charset=utf-8", "the charting library is not installed (libjs-chart.js)\n", {}};
        return {200, "text/javascript; charset=utf-8", std::string(std::istreambuf_iterator<char>(file), {}), {}};
    }
    for (const asset& a : kAssets) {
        if (path == a.path) {
            QFile file(a.resource);
            file.open(QIODevice::ReadOnly);
            return {200, a.type, file.readAll().toStdString(), {}};
        }
    }
    return {404, "application/json", json({{"error", "not found"}}), {}};
}

namespace {

dashboard::reply error_reply(int status, const std::string& why)
{
    return {status, "application/json", json({{"error", qs(why)}}), {}};
}

// The filter of a query; false, with the reason, for a malformed period.
bool parse_filter(const std::map<std::string, std::string>& fields, record_filter& filter, std::string& why)
{
    const auto field = [&](const char* name) {
        const auto it = fields.find(name);
        return it == fields.end() ? std::string() : it->second;
    };
    filter.kind = field("kind");
    filter.version = field("version");
    filter.model = field("model");
    filter.serial = field("serial");
    filter.os = field("os");
    filter.lang = field("lang");
    if (!parse_bound(field("since"), false, filter.since) || !parse_bound(field("until"), true, filter.until)) {
        why = "since and until take YYYY-MM-DD or YYYY-MM-DDThh:mm:ssZ";
        return false;
    }
    return true;
}

}  // namespace

dashboard::reply dashboard::summary(const std::string& query)
{
    const auto fields = form_fields(query);
    long last = today(), first = last - 27;
    const auto given = [&](const char* name, long& day) {
        const auto it = fields.find(name);
        return it == fields.end() || it->second.empty() || parse_day(it->second, day);
    };
    if (!given("since", first) || !given("until", last) || last < first || last - first >= 3660)
        return error_reply(400, "since and until take YYYY-MM-DD, since not after until, at most 3660 days apart");
    const long length = last - first + 1;
    std::map<std::string, std::int64_t> kinds, previous_kinds;
    std::map<std::string, std::map<std::string, std::int64_t>> days;  // day -> kind -> records
    std::map<dimension, std::map<std::string, std::int64_t>> tops;
    std::int64_t total = 0, previous_total = 0;
    const std::string first_day = civil_from_days(first);
    for (const daily_count& row : store_.daily_counts(civil_from_days(first - length), civil_from_days(last))) {
        const bool current = row.day >= first_day;
        if (row.by != dimension::kind) {
            if (current)
                tops[row.by][row.value] += row.count;
        } else if (current) {
            kinds[row.value] += row.count;
            days[row.day][row.value] += row.count;
            total += row.count;
        } else {
            previous_kinds[row.value] += row.count;
            previous_total += row.count;
        }
    }
    const auto object = [](const std::map<std::string, std::int64_t>& counts) {
        QJsonObject o;
        for (const auto& c : counts)
            o.insert(qs(c.first), double(c.second));
        return o;
    };
    QJsonArray day_list;
    for (long d = first; d <= last; ++d)
        day_list.append(QJsonObject{{"day", qs(civil_from_days(d))}, {"kinds", object(days[civil_from_days(d)])}});
    QJsonObject top;
    const std::pair<dimension, const char*> names[] = {
        {dimension::version, "version"}, {dimension::model, "model"}, {dimension::os, "os"}, {dimension::lang, "lang"}};
    for (const auto& name : names) {
        std::vector<std::pair<std::string, std::int64_t>> rows(tops[name.first].begin(), tops[name.first].end());
        std::sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) {
            return a.second != b.second ? a.second > b.second : a.first < b.first;
        });
        QJsonArray list;
        for (std::size_t i = 0; i < rows.size() && i < std::size_t(kTopValues); ++i)
            list.append(QJsonObject{{"value", qs(rows[i].first)}, {"count", double(rows[i].second)}});
        top.insert(name.second, list);
    }
    const QJsonObject previous{{"since", qs(civil_from_days(first - length))},
        {"until", qs(civil_from_days(first - 1))}, {"total", double(previous_total)},
        {"kinds", object(previous_kinds)}};
    return {200, "application/json",
        json({{"since", qs(first_day)}, {"until", qs(civil_from_days(last))}, {"total", double(total)},
            {"kinds", object(kinds)}, {"days", day_list}, {"top", top}, {"previous", previous}}),
        {}};
}

dashboard::reply dashboard::records(const std::string& query)
{
    const auto fields = form_fields(query);
    record_filter filter;
    std::string why;
    if (!parse_filter(fields, filter, why))
        return error_reply(400, why);
    std::int64_t limit = 50, offset = 0;
    if ((fields.count("limit") && !parse_count(fields.at("limit"), limit)) ||
        (fields.count("offset") && !parse_count(fields.at("offset"), offset)) || limit < 1 || limit > kMostPerPage)
        return error_reply(400, "limit takes 1 to 500, offset a number");
    QJsonArray list;
    store_.list(filter, limit, offset, [&](const stored_record& r) {
        list.append(QJsonObject{{"id", double(r.id)}, {"received_at", qs(r.received_at)}, {"app_id", qs(r.app_id)},
            {"kind", qs(r.kind)}, {"software_name", qs(r.software_name)}, {"software_ver", qs(r.software_ver)},
            {"model_name", qs(r.model_name)}, {"os_name", qs(r.os_name)}, {"serial", qs(r.serial)},
            {"lang", qs(r.lang)}, {"body", qs(r.body)}});
        return true;
    });
    return {200, "application/json",
        json({{"total", double(store_.count(filter))}, {"limit", double(limit)}, {"offset", double(offset)},
            {"records", list}}),
        {}};
}

void dashboard::send_export(exchange& ex, const std::string& query)
{
    const auto fields = form_fields(query);
    record_filter filter;
    std::string why;
    export_format format;
    const std::string format_text = fields.count("format") ? fields.at("format") : "";
    if (!parse_filter(fields, filter, why) || !parse_export_format(format_text, format)) {
        send(ex, error_reply(400, why.empty() ? "format takes csv or jsonl" : why));
        return;
    }
    // The length goes first: the export is written to an unnamed temporary file, then sent from it.
    std::unique_ptr<FILE, int (*)(FILE*)> file(std::tmpfile(), &std::fclose);
    if (!file) {
        send(ex, error_reply(503, "no room for the export"));
        return;
    }
    bool written = true;
    export_records(store_, filter, format, [&](const std::string& line) {
        return written = std::fwrite(line.data(), 1, line.size(), file.get()) == line.size();
    });
    if (!written || std::fflush(file.get()) != 0) {
        send(ex, error_reply(503, "no room for the export"));
        return;
    }
    const long size = std::ftell(file.get());
    std::rewind(file.get());
    const char* name = format == export_format::csv ? "records.csv" : "records.jsonl";
    header_list headers = kCommonHeaders;
    headers.emplace_back("Content-Disposition", std::string("attachment; filename=\"") + name + "\"");
    if (!ex.send_head(200, format == export_format::csv ? "text/csv; charset=utf-8" : "application/x-ndjson",
            std::uint64_t(size), headers))
        return;
    char buffer[64 * 1024];
    for (std::size_t got; (got = std::fread(buffer, 1, sizeof buffer, file.get())) > 0;)
        if (!ex.send_piece(buffer, got))
            return;
}

dashboard::reply dashboard::attachment(const std::string& dfs_id)
{
    new_attachment found;
    if (!store_.find_attachment(dfs_id, found) || found.sha256.size() != 64 ||
        found.sha256.find_first_not_of("0123456789abcdef") != std::string::npos)
        return error_reply(404, "no such attachment");
    const std::string uploads = data_folder::path(options_.data_dir, data_folder::kUploads);
    std::ifstream file(uploads + "/" + found.sha256.substr(0, 2) + "/" + found.sha256, std::ios::binary);
    if (!file)
        return error_reply(404, "the attachment's file is gone");
    // The client named the file: only plain characters reach the header; never shown inline.
    std::string name;
    for (const char c : found.filename)
        name += std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '_' || c == '-' ? c : '_';
    return {200, "application/octet-stream", std::string(std::istreambuf_iterator<char>(file), {}),
        {{"Content-Disposition", "attachment; filename=\"" + (name.empty() ? "attachment" : name) + "\""}}};
}

dashboard::reply dashboard::login(exchange& ex)
{
    std::string body;
    bool too_long = false;
    ex.read_body([&](const char* data, std::size_t size) {
        too_long = too_long || body.size() + size > 4096;
        if (!too_long)
            body.append(data, size);
    });
    const auto fields = form_fields(body);
    const auto given = fields.find("token");
    const std::string& token = options_.token;
    if (too_long || given == fields.end() || given->second.size() != token.size() || token.empty() ||
        CRYPTO_memcmp(given->second.data(), token.data(), token.size()) != 0) {
        QFile page(":/dashboard/login.html");
        page.open(QIODevice::ReadOnly);
        return {401, "text/html; charset=utf-8", page.readAll().toStdString(), {}};
    }
    return {303, "text/plain; charset=utf-8", "signed in\n",
        {{"Location", "/"}, {"Set-Cookie", std::string(kCookie) + "=" + token + "; Path=/; HttpOnly; SameSite=Strict" +
                                               (options_.tls ? "; Secure" : "")}}};
}

bool dashboard::authorised(const http_request& request) const
{
    if (!options_.require_token)
        return true;
    std::string given;
    const std::string authorization = request.header("Authorization");
    if (authorization.rfind("Bearer ", 0) == 0) {
        given = authorization.substr(7);
    } else {
        std::stringstream cookies(request.header("Cookie"));
        for (std::string cookie; std::getline(cookies, cookie, ';');) {
            cookie.erase(0, cookie.find_first_not_of(' '));
            if (cookie.rfind(std::string(kCookie) + "=", 0) == 0)
                given = cookie.substr(std::string(kCookie).size() + 1);
        }
    }
    const std::string& token = options_.token;
    return !token.empty() && given.size() == token.size() &&
           CRYPTO_memcmp(given.data(), token.data(), token.size()) == 0;
}

void dashboard::send(exchange& ex, const reply& r) const
{
    header_list headers = kCommonHeaders;
    headers.insert(headers.end(), r.headers.begin(), r.headers.end());
    ex.send(r.status, r.type, r.body, headers);
}

bool is_loopback_host(const std::string& host)
{
    unsigned char address[16];
    if (inet_pton(AF_INET, host.c_str(), address) == 1)
        return address[0] == 127;
    return host == "localhost" || (inet_pton(AF_INET6, host.c_str(), address) == 1 && IN6_IS_ADDR_LOOPBACK(address));
}

std::string dashboard_token(const std::string& data_dir, std::string& error)
{
    const std::string path = data_folder::path(data_dir, data_folder::kDashboardToken);
    std::ifstream existing(path);
    std::string token;
    if (existing && std::getline(existing, token) && !token.empty())
        return token;  // the operator's own, or ours from an earlier start
    unsigned char bytes[32];
    if (RAND_bytes(bytes, sizeof bytes) != 1) {
        error = "no random bytes for the dashboard token";
        return {};
    }
    static const char hex[] = "0123456789abcdef";
    token.clear();
    for (const unsigned char b : bytes) {
        token += hex[b >> 4];
        token += hex[b & 15];
    }
    const mode_t old_mask = ::umask(077);  // 0600 from its first byte
    std::ofstream file(path, std::ios::trunc);
    file << token << '\n';
    file.close();
    ::umask(old_mask);
    if (!file || ::chmod(path.c_str(), 0600) != 0) {
        error = "cannot write " + path;
        return {};
    }
    return token;
}

dashboard_listener::dashboard_listener(
    record_store& store, const std::string& data_dir, std::shared_ptr<boost::asio::ssl::context> tls)
    : data_dir_(data_dir), tls_(std::move(tls)), store_(store)
{}

bool dashboard_listener::start(const std::string& address, std::string& error)
{
    const std::size_t colon = address.rfind(':');
    std::string host = address.substr(0, colon);
    const std::string port_text = colon == std::string::npos ? "0" : address.substr(colon + 1);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    std::int64_t port = 0;
    if (host.empty() || !parse_count(port_text, port) || port > 65535) {
        error = "--dashboard takes ADDR:PORT, e.g. 127.0.0.1:0";
        return false;
    }
    dashboard_options options;
    options.data_dir = data_dir_;
    options.tls = bool(tls_);
    options.require_token = !is_loopback_host(host);
    options.token = dashboard_token(data_dir_, error);
    if (options.token.empty())
        return false;
    dashboard_ = std::make_unique<dashboard>(store_, options);
    transport_options transport;
    transport.host = host;
    transport.port = int(port);
    transport.tls = tls_;
    transport.body_limit = 64 * 1024;  // only the sign-in form has a body
    dashboard* d = dashboard_.get();
    server_ = std::make_unique<http_server>(transport, [d](exchange& ex) { d->handle(ex); });
    if (!server_->start(error))
        return false;
    const std::string shown_host = host.find(':') != std::string::npos ? "[" + host + "]" : host;
    url_ = std::string(tls_ ? "https" : "http") + "://" + shown_host + ":" + std::to_string(server_->port()) + "/";
    const std::string url_path = data_folder::path(data_dir_, data_folder::kDashboardUrl);
    std::ofstream url_file(url_path);
    if (!(url_file << url_ << '\n').flush()) {
        error = "cannot write " + url_path;
        return false;
    }
    std::printf("dashboard on %s\n", url_.c_str());
    std::fflush(stdout);
    return true;
}

void dashboard_listener::stop()
{
    if (server_)
        server_->stop(false);
}

}  // namespace collector
