// information_devserver: the local collection service as a stand-alone server, to develop and
// demonstrate against. Stores what it accepted in its data folder and lists it with --list.
#include "collection_service/collection_service.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

volatile std::sig_atomic_t stop_requested = 0;
void request_stop(int) { stop_requested = 1; }

int usage()
{
    std::fprintf(stderr,
                 "usage: information_devserver [--data-dir DIR] [--host HOST] [--port N] [--http]\n"
                 "         [--max-body-mb N] [--delay-ms N] [--silent] [--refuse] [--broken] [--reset] | --list\n");
    return 2;
}

int list(const fs::path& data_dir)
{
    for (const char* folder : {"received", "uploads"}) {
        std::error_code ec;
        for (const auto& entry : fs::directory_iterator(data_dir / folder, ec))
            std::printf("%s/%s (%ju bytes)\n", folder, entry.path().filename().c_str(),
                        std::uintmax_t(entry.file_size()));
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    collection::service_options options;
    options.data_dir = "devserver-data";
    options.store_received = true;  // bodies go to disk as they arrive
    options.keep_limit = 4096;       // a long-running server keeps only a glimpse of each in memory
    collection::reply misbehaviour;
    bool misbehave = false, listing = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool has_value = i + 1 < argc;
        if (arg == "--data-dir" && has_value) options.data_dir = argv[++i];
        else if (arg == "--host" && has_value) options.host = argv[++i];
        else if (arg == "--port" && has_value) options.port = std::atoi(argv[++i]);
        else if (arg == "--http") options.tls = false;
        else if (arg == "--max-body-mb" && has_value) options.max_body_size = std::strtoull(argv[++i], nullptr, 10) << 20;
        else if (arg == "--list") listing = true;
        else if (arg == "--delay-ms" && has_value) misbehaviour.delay = std::chrono::milliseconds(std::atoi(argv[++i]));
        else if (arg == "--silent") misbehave = misbehaviour.silent = true;
        else if (arg == "--reset") misbehave = misbehaviour.reset_midway = true;
        else if (arg == "--refuse") misbehave = true, misbehaviour.body = R"({"status":"failed","result":"refused by --refuse"})";
        else if (arg == "--broken") misbehave = true, misbehaviour.body = "<html>not JSON</html>";
        else return usage();
    }
    if (listing)
        return list(options.data_dir);

    collection::collection_service service(options);
    if (misbehaviour.delay.count() > 0 && !misbehave) {
        // Delayed, but otherwise the real answers: the script only waits.
        const auto delay = misbehaviour.delay;
        service.set_script([delay](const collection::received_request&) -> std::optional<collection::reply> {
            std::this_thread::sleep_for(delay);
            return std::nullopt;
        });
    } else if (misbehave) {
        if (misbehaviour.body.empty())
            misbehaviour.body = R"({"status":"success","result":"ok"})";
        service.answer_all(misbehaviour);
    }
    if (!service.start()) {
        std::fprintf(stderr, "information_devserver: %s\n", service.error().c_str());
        return 1;
    }
    std::ofstream(fs::path(service.data_dir()) / "url") << service.base_url() << "\n";
    std::printf("listening on %s\n", service.base_url().c_str());
    std::fflush(stdout);

    std::signal(SIGINT, request_stop);
    std::signal(SIGTERM, request_stop);
    while (!stop_requested)
        pause();
    service.stop();
    return 0;
}
