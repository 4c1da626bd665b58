// The app's queue taking in a drop of a large folder: how long until every
// item is planned, appended and has its thumbnail requested, and the longest
// the GUI thread went without running its event loop meanwhile, measured by a
// timer that should fire every millisecond. The queue is wired as the window
// wires it (the view model owns it and re-announces every change) and, with
// --view, shown in a list view as well.
//
//   kv_queue_bench [--files N] [--view] [--fixture JPEG]
//   kv_queue_bench --send MIB
//
// The list view draws rows with the window's own delegate, progress bars
// included. With --send, the drop is 4 videos of MIB/4 MiB each, and what is
// timed is their send through the view model to a receiving engine on a
// socket pair in the same process, with the view shown and its bars moving.
//
// Prints one line of JSON: files, seconds, longest_stall_ms (wall time between
// two ticks), longest_busy_ms (the GUI thread's CPU time between two ticks:
// the stall without the time spent waiting for a core) and ticks.
#include "KestrelvaneKit/receiving/BatchSaving.h"
#include "KestrelvaneKit/receiving/TransferServer.h"
#include "KestrelvaneKit/session/UsbPhones.h"
#include "KestrelvaneKit/wire/FileDescriptor.h"
#include "KestrelvaneKit/wire/FrameChannel.h"
#include "Sender/QueueRowDelegate.h"
#include "Sender/SenderViewModel.h"
#include "Sender/ThumbnailProvider.h"
#include "Sender/TransferQueue.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QListView>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <time.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

fs::path scratchFolder() {
    const fs::path base = fs::is_directory("/dev/shm") ? "/dev/shm" : fs::temp_directory_path();
    std::string pattern = (base / "kv-queue-bench-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    return pattern;
}

/// `count` photos in 100 subfolders, as a camera card's folders would hold
/// them; each a copy of `fixture` when given, else a few bytes.
void makeFolder(const fs::path& root, int count, const fs::path& fixture) {
    for (int i = 0; i < count; ++i) {
        const fs::path folder = root / ("DCIM_" + std::to_string(i % 100));
        fs::create_directories(folder);
        const fs::path file = folder / ("IMG_" + std::to_string(i) + ".jpg");
        if (!fixture.empty()) {
            fs::copy_file(fixture, file);
        } else {
            std::ofstream(file) << "photo " << i;
        }
    }
}

/// Four videos of `mib` / 4 MiB each (sparse: they read as zeros).
void makeVideos(const fs::path& root, int mib) {
    fs::create_directories(root);
    for (int i = 0; i < 4; ++i) {
        const fs::path file = root / ("VID_" + std::to_string(i) + ".mov");
        std::ofstream(file).close();
        fs::resize_file(file, (static_cast<std::uintmax_t>(mib) << 20) / 4);
    }
}

qint64 threadCpuNs() {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<qint64>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

} // namespace

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    int files = 10'000;
    int sendMib = 0;
    bool withView = false;
    fs::path fixture;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--files" && i + 1 < argc) {
            files = std::max(1, std::atoi(argv[++i]));
        } else if (arg == "--view") {
            withView = true;
        } else if (arg == "--fixture" && i + 1 < argc) {
            fixture = argv[++i];
        } else if (arg == "--send" && i + 1 < argc) {
            sendMib = std::max(4, std::atoi(argv[++i]));
            withView = true;
            files = 4;
        } else {
            std::fprintf(stderr, "usage: kv_queue_bench [--files N] [--view] [--fixture JPEG]\n"
                                 "       kv_queue_bench --send MIB\n");
            return 2;
        }
    }

    QApplication app(argc, argv);
    const fs::path root = scratchFolder();
    if (sendMib > 0) {
        makeVideos(root / "drop", sendMib);
    } else {
        makeFolder(root / "drop", files, fixture);
    }
    // With --send, the receiving engine, discarding what it verified.
    int pair[2] = {-1, -1};
    std::thread receiver;
    if (sendMib > 0) {
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
            std::perror("socketpair");
            return 1;
        }
        fs::create_directories(root / "scratch");
        receiver = std::thread([end = pair[1], scratch = root / "scratch"] {
            kestrelvane::DiscardingSaver saver([](const fs::path&, const auto&) {});
            kestrelvane::FrameChannel channel(
                kestrelvane::UsbPhones::stream(kestrelvane::FileDescriptor(end)));
            kestrelvane::TransferServer(saver, scratch).run(channel, nullptr);
        });
    }

    double seconds = 0;
    qint64 longestStallNs = 0;
    qint64 longestBusyNs = 0;
    long ticks = 0;
    {
        kestrelvane::SenderViewModel model;
        kestrelvane::TransferQueue& queue = model.queue();
        std::unique_ptr<QListView> view;
        if (withView) {
            view = std::make_unique<QListView>();
            view->setModel(&queue);
            view->setItemDelegate(new kestrelvane::QueueRowDelegate(view.get()));
            view->setUniformItemSizes(true);
            view->resize(480, 640);
            view->show();
        }

        // A gap can also be the thread waiting for a core on a busy machine,
        // so the thread's own CPU time across each gap is kept as well.
        QElapsedTimer sinceTick;
        qint64 lastCpuNs = threadCpuNs();
        QTimer ticker;
        ticker.setTimerType(Qt::PreciseTimer);
        ticker.setInterval(1);
        QObject::connect(&ticker, &QTimer::timeout, [&] {
            const qint64 cpuNs = threadCpuNs();
            longestStallNs = std::max(longestStallNs, sinceTick.nsecsElapsed());
            longestBusyNs = std::max(longestBusyNs, cpuNs - lastCpuNs);
            lastCpuNs = cpuNs;
            sinceTick.restart();
            ++ticks;
        });

        QElapsedTimer clock;
        const auto startTicking = [&] {
            ticker.start();
            sinceTick.start();
            lastCpuNs = threadCpuNs();
            clock.start();
        };
        QObject::connect(&queue, &kestrelvane::TransferQueue::addFinished, [&] {
            if (sendMib == 0) {
                seconds = static_cast<double>(clock.nsecsElapsed()) / 1e9;
                // Keep ticking a little while the first thumbnails come back.
                QTimer::singleShot(300, &app, &QCoreApplication::quit);
                return;
            }
            startTicking();
            model.send(pair[0], false, [] {});
        });
        QObject::connect(&model, &kestrelvane::SenderViewModel::sendEnded, [&] {
            seconds = static_cast<double>(clock.nsecsElapsed()) / 1e9;
            app.quit();
        });
        QTimer::singleShot(0, [&] {
            if (sendMib == 0) {
                startTicking();
            }
            queue.add({root / "drop"});
        });
        app.exec();
        ticker.stop();
        if (queue.rowCount() != files) {
            std::fprintf(stderr, "kv_queue_bench: %d of %d files queued\n", queue.rowCount(),
                         files);
            fs::remove_all(root);
            return 1;
        }
        queue.thumbnails().cancelAll();
        if (sendMib > 0 && queue.savedCount() != files) {
            std::fprintf(stderr, "kv_queue_bench: %d of %d files saved\n", queue.savedCount(),
                         files);
            receiver.join();
            fs::remove_all(root);
            return 1;
        }
    }
    if (receiver.joinable()) {
        receiver.join();
    }
    fs::remove_all(root);
    std::printf("{\"files\": %d, \"seconds\": %.6f, \"longest_stall_ms\": %.3f, "
                "\"longest_busy_ms\": %.3f, \"ticks\": %ld}\n",
                files, seconds, static_cast<double>(longestStallNs) / 1e6,
                static_cast<double>(longestBusyNs) / 1e6, ticks);
    return 0;
}
