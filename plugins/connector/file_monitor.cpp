/*
 * inotify on the configuration file. The directory shows a file that is moved or linked into place; the file itself
 * shows a write through another name, as behind a symbolic link.
 */
#include "file_monitor.h"

#include <sys/inotify.h>

#include <cerrno>
#include <climits>
#include <cstring>

namespace kr_connector {
namespace {

// A file counts as changed when its writer closes it; creation alone would show it half written.
constexpr uint32_t directory_events = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ONLYDIR;
constexpr uint32_t file_events = IN_CLOSE_WRITE | IN_MOVE_SELF | IN_DELETE_SELF;

} // namespace

bool file_monitor::open(const std::string &path, std::string *why) {
    const size_t slash = path.rfind('/');
    path_ = path;
    directory_ = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    name_ = slash == std::string::npos ? path : path.substr(slash + 1);
    inotify_.reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (inotify_) {
        directory_watch_ = inotify_add_watch(inotify_.get(), directory_.c_str(), directory_events);
    }
    if (!inotify_ || directory_watch_ < 0) {
        *why = directory_ + ": " + std::strerror(errno);
        return false;
    }
    watch_file();
    return true;
}

bool file_monitor::drain() {
    bool is_changed = false;
    alignas(inotify_event) char buffer[16 * (sizeof(inotify_event) + NAME_MAX + 1)];
    for (;;) {
        const ssize_t size = ::read(inotify_.get(), buffer, sizeof(buffer));
        if (size <= 0) {
            break;
        }
        for (const char *at = buffer; at < buffer + size;) {
            const auto *event = reinterpret_cast<const inotify_event *>(at);
            const bool is_ours = event->wd != directory_watch_ || (event->len > 0 && name_ == event->name);
            is_changed =
                is_changed || (event->mask & IN_Q_OVERFLOW) != 0 || (is_ours && (event->mask & IN_IGNORED) == 0);
            at += sizeof(inotify_event) + event->len;
        }
    }
    if (is_changed) {
        watch_file();
    }
    return is_changed;
}

void file_monitor::watch_file() {
    // A file that is not there, or that may not be read, is reported by whoever reads it.
    (void)inotify_add_watch(inotify_.get(), path_.c_str(), file_events);
}

} // namespace kr_connector
