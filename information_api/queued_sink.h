/// @file
/// A ready-made information_sink that hands every report to the thread of a `QObject`.
#pragma once

#include <information_api/information_api.h>

#include <QObject>
#include <QPointer>

#include <functional>
#include <memory>

namespace information_api {

/// A sink that calls the host's handlers on the thread of `receiver`, never on the worker thread.
///
/// Each report is queued to `receiver` (a `Qt::QueuedConnection` call) and runs there when that
/// thread's event loop turns, in the order the library made the calls. A report still queued when
/// `receiver` is destroyed is dropped, and none is queued after that: a handler may use what
/// `receiver` owns. The sink itself may be deleted once its connections have ended (see
/// information_sink); reports it already queued still arrive.
///
/// An empty handler drops its reports without queuing them. A download reports its progress many
/// times a second; each report waits in the receiver's queue until that thread gets to it, so a
/// host that does not show progress passes no progress handler. Example, in a window that owns the
/// sink:
///
///     information_api::queued_sink sink_{this, [this](int id, const response_info_t& info) {
///         show_result(id, info);  // on the window's thread
///     }};
class INFORMATION_API_EXPORT queued_sink : public information_sink {
public:
    /// Receives information_sink::on_response() with the response_info_t taken out of its QVariant.
    using response_handler = std::function<void(int id, const response_info_t& info)>;
    /// Receives information_sink::on_download_progress().
    using progress_handler = std::function<void(qint64 received, qint64 total)>;
    /// Receives information_sink::on_download_finished().
    using finished_handler = std::function<void(bool success, int code, int net_error)>;

    /// Queues each report to `receiver` and runs the matching handler on its thread.
    explicit queued_sink(QObject* receiver, response_handler on_response, progress_handler on_download_progress = {},
        finished_handler on_download_finished = {});
    ~queued_sink() override;

    /// Queues `on_response(id, result.value<response_info_t>())` to the receiver.
    void on_response(int id, QVariant result) override;
    /// Queues `on_download_progress(received, total)` to the receiver.
    void on_download_progress(qint64 received, qint64 total) override;
    /// Queues `on_download_finished(success, code, net_error)` to the receiver.
    void on_download_finished(bool success, int code, int net_error) override;

private:
    struct handlers;
    void queue(std::function<void(const handlers&)> call);

    QPointer<QObject> receiver_;
    std::shared_ptr<const handlers> handlers_;  // shared with queued calls, which may outlive the sink
};

}  // namespace information_api
