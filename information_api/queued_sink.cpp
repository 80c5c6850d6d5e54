#include <information_api/queued_sink.h>

#include <QMetaObject>

namespace information_api {

struct queued_sink::handlers {
    response_handler response;
    progress_handler progress;
    finished_handler finished;
};

queued_sink::queued_sink(QObject* receiver, response_handler on_response, progress_handler on_download_progress,
    finished_handler on_download_finished)
    : receiver_(receiver), handlers_(std::make_shared<const handlers>(handlers{std::move(on_response),
                               std::move(on_download_progress), std::move(on_download_finished)}))
{}

queued_sink::~queued_sink() = default;

// Calls posted from one thread to one object are delivered in the order they were posted, and
// Qt discards those still queued for an object it destroys. The QPointer also stops the call
// when the receiver went between the post and its delivery by another route.
void queued_sink::queue(std::function<void(const handlers&)> call)
{
    QObject* const receiver = receiver_.data();
    if (!receiver)
        return;
    QMetaObject::invokeMethod(
        receiver,
        [guard = QPointer<QObject>(receiver), h = handlers_, call = std::move(call)] {
            if (guard)
                call(*h);
        },
        Qt::QueuedConnection);
}

void queued_sink::on_response(int id, QVariant result)
{
    if (!handlers_->response)
        return;
    const auto info = result.value<response_info_t>();
    queue([id, info](const handlers& h) { h.response(id, info); });
}

void queued_sink::on_download_progress(qint64 received, qint64 total)
{
    if (handlers_->progress)
        queue([received, total](const handlers& h) { h.progress(received, total); });
}

void queued_sink::on_download_finished(bool success, int code, int net_error)
{
    if (handlers_->finished)
        queue([success, code, net_error](const handlers& h) { h.finished(success, code, net_error); });
}

}  // namespace information_api
