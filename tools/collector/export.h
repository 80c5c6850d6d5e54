// Exports of kept records, one format for the command line and the dashboard alike.
#pragma once

#include "store.h"

#include <functional>
#include <string>

namespace collector {

enum class export_format { csv, jsonl };

// "csv" or "jsonl"; false for anything else.
bool parse_export_format(const std::string& name, export_format& out);

// Streams the records matching `filter`, in id order, to `out` a line at a time, until `out`
// returns false. CSV: a header line, then one line per record, every text field quoted, line
// breaks dropped from the extracted fields and the record. JSONL: one object per line: id,
// received_at, app_id, kind, sha256, and the record itself (on one line) under "record".
void export_records(record_store& store, const record_filter& filter, export_format format,
    const std::function<bool(const std::string&)>& out);

}  // namespace collector
