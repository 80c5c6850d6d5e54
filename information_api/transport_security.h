/// @file
/// Opt-in server verification for every request of the process, and a download that is only
/// reported as a success when the installer's SHA-256 matches.
///
/// By default the library checks no certificate and speaks TLS 1.2 only, as the deployed
/// collection service requires: anyone on the path can read and answer every request. A host
/// that can do better calls set_trusted_certificates() (and, optionally,
/// set_pinned_public_keys()) once, before its requests; clear_transport_security() returns to the
/// default. Call these from the thread that calls the other functions of the library.
#pragma once

#include <information_api/information_api.h>

#include <QString>
#include <QStringList>

namespace information_api {

/// Verifies the server of every request from the next one on: record uploads, file uploads,
/// interface fetches and both downloads. The server's chain must lead to a certificate in
/// `ca_file` (PEM, one or more certificates; an empty string means the system's store) and name
/// the URL's host; TLS 1.2 or later is accepted. While verification is on, a plain `http:` URL is
/// refused without being sent, and a server that fails verification fails the request before
/// anything is written to it: the sink gets `ret` 7 with `net_error`
/// `QNetworkReply::SslHandshakeFailedError` and the TLS error text as `msg`. URLs, headers,
/// bodies and reports stay as they are otherwise.
/// @return 0, or -1 (nothing changes) when `ca_file` cannot be read, is not a regular file (a
///         FIFO or a device is refused without waiting on it), is larger than 16 MiB or holds no
///         certificate.
INFORMATION_API_EXPORT int set_trusted_certificates(const QString& ca_file);

/// From the next request on, the server's public key must be one of these, whether or not
/// set_trusted_certificates() turned verification on (without it, the chain is not checked and
/// TLS 1.2 is spoken, as by default). Each entry is the SHA-256 of a SubjectPublicKeyInfo in
/// base64, as `openssl pkey -pubin -outform DER | openssl dgst -sha256 -binary | base64` prints
/// it. A server with another key fails the request before anything is written to it, reported as
/// `ret` 7, `net_error` `QNetworkReply::SslHandshakeFailedError`, `msg` "public key pin
/// mismatch"; while pins are set a plain `http:` URL is refused unsent, as under verification.
/// An empty list removes the pins.
/// @return 0, or -1 (nothing changes) for an entry that is not base64 of 32 bytes.
INFORMATION_API_EXPORT int set_pinned_public_keys(const QStringList& sha256_base64);

/// Back to the default: no certificate checks, TLS 1.2 only, no pins. @return 0.
INFORMATION_API_EXPORT int clear_transport_security();

/// Downloads `url` into `file_path` and reports a success only for an HTTP 2xx answer whose
/// SHA-256 is `sha256_hex`. The body is streamed into a new temporary file beside the target
/// (never into a leftover one) and hashed as it arrives; on success that file replaces the target
/// atomically. Only a regular file or a new name is written: a target that is a symbolic link, a
/// FIFO or a device fails with 8 and nothing is written through it. Redirects are followed as
/// long as they stay on HTTPS. Progress arrives through
/// information_sink::on_download_progress, the end through exactly one
/// information_sink::on_download_finished: (true, 0, 0), or false with a code: 7 network or HTTP
/// failure (the reply's `QNetworkReply::NetworkError` as `net_error`), 8 the file could not be
/// written, 9 the hash did not match, 6 no byte arrived for `timeout_ms` (`net_error` -1). On
/// failure the temporary file is removed and an existing target is left as it was.
/// release_connect(id) during the transfer cancels it and removes the temporary file; no report
/// follows. Unlike downLoadApp(), nothing sleeps on the worker thread.
/// @return -1 at once, reporting nothing, when `sha256_hex` is not exactly 64 hexadecimal digits
///         (nothing before or after them, not even a newline), `file_path` is empty or
///         `timeout_ms` is 0 or less; otherwise 0.
INFORMATION_API_EXPORT int download_verified(int id, information_sink* sink, const QString& url,
    const QString& file_path, const QString& sha256_hex, int timeout_ms);

}  // namespace information_api
