// Exports of kept records, one format for the command line and the dashboard alike.
#pragma once

#include "store.h"

#include <functional>
#include <string>

namespace collector {

enum class export_format { csv, jsonl };

// "csv" or "jsonl"; false for anything else.
bool parse_export_format(const std::string& name, export_format& out);

// Streams the records matching `filter`, in id order, to `out` a record at a time.
// CSV: a header line, then one line per record (RFC 4180 quoting; a field that a spreadsheet
// would take for a formula, starting with = + - @ or a tab, is prefixed with '). JSONL: one JSON
// object per line, the record under "record" in compact form.
void export_records(record_store& store, const record_filter& filter, export_format format,
                    const std::function<void(const std::string&)>& out);

}  // namespace collector
