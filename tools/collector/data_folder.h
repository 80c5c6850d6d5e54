// The data folder the collector and the dev server share: every name in it, defined once, so
// that either program reads what the other wrote.
#pragma once

#include <filesystem>
#include <string>
#include <system_error>

namespace collector::data_folder {

inline constexpr const char* kRecords = "records.sqlite3";     // the SQLite engine's database
inline constexpr const char* kUploads = "files/uploads";       // uploaded files: XX/SHA256
inline constexpr const char* kIncoming = "incoming";           // uploads still arriving
inline constexpr const char* kAuthority = "ca.pem";            // the local authority
inline constexpr const char* kCertificate = "cert.pem";        // the server's certificate
inline constexpr const char* kKey = "key.pem";                 // and its key
inline constexpr const char* kUrl = "url";                     // the URL records go to
inline constexpr const char* kDashboardUrl = "dashboard_url";  // the dashboard's URL
inline constexpr const char* kDashboardToken = "dashboard.token";

// "DIR/NAME".
inline std::string path(const std::string& dir, const char* name) { return dir + "/" + name; }

// The database the folder holds unless another is named.
inline std::string default_database(const std::string& dir) { return "sqlite:" + path(dir, kRecords); }

// Makes the folder if it is missing and clears what a killed run left half-written. False, with
// `error` saying why, when there is no folder to work in.
inline bool prepare(const std::string& dir, std::string& error)
{
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec || !std::filesystem::is_directory(dir, ec)) {
        error = "cannot create the data folder " + dir + (ec ? ": " + ec.message() : "");
        return false;
    }
    std::filesystem::remove_all(path(dir, kIncoming), ec);
    return true;
}

}  // namespace collector::data_folder
