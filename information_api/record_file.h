// Record and configuration files as the manager writes and reads them: whole, verified, under a name
// nobody else holds, and decoded by QSettings only from a private copy of bytes that were checked.
// Internal: neither installed nor exported.
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>

#include <functional>

class QSettings;

namespace information_api {

// The clock behind every stamp and file name of a record (UTC). Tests set a fixed one.
extern QDateTime (*record_clock)();

// Which file a writer left at a path, so that it rewrites its own file and no other.
struct written_file {
    bool valid = false;
    unsigned long long device = 0, inode = 0, size = 0;
    long long modified_ns = 0;
};

// Stores a record ("data", then "type") under `path`, or under the first free `<stem>-<n>` beside it
// (n from 1), claiming the name atomically: a complete, verified file is hard-linked into place.
// With `own` valid and `own_path` still holding that file, the file is replaced instead. Returns the
// path written and updates `own`; on failure returns an empty string and says why in `failure`,
// and every file is as it was.
QString store_record(const QString& path, const QByteArray& data, const QString& type, QString& failure,
    written_file* own = nullptr, const QString& own_path = QString());

// Reads an INI file through a private copy of its bytes, once they passed the checks: a regular
// file (a configuration file may be a link to one) of at most 16 MiB, read without blocking, with
// no value that QSettings would decode as a serialised QVariant. Returns null when `read` was
// called (with nothing to read for a file that is missing or cannot be opened), otherwise why the
// file was refused.
const char* read_checked_ini(const QString& path, bool follow_links, const std::function<void(const QSettings&)>& read);

// A private, checked copy of the INI file `source` for a settings object that lives on: the path
// to open it at. refresh_checked_copy() brings the copy up to date with `source` and syncs the
// settings object open on it, so that it reads what QSettings would have read from `source`;
// remove_checked_copy() deletes the copy.
QString make_checked_copy(const QString& source);
void refresh_checked_copy(QSettings& settings);
void remove_checked_copy(const QString& copy);

}  // namespace information_api
