#include "export.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace collector {

namespace {

std::string csv_field(const std::string& value)
{
    std::string text = value;
    if (!text.empty() && std::string("=+-@\t\r").find(text[0]) != std::string::npos)
        text.insert(0, 1, '\'');  // never a formula in the spreadsheet that opens it
    if (text.find_first_of(",\"\r\n") == std::string::npos)
        return text;
    std::string quoted = "\"";
    for (const char c : text)
        quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + '"';
}

QString qs(const std::string& s)
{
    return QString::fromStdString(s);
}

}  // namespace

bool parse_export_format(const std::string& name, export_format& out)
{
    if (name == "csv")
        return out = export_format::csv, true;
    if (name == "jsonl")
        return out = export_format::jsonl, true;
    return false;
}

void export_records(record_store& store, const record_filter& filter, export_format format,
                    const std::function<void(const std::string&)>& out)
{
    if (format == export_format::csv)
        out("id,received_at,app_id,kind,software_name,software_ver,model_name,os_name,serial,start_on,lang,body\r\n");
    store.list(filter, 0, 0, [&](const stored_record& r) {
        if (format == export_format::csv) {
            std::string line = std::to_string(r.id);
            for (const std::string* v : {&r.received_at, &r.app_id, &r.kind, &r.software_name, &r.software_ver,
                                         &r.model_name, &r.os_name, &r.serial, &r.start_on, &r.lang, &r.body})
                line += ',' + csv_field(*v);
            out(line + "\r\n");
            return true;
        }
        const QJsonObject record = QJsonDocument::fromJson(QByteArray::fromStdString(r.body)).object();
        const QJsonObject line{{"id", double(r.id)},          {"received_at", qs(r.received_at)},
                               {"app_id", qs(r.app_id)},      {"kind", qs(r.kind)},
                               {"software_name", qs(r.software_name)}, {"software_ver", qs(r.software_ver)},
                               {"model_name", qs(r.model_name)}, {"os_name", qs(r.os_name)},
                               {"serial", qs(r.serial)},      {"start_on", qs(r.start_on)},
                               {"lang", qs(r.lang)},          {"record", record}};
        out(QJsonDocument(line).toJson(QJsonDocument::Compact).toStdString() + "\n");
        return true;
    });
}

}  // namespace collector
