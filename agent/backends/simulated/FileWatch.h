// Notices that the content found at a path may have changed: the file is written, replaced by rename, removed, made
// anew, or reached through a symbolic link that was turned elsewhere.
//
// Watches folders, not the file: an editor that renames leaves the watched file behind. Of every symbolic link on the
// way to the file the folder it stands in is watched, so is the file's own folder, and where the path breaks off, the
// last folder that is there.
//
// Threads: one, which runs the io_context and calls everything here.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

struct inotify_event;

namespace kx::agent::simulated {

/// After a writer has closed the file or put it in place, this long passes before it is reported, so that one command
/// that does several steps is one change.
inline constexpr std::chrono::milliseconds kSettleTime{20};

/// The same after a step that is most likely followed by another: the file is gone, or has been created and is being
/// filled.
inline constexpr std::chrono::milliseconds kUnfinishedTime{200};

/// What to watch: names of interest in each folder.
using WatchPlan = std::map<std::string, std::set<std::string>>;

/// @brief Works out which entries of which folders decide what is found at a path.
/// @param path absolute; it need not exist
WatchPlan planWatches(const std::string& path);

/// A watch on one path.
class FileWatch {
public:
    /// @param path the file; a relative path is taken from the folder the process is in now
    /// @param changed called from the io_context, soon after a change; never after this object is gone,
    /// which it may bring about itself
    /// @throws std::runtime_error when nothing can be watched
    FileWatch(boost::asio::io_context& io, const std::string& path, std::function<void()> changed);

    FileWatch(const FileWatch&) = delete;
    FileWatch& operator=(const FileWatch&) = delete;

private:
    void waitForNotices();
    void takeNotices();
    void takeNotice(const inotify_event& event);
    void reportWithin(std::chrono::milliseconds delay);
    void report();
    std::string refreshWatches();
    std::string apply(const WatchPlan& plan);

    const std::string path_;
    const std::function<void()> changed_;
    boost::asio::posix::stream_descriptor inotify_;
    boost::asio::steady_timer timer_;
    bool isReportDue_ = false;
    std::map<int, std::set<std::string>> namesOfWatch_;      ///< of interest, for each of the kernel's watches
    std::string problem_;                                    ///< last one logged, so that changes only are logged
    std::shared_ptr<void> life_ = std::make_shared<char>();  ///< handlers that outlive this object see it expired
};

}  // namespace kx::agent::simulated
