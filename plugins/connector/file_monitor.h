/*
 * Tells when the configuration file may have changed, through inotify on the file and on its directory: written,
 * replaced by another or moved into place. It never reads the file.
 */
#ifndef KR_CONNECTOR_FILE_MONITOR_H
#define KR_CONNECTOR_FILE_MONITOR_H

#include <string>

#include "unique_fd.h"

namespace kr_connector {

class file_monitor {
  public:
    // False if the kernel refuses; *why says what it said.
    bool open(const std::string &path, std::string *why);
    int fd() const {
        return inotify_.get();
    }
    // Takes what is pending, without waiting; true if the file may have changed. Then the file is watched anew, so
    // that a change that comes while the caller reads it is not missed.
    bool drain();

  private:
    void watch_file();

    kr_plugin::unique_fd inotify_;
    std::string path_, directory_, name_;
    int directory_watch_ = -1;
};

} // namespace kr_connector

#endif
