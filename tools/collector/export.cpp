#include "export.h"

#include <cstdio>

namespace collector {

namespace {

// The body on one line: JSON allows no raw line break inside a string, so dropping them all
// leaves the object as it was.
std::string one_line(const std::string& text)
{
    std::string out;
    out.reserve(text.size());
    for (const char c : text)
        if (c != '\n' && c != '\r')
            out += c;
    return out;
}

std::string csv_field(const std::string& text)
{
    std::string out = "\"";
    for (const char c : text)
        out += c == '"' ? std::string("\"\"") : std::string(1, c);
    return out + "\"";
}

std::string json_string(const std::string& text)
{
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

}  // namespace

bool parse_export_format(const std::string& name, export_format& out)
{
    if (name == "csv" || name == "jsonl") {
        out = name == "csv" ? export_format::csv : export_format::jsonl;
        return true;
    }
    return false;
}

void export_records(record_store& store, const record_filter& filter, export_format format,
    const std::function<bool(const std::string&)>& out)
{
    const bool csv = format == export_format::csv;
    if (csv && !out("id,received_at,app_id,kind,sha256,software_name,software_ver,model_name,os_name,serial,"
                    "start_on,lang,record\n"))
        return;
    store.list(filter, 0, 0, [&](const stored_record& r) {
        std::string line = std::to_string(r.id) + ",";
        if (csv) {
            line += r.received_at + "," + csv_field(r.app_id) + "," + csv_field(r.kind) + "," + r.sha256;
            for (const std::string* field : {&r.software_name, &r.software_ver, &r.model_name, &r.os_name, &r.serial,
                     &r.start_on, &r.lang, &r.body})
                line += "," + csv_field(one_line(*field));
        } else {
            line = R"({"id":)" + line + R"("received_at":")" + r.received_at + R"(","app_id":)" +
                   json_string(r.app_id) + R"(,"kind":)" + json_string(r.kind) + R"(,"sha256":")" + r.sha256 +
                   R"(","record":)" + one_line(r.body) + "}";
        }
        return out(line + "\n");
    });
}

}  // namespace collector
